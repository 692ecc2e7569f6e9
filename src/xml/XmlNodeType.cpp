// XmlNodeType::Of, the one vocabulary function that needs Xerces.
#include <veskan/Vocabulary.h>

#include <xercesc/dom/DOMNode.hpp>

namespace Veskan {

XmlNodeType::Enumeration XmlNodeType::Of(const xercesc::DOMNode* node) {
  if (!node) return None;
  switch (node->getNodeType()) {
    case xercesc::DOMNode::ELEMENT_NODE:
      return Element;
    case xercesc::DOMNode::TEXT_NODE:
      return Text;
    case xercesc::DOMNode::DOCUMENT_NODE:
      return Document;
    default:  // attributes too: Attribute is never given here
      return None;
  }
}

}  // namespace Veskan
