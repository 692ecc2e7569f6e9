// QName: prefix, local name and namespace URI of an XML name.
#include <veskan/XmlSchema.h>

namespace Veskan {

namespace {

// Splits at the first colon; without one the whole text is the local name.
void Split(const char16_t* qualifiedName, StringBuffer& prefix, StringBuffer& localName) {
  const StringBuffer name(qualifiedName);
  const int colon = name.indexOf(u':');
  if (colon < 0) {
    localName = name;
    return;
  }
  prefix = StringBuffer(name.getBuffer(), 0, colon);
  localName = StringBuffer(name.getBuffer(), colon + 1, name.length() - colon - 1);
}

}  // namespace

QName::QName(const char16_t* prefix, const char16_t* localName, const char16_t* namespaceUri)
    : Prefix(prefix), LocalName(localName), NamespaceUri(namespaceUri) {}

QName::QName(const char16_t* qualifiedName, const char16_t* namespaceUri)
    : NamespaceUri(namespaceUri) {
  Split(qualifiedName, Prefix, LocalName);
}

QName::QName(const char16_t* qualifiedName, const XPathVariables& namespaces) {
  Split(qualifiedName, Prefix, LocalName);
  NamespaceUri = namespaces.GetValue(Prefix);
}

QName::QName(const xercesc::DOMNode* node) {
  if (!node) return;
  Prefix = node->getPrefix();
  LocalName = node->getLocalName() ? node->getLocalName() : node->getNodeName();
  NamespaceUri = node->getNamespaceURI();
}

bool QName::operator==(const QName& other) const {
  return LocalName == other.LocalName && NamespaceUri == other.NamespaceUri;
}

bool QName::operator==(const xercesc::DOMNode* node) const {
  if (!node) return false;
  const char16_t* local = node->getLocalName() ? node->getLocalName() : node->getNodeName();
  return LocalName == local && NamespaceUri == SafeStringLiteral(node->getNamespaceURI());
}

StringBuffer QName::QualifiedName() const {
  if (Prefix.isEmpty()) return LocalName;
  return Prefix + u":" + LocalName;
}

}  // namespace Veskan
