// Name matching and text reading shared by the XmlSchema sources.
#ifndef VESKAN_XML_XMLNAMES_H
#define VESKAN_XML_XMLNAMES_H

#include <veskan/XmlSchema.h>

namespace Veskan {
namespace Detail {

// How the steps of a path, or a tag name, become qualified names: with one namespace URI for
// every name, or through a prefix table.
class NameResolver {
 public:
  explicit NameResolver(const char16_t* namespaceUri) : uri_(namespaceUri) {}
  explicit NameResolver(const XPathVariables& namespaces) : namespaces_(&namespaces) {}

  QName Resolve(const char16_t* qualifiedName) const {
    return namespaces_ ? QName(qualifiedName, *namespaces_) : QName(qualifiedName, uri_);
  }

 private:
  const char16_t* uri_ = nullptr;
  const XPathVariables* namespaces_ = nullptr;
};

// The attribute `name` of `element`, an unprefixed name being in no namespace and a prefixed one
// resolved through `namespaces` (by node name when the table lacks the prefix).
xercesc::DOMAttr* AttributeThroughTable(const xercesc::DOMElement* element, const char16_t* name,
                                        const XPathVariables& namespaces);

// The node's DOM text content: the text and CDATA below an element or an attribute, in document
// order; the data of a text, CDATA, comment or processing-instruction node. Read without
// allocating in the document's heap, as Xerces' getTextContent() does on every call (that memory
// is only given back when the whole document is freed). A document gives the empty string.
StringBuffer TextContent(const xercesc::DOMNode* node);

}  // namespace Detail
}  // namespace Veskan

#endif
