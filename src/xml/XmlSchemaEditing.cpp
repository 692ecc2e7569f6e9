// XmlSchema: attributes, text, CDATA and changes to the tree.
#include <veskan/Logger.h>
#include <veskan/XmlSchema.h>

#include "xml/XmlNames.h"
#include "xml/xpath/XPathValue.h"

#include <xercesc/dom/DOMException.hpp>
#include <xercesc/util/XMLChar.hpp>

#include <string>

namespace Veskan {

namespace {

constexpr char16_t XmlnsUri[] = u"http://www.w3.org/2000/xmlns/";

void LogRefusal(const char* method, const xercesc::DOMException& refused) {
  Logger::Line(Logger::Severity::Warning, method)
      << " code: " << static_cast<int>(refused.code) << " message: " << refused.getMessage();
}

bool HasTextChild(const xercesc::DOMNode* node) {
  for (const xercesc::DOMNode* child = node->getFirstChild(); child;
       child = child->getNextSibling()) {
    const auto type = child->getNodeType();
    if (type == xercesc::DOMNode::TEXT_NODE || type == xercesc::DOMNode::CDATA_SECTION_NODE)
      return true;
  }
  return false;
}

// True when `child` is `parent` or one of its ancestors: Xerces checks only from the parent's own
// parent upwards, and would put a node into itself.
bool WouldNestInItself(const xercesc::DOMNode* parent, const xercesc::DOMNode* child) {
  for (const xercesc::DOMNode* node = parent; node; node = node->getParentNode())
    if (node == child) return true;
  return false;
}

void LogNesting(const char* method) {
  Logger::Line(Logger::Severity::Warning, method)
      << " message: a node cannot go into itself or below itself";
}

// `child` itself when it already belongs to `parent`'s document, else a deep copy imported there.
xercesc::DOMNode* Adopted(xercesc::DOMNode* parent, xercesc::DOMNode* child) {
  xercesc::DOMDocument* document = XmlSchema::OwnerDocument(parent);
  if (!document || XmlSchema::OwnerDocument(child) == document) return child;
  return document->importNode(child, true);
}

// Removes and frees every child: content that an operation replaces is gone for good. (A node that
// is only detached stays in the document's heap until the document is freed, and its memory is
// never used again.)
void ReleaseChildren(xercesc::DOMNode* node) {
  while (xercesc::DOMNode* child = node->getFirstChild())
    node->removeChild(child)->release();
}

}  // namespace

namespace Detail {

StringBuffer TextContent(const xercesc::DOMNode* node) {
  if (!node || node->getNodeType() == xercesc::DOMNode::DOCUMENT_NODE) return StringBuffer();
  // The XPath string-value of every node but a document is its DOM text content.
  std::u16string text;
  XPath::AppendStringValue(node, text);
  return StringBuffer(text.data(), static_cast<int>(text.size()));
}

}  // namespace Detail

StringBuffer XmlSchema::GetTextContent(const xercesc::DOMNode* node, const char16_t* fallback) {
  if (!node) return StringBuffer(fallback);
  const auto type = node->getNodeType();
  if ((type == xercesc::DOMNode::ELEMENT_NODE || type == xercesc::DOMNode::DOCUMENT_NODE) &&
      !HasTextChild(node))
    return StringBuffer(fallback);
  return Detail::TextContent(node);
}

xercesc::DOMAttr* XmlSchema::GetAttributeNode(const xercesc::DOMElement* element,
                                              const char16_t* name, const char16_t* namespaceUri) {
  if (!element || IsEmptyString(name)) return nullptr;
  if (IsEmptyString(namespaceUri)) return element->getAttributeNode(name);
  return element->getAttributeNodeNS(namespaceUri, QName(name, namespaceUri).LocalName);
}

StringBuffer XmlSchema::GetAttribute(const xercesc::DOMElement* element, const char16_t* name,
                                     const char16_t* namespaceUri, const char16_t* fallback) {
  return GetTextContent(GetAttributeNode(element, name, namespaceUri), fallback);
}

bool XmlSchema::HasAttribute(const xercesc::DOMElement* element, const char16_t* name,
                             const char16_t* namespaceUri) {
  return GetAttributeNode(element, name, namespaceUri) != nullptr;
}

xercesc::DOMAttr* XmlSchema::SetAttribute(xercesc::DOMElement* element, const char16_t* name,
                                          const char16_t* value, const char16_t* namespaceUri) {
  if (!element) return nullptr;
  const QName qualified(name, namespaceUri);
  StringBuffer uri(namespaceUri);
  if (uri.isEmpty() && !qualified.Prefix.isEmpty()) {
    if (qualified.Prefix == Namespaces::Prefix::Xml) {
      uri = Namespaces::Uri::Xml;
    } else if (qualified.Prefix == u"xmlns") {
      uri = XmlnsUri;
    } else if (const XMLCh* bound = element->lookupNamespaceURI(qualified.Prefix)) {
      uri = bound;
    } else {
      // Written as it is, the attribute would make a document that no parser reads back.
      Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::SetAttribute")
          << " name: " << name << " message: the prefix is not bound";
      return nullptr;
    }
  }
  try {
    if (uri.isEmpty()) {
      element->setAttribute(SafeStringLiteral(name), SafeStringLiteral(value));
      return element->getAttributeNode(name);
    }
    // Xerces' setAttributeNS looks a prefixed name up by the wrong local name: it would always
    // make a new attribute and leave the old one detached, unfreed, in the document's heap.
    xercesc::DOMAttr* existing = element->getAttributeNodeNS(uri, qualified.LocalName);
    if (existing && StringBuffer(existing->getPrefix()) == qualified.Prefix) {
      existing->setValue(SafeStringLiteral(value));
      return existing;
    }
    element->setAttributeNS(uri, SafeStringLiteral(name), SafeStringLiteral(value));
    return element->getAttributeNodeNS(uri, qualified.LocalName);
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::SetAttribute", refused);
    return nullptr;
  }
}

int XmlSchema::SetAttribute(const XmlElementList& elements, const char16_t* name,
                            const char16_t* value, const char16_t* namespaceUri) {
  int set = 0;
  for (xercesc::DOMElement* element : elements)
    if (SetAttribute(element, name, value, namespaceUri)) ++set;
  return set;
}

XmlAttributeList XmlSchema::GetAttributes(const xercesc::DOMElement* element) {
  XmlAttributeList attributes;
  if (!element) return attributes;
  const xercesc::DOMNamedNodeMap* map = element->getAttributes();
  for (XMLSize_t index = 0; map && index < map->getLength(); ++index)
    attributes.Add(static_cast<xercesc::DOMAttr*>(map->item(index)));
  return attributes;
}

void XmlSchema::SetTextContent(xercesc::DOMNode* node, const char16_t* text) {
  if (!node) return;
  try {
    if (node->getNodeType() == xercesc::DOMNode::ELEMENT_NODE) {
      // Xerces' own setTextContent detaches the old children without freeing them.
      ReleaseChildren(node);
      node->appendChild(node->getOwnerDocument()->createTextNode(SafeStringLiteral(text)));
      return;
    }
    node->setTextContent(SafeStringLiteral(text));
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::SetTextContent", refused);
  }
}

xercesc::DOMText* XmlSchema::CreateText(xercesc::DOMElement* element, const char16_t* text) {
  if (!element) return nullptr;
  xercesc::DOMText* node = element->getOwnerDocument()->createTextNode(SafeStringLiteral(text));
  element->appendChild(node);
  return node;
}

xercesc::DOMCDATASection* XmlSchema::SetCDATA(xercesc::DOMElement* element, const char16_t* text) {
  if (!element) return nullptr;
  xercesc::DOMCDATASection* section =
      element->getOwnerDocument()->createCDATASection(SafeStringLiteral(text));
  ReleaseChildren(element);
  element->appendChild(section);
  return section;
}

xercesc::DOMCDATASection* XmlSchema::SetCDATA(xercesc::DOMElement* element, const char* bytes,
                                              int length) {
  if (!element) return nullptr;
  StringBuffer text;
  if (bytes && length > 0) {
    text = UTF8to16(bytes, 0, length);
    if (text.isEmpty()) {
      Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::SetCDATA")
          << " length: " << length << " message: the bytes are not UTF-8";
      return nullptr;
    }
  }
  return SetCDATA(element, text.c_str());
}

ByteBuffer XmlSchema::GetCDATA(const xercesc::DOMElement* element) {
  StringBuffer text;
  if (element) {
    for (const xercesc::DOMNode* child = element->getFirstChild(); child;
         child = child->getNextSibling())
      if (child->getNodeType() == xercesc::DOMNode::CDATA_SECTION_NODE)
        text += child->getNodeValue();
  }
  return UTF16to8(text);
}

xercesc::DOMNode* XmlSchema::AppendChild(xercesc::DOMNode* parent, xercesc::DOMNode* child) {
  return InsertChild(parent, child, nullptr);
}

xercesc::DOMNode* XmlSchema::InsertChild(xercesc::DOMNode* parent, xercesc::DOMNode* child,
                                         xercesc::DOMNode* before) {
  if (!parent || !child) return nullptr;
  if (WouldNestInItself(parent, child)) {
    LogNesting("Veskan::XmlSchema::InsertChild");
    return nullptr;
  }
  try {
    return parent->insertBefore(Adopted(parent, child), before);
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::InsertChild", refused);
    return nullptr;
  }
}

xercesc::DOMNode* XmlSchema::ReplaceChild(xercesc::DOMNode* old, xercesc::DOMNode* replacement) {
  xercesc::DOMNode* parent = Parent(old);
  if (!parent || !replacement || replacement == old) return nullptr;
  if (WouldNestInItself(parent, replacement)) {
    LogNesting("Veskan::XmlSchema::ReplaceChild");
    return nullptr;
  }
  try {
    xercesc::DOMNode* adopted = Adopted(parent, replacement);
    parent->replaceChild(adopted, old);
    return adopted;
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::ReplaceChild", refused);
    return nullptr;
  }
}

xercesc::DOMNode* XmlSchema::RemoveChild(xercesc::DOMNode* node) {
  xercesc::DOMNode* parent = Parent(node);
  if (!parent) return nullptr;
  try {
    return parent->removeChild(node);
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::RemoveChild", refused);
    return nullptr;
  }
}

void XmlSchema::RemoveAllChildrenAndAttributes(xercesc::DOMElement* element) {
  if (!element) return;
  try {
    ReleaseChildren(element);
    xercesc::DOMNamedNodeMap* attributes = element->getAttributes();
    while (attributes && attributes->getLength() > 0)
      element->removeAttributeNode(static_cast<xercesc::DOMAttr*>(attributes->item(0)))->release();
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::RemoveAllChildrenAndAttributes", refused);
  }
}

xercesc::DOMNode* XmlSchema::RenameNode(xercesc::DOMNode* node, const char16_t* namespaceUri,
                                        const char16_t* qualifiedName) {
  xercesc::DOMDocument* document = OwnerDocument(node);
  if (!document || document == node) return nullptr;
  // Xerces renames without checking the name.
  const StringBuffer name(qualifiedName);
  if (!xercesc::XMLChar1_0::isValidQName(name, static_cast<XMLSize_t>(name.length()))) {
    Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::RenameNode")
        << " name: " << name << " message: not a qualified name";
    return nullptr;
  }
  try {
    return document->renameNode(node, IsEmptyString(namespaceUri) ? nullptr : namespaceUri, name);
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::RenameNode", refused);
    return nullptr;
  }
}

xercesc::DOMElement* XmlSchema::Import(const std::shared_ptr<XmlDocument>& doc,
                                       const xercesc::DOMElement* element) {
  xercesc::DOMDocument* document = DocumentNode(doc);
  if (!document || !element) return nullptr;
  try {
    auto* copy = static_cast<xercesc::DOMElement*>(document->importNode(element, true));
    if (!document->getDocumentElement()) document->appendChild(copy);
    return copy;
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::Import", refused);
    return nullptr;
  }
}

xercesc::DOMElement* XmlSchema::Import(xercesc::DOMElement* target,
                                       const xercesc::DOMElement* element) {
  if (!target || !element) return nullptr;
  try {
    auto* copy =
        static_cast<xercesc::DOMElement*>(target->getOwnerDocument()->importNode(element, true));
    target->appendChild(copy);
    return copy;
  } catch (const xercesc::DOMException& refused) {
    LogRefusal("Veskan::XmlSchema::Import", refused);
    return nullptr;
  }
}

XmlElementList XmlSchema::Import(const std::shared_ptr<XmlDocument>& doc,
                                 const XmlElementList& elements) {
  XmlElementList copies;
  for (xercesc::DOMElement* element : elements)
    if (xercesc::DOMElement* copy = Import(doc, element)) copies.Add(copy);
  return copies;
}

XmlElementList XmlSchema::Import(xercesc::DOMElement* target, const XmlElementList& elements) {
  XmlElementList copies;
  for (xercesc::DOMElement* element : elements)
    if (xercesc::DOMElement* copy = Import(target, element)) copies.Add(copy);
  return copies;
}

}  // namespace Veskan
