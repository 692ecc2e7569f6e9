// How the XPath engine sees Xerces DOM nodes: the XPath parent of an attribute, namespace
// declarations standing for namespace nodes, and Xerces text as string views.
#ifndef VESKAN_XML_XPATH_XPATHNODES_H
#define VESKAN_XML_XPATH_XPATHNODES_H

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNode.hpp>

#include <string_view>

namespace Veskan {
namespace Detail {
namespace XPath {

constexpr std::u16string_view XmlNamespace = u"http://www.w3.org/XML/1998/namespace";
constexpr std::u16string_view XmlnsNamespace = u"http://www.w3.org/2000/xmlns/";

// Xerces text, null as empty.
inline std::u16string_view View(const XMLCh* text) {
  return text ? std::u16string_view(text) : std::u16string_view();
}

// The XPath parent: an attribute's is its element, though the DOM gives it none.
inline xercesc::DOMNode* ParentOf(const xercesc::DOMNode* node) {
  if (node->getNodeType() == xercesc::DOMNode::ATTRIBUTE_NODE) {
    return static_cast<const xercesc::DOMAttr*>(node)->getOwnerElement();
  }
  return node->getParentNode();
}

// An xmlns attribute: the engine's namespace node for the prefix it declares, never an
// attribute of the attribute axis.
inline bool IsNamespaceDeclaration(const xercesc::DOMNode* node) {
  return node->getNodeType() == xercesc::DOMNode::ATTRIBUTE_NODE &&
         View(node->getNamespaceURI()) == XmlnsNamespace;
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
