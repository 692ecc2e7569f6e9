// XmlSchema: navigation, path lookup and path creation.
#include <veskan/Logger.h>
#include <veskan/XPathExpression.h>
#include <veskan/XmlSchema.h>

#include "xml/XmlNames.h"

#include <xercesc/dom/DOMException.hpp>

#include <vector>

namespace Veskan {

using Detail::NameResolver;

namespace {

bool IsElement(const xercesc::DOMNode* node) {
  return node && node->getNodeType() == xercesc::DOMNode::ELEMENT_NODE;
}

xercesc::DOMElement* AsElement(xercesc::DOMNode* node) {
  return IsElement(node) ? static_cast<xercesc::DOMElement*>(node) : nullptr;
}

// The steps of `path` without its empty ones; `absolute` tells whether it began with a slash.
std::vector<StringBuffer> SplitPath(const char16_t* path, bool& absolute) {
  std::vector<StringBuffer> steps;
  const StringBuffer text(path);
  absolute = text.length() > 0 && text.charAt(0) == u'/';
  int start = 0;
  while (start <= text.length()) {
    int slash = text.indexOf(u'/', start);
    if (slash < 0) slash = text.length();
    if (slash > start) steps.emplace_back(text.getBuffer(), start, slash - start);
    start = slash + 1;
  }
  return steps;
}

xercesc::DOMNode* StartOf(xercesc::DOMNode* node, bool absolute) {
  if (!node || !absolute) return node;
  return XmlSchema::OwnerDocument(node);
}

bool IsStay(const StringBuffer& step) {
  return step == u".";
}

bool IsUp(const StringBuffer& step) {
  return step == u"..";
}

// Depth-first search for the first element that completes steps[index...] from `current` and
// passes `accept`.
template <typename Accept>
xercesc::DOMElement* Walk(xercesc::DOMNode* current, const std::vector<StringBuffer>& steps,
                          std::size_t index, const NameResolver& names, const Accept& accept) {
  if (!current) return nullptr;
  if (index == steps.size()) {
    xercesc::DOMElement* element = AsElement(current);
    return element && accept(element) ? element : nullptr;
  }
  const StringBuffer& step = steps[index];
  if (IsStay(step)) return Walk(current, steps, index + 1, names, accept);
  if (IsUp(step)) return Walk(current->getParentNode(), steps, index + 1, names, accept);
  const QName name = names.Resolve(step);
  for (xercesc::DOMNode* child = current->getFirstChild(); child; child = child->getNextSibling()) {
    if (!IsElement(child) || name != child) continue;
    if (xercesc::DOMElement* found = Walk(child, steps, index + 1, names, accept)) return found;
  }
  return nullptr;
}

xercesc::DOMElement* Find(xercesc::DOMNode* node, const char16_t* path, const NameResolver& names) {
  bool absolute = false;
  const std::vector<StringBuffer> steps = SplitPath(path, absolute);
  return Walk(StartOf(node, absolute), steps, 0, names,
              [](const xercesc::DOMElement*) { return true; });
}

xercesc::DOMElement* FirstChildNamed(xercesc::DOMNode* node, const QName& name) {
  for (xercesc::DOMNode* child = node->getFirstChild(); child; child = child->getNextSibling())
    if (IsElement(child) && name == child) return static_cast<xercesc::DOMElement*>(child);
  return nullptr;
}

// A new element for `name` in `document`; a prefix without namespace URI is dropped, since the
// DOM cannot bind it.
xercesc::DOMElement* NewElement(xercesc::DOMDocument* document, const QName& name) {
  if (name.NamespaceUri.isEmpty()) return document->createElementNS(nullptr, name.LocalName);
  return document->createElementNS(name.NamespaceUri, name.QualifiedName());
}

xercesc::DOMElement* Create(xercesc::DOMNode* node, const char16_t* path, const NameResolver& names,
                            bool reuse) {
  bool absolute = false;
  const std::vector<StringBuffer> steps = SplitPath(path, absolute);
  xercesc::DOMNode* current = StartOf(node, absolute);
  xercesc::DOMDocument* document = XmlSchema::OwnerDocument(current);
  if (!document) return nullptr;
  try {
    for (const StringBuffer& step : steps) {
      if (IsStay(step)) continue;
      if (IsUp(step)) {
        current = current->getParentNode();
        if (!current) return nullptr;
        continue;
      }
      const QName name = names.Resolve(step);
      if (reuse) {
        if (xercesc::DOMElement* existing = FirstChildNamed(current, name)) {
          current = existing;
          continue;
        }
      }
      current = current->appendChild(NewElement(document, name));
    }
  } catch (const xercesc::DOMException& refused) {
    Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::CreateElement")
        << " path: " << path << " code: " << static_cast<int>(refused.code)
        << " message: " << refused.getMessage();
    return nullptr;
  }
  return AsElement(current);
}

void CollectByName(const xercesc::DOMNode* node, const NameResolver& names, const char16_t* tag,
                   XmlElementList& found) {
  if (!node) return;
  const QName name = names.Resolve(tag);
  // Document order without recursion, so that deep trees cannot exhaust the stack.
  const xercesc::DOMNode* current = node->getFirstChild();
  while (current) {
    if (IsElement(current) && name == current)
      found.Add(const_cast<xercesc::DOMElement*>(static_cast<const xercesc::DOMElement*>(current)));
    if (current->getFirstChild()) {
      current = current->getFirstChild();
      continue;
    }
    while (current && current != node && !current->getNextSibling())
      current = current->getParentNode();
    if (!current || current == node) break;
    current = current->getNextSibling();
  }
}

}  // namespace

namespace Detail {

xercesc::DOMAttr* AttributeThroughTable(const xercesc::DOMElement* element, const char16_t* name,
                                        const XPathVariables& namespaces) {
  if (!element) return nullptr;
  const QName qualified(name, XPathVariables::Empty);
  if (!qualified.Prefix.isEmpty() && namespaces.Contains(qualified.Prefix))
    return element->getAttributeNodeNS(namespaces[qualified.Prefix.c_str()], qualified.LocalName);
  return element->getAttributeNode(SafeStringLiteral(name));
}

}  // namespace Detail

xercesc::DOMNode* XmlSchema::Parent(const xercesc::DOMNode* node) {
  return node ? node->getParentNode() : nullptr;
}

xercesc::DOMNode* XmlSchema::FirstChild(const xercesc::DOMNode* node) {
  return node ? node->getFirstChild() : nullptr;
}

xercesc::DOMNode* XmlSchema::LastChild(const xercesc::DOMNode* node) {
  return node ? node->getLastChild() : nullptr;
}

xercesc::DOMNode* XmlSchema::NextSibling(const xercesc::DOMNode* node) {
  return node ? node->getNextSibling() : nullptr;
}

xercesc::DOMNode* XmlSchema::PreviousSibling(const xercesc::DOMNode* node) {
  return node ? node->getPreviousSibling() : nullptr;
}

xercesc::DOMElement* XmlSchema::FirstChildElement(const xercesc::DOMNode* node) {
  xercesc::DOMNode* child = FirstChild(node);
  while (child && !IsElement(child))
    child = child->getNextSibling();
  return AsElement(child);
}

xercesc::DOMElement* XmlSchema::LastChildElement(const xercesc::DOMNode* node) {
  xercesc::DOMNode* child = LastChild(node);
  while (child && !IsElement(child))
    child = child->getPreviousSibling();
  return AsElement(child);
}

xercesc::DOMElement* XmlSchema::NextElement(const xercesc::DOMNode* node) {
  xercesc::DOMNode* sibling = NextSibling(node);
  while (sibling && !IsElement(sibling))
    sibling = sibling->getNextSibling();
  return AsElement(sibling);
}

xercesc::DOMElement* XmlSchema::PreviousElement(const xercesc::DOMNode* node) {
  xercesc::DOMNode* sibling = PreviousSibling(node);
  while (sibling && !IsElement(sibling))
    sibling = sibling->getPreviousSibling();
  return AsElement(sibling);
}

bool XmlSchema::HasChildren(const xercesc::DOMNode* node) {
  return node && node->hasChildNodes();
}

XmlNodeList XmlSchema::GetAllChildNodes(const xercesc::DOMNode* node) {
  XmlNodeList children;
  for (xercesc::DOMNode* child = FirstChild(node); child; child = child->getNextSibling())
    children.Add(child);
  return children;
}

XmlElementList XmlSchema::GetAllChildElements(const xercesc::DOMNode* node) {
  XmlElementList children;
  for (xercesc::DOMElement* child = FirstChildElement(node); child; child = NextElement(child))
    children.Add(child);
  return children;
}

XmlElementList XmlSchema::GetElementsByTagName(const xercesc::DOMNode* node, const char16_t* name,
                                               const char16_t* namespaceUri) {
  XmlElementList found;
  CollectByName(node, NameResolver(namespaceUri), name, found);
  return found;
}

XmlElementList XmlSchema::GetElementsByTagName(const xercesc::DOMNode* node, const char16_t* name,
                                               const XPathVariables& namespaces) {
  XmlElementList found;
  CollectByName(node, NameResolver(namespaces), name, found);
  return found;
}

xercesc::DOMElement* XmlSchema::NodeAsElement(xercesc::DOMNode* node) {
  return AsElement(node);
}

xercesc::DOMAttr* XmlSchema::NodeAsAttribute(xercesc::DOMNode* node) {
  return node && node->getNodeType() == xercesc::DOMNode::ATTRIBUTE_NODE
             ? static_cast<xercesc::DOMAttr*>(node)
             : nullptr;
}

xercesc::DOMText* XmlSchema::NodeAsText(xercesc::DOMNode* node) {
  return node && node->getNodeType() == xercesc::DOMNode::TEXT_NODE
             ? static_cast<xercesc::DOMText*>(node)
             : nullptr;
}

xercesc::DOMDocument* XmlSchema::NodeAsDocument(xercesc::DOMNode* node) {
  return node && node->getNodeType() == xercesc::DOMNode::DOCUMENT_NODE
             ? static_cast<xercesc::DOMDocument*>(node)
             : nullptr;
}

xercesc::DOMElement* XmlSchema::FindElement(xercesc::DOMNode* node, const char16_t* path,
                                            const char16_t* namespaceUri) {
  return Find(node, path, NameResolver(namespaceUri));
}

xercesc::DOMElement* XmlSchema::FindElement(xercesc::DOMNode* node, const char16_t* path,
                                            const XPathVariables& namespaces) {
  return Find(node, path, NameResolver(namespaces));
}

xercesc::DOMElement* XmlSchema::FindElement(const std::shared_ptr<XmlDocument>& doc,
                                            const char16_t* path, const char16_t* namespaceUri) {
  return FindElement(DocumentNode(doc), path, namespaceUri);
}

xercesc::DOMElement* XmlSchema::FindElement(const std::shared_ptr<XmlDocument>& doc,
                                            const char16_t* path,
                                            const XPathVariables& namespaces) {
  return FindElement(DocumentNode(doc), path, namespaces);
}

xercesc::DOMElement* XmlSchema::GetElement(xercesc::DOMNode* node, const char16_t* path,
                                           const char16_t* namespaceUri) {
  if (xercesc::DOMElement* found = FindElement(node, path, namespaceUri)) return found;
  return CreateElement(node, path, namespaceUri, true);
}

xercesc::DOMElement* XmlSchema::GetElement(xercesc::DOMNode* node, const char16_t* path,
                                           const XPathVariables& namespaces) {
  if (xercesc::DOMElement* found = FindElement(node, path, namespaces)) return found;
  return CreateElement(node, path, namespaces, true);
}

xercesc::DOMElement* XmlSchema::GetElement(const std::shared_ptr<XmlDocument>& doc,
                                           const char16_t* path, const char16_t* namespaceUri) {
  return GetElement(DocumentNode(doc), path, namespaceUri);
}

xercesc::DOMElement* XmlSchema::GetElement(const std::shared_ptr<XmlDocument>& doc,
                                           const char16_t* path, const XPathVariables& namespaces) {
  return GetElement(DocumentNode(doc), path, namespaces);
}

xercesc::DOMElement* XmlSchema::CreateElement(xercesc::DOMNode* node, const char16_t* path,
                                              const char16_t* namespaceUri, bool reuse) {
  return Create(node, path, NameResolver(namespaceUri), reuse);
}

xercesc::DOMElement* XmlSchema::CreateElement(xercesc::DOMNode* node, const char16_t* path,
                                              const XPathVariables& namespaces, bool reuse) {
  return Create(node, path, NameResolver(namespaces), reuse);
}

xercesc::DOMElement* XmlSchema::CreateElement(const std::shared_ptr<XmlDocument>& doc,
                                              const char16_t* path, const char16_t* namespaceUri,
                                              bool reuse) {
  return CreateElement(DocumentNode(doc), path, namespaceUri, reuse);
}

xercesc::DOMElement* XmlSchema::CreateElement(const std::shared_ptr<XmlDocument>& doc,
                                              const char16_t* path,
                                              const XPathVariables& namespaces, bool reuse) {
  return CreateElement(DocumentNode(doc), path, namespaces, reuse);
}

xercesc::DOMElement* XmlSchema::InsertNewElement(xercesc::DOMNode* parent, const char16_t* name,
                                                 const char16_t* namespaceUri,
                                                 xercesc::DOMNode* before) {
  xercesc::DOMDocument* document = OwnerDocument(parent);
  if (!document) return nullptr;
  try {
    xercesc::DOMElement* element = NewElement(document, QName(name, namespaceUri));
    parent->insertBefore(element, before);
    return element;
  } catch (const xercesc::DOMException& refused) {
    Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::InsertNewElement")
        << " name: " << name << " code: " << static_cast<int>(refused.code)
        << " message: " << refused.getMessage();
    return nullptr;
  }
}

xercesc::DOMElement* XmlSchema::FindElementWithAttributeValue(xercesc::DOMNode* node,
                                                              const char16_t* path,
                                                              const char16_t* attribute,
                                                              const char16_t* value,
                                                              const XPathVariables& namespaces) {
  bool absolute = false;
  const std::vector<StringBuffer> steps = SplitPath(path, absolute);
  const char16_t* wanted = SafeStringLiteral(value);
  return Walk(StartOf(node, absolute), steps, 0, NameResolver(namespaces),
              [&](const xercesc::DOMElement* element) {
                const xercesc::DOMAttr* found =
                    Detail::AttributeThroughTable(element, attribute, namespaces);
                return found && StringBuffer(found->getValue()) == wanted;
              });
}

xercesc::DOMElement* XmlSchema::GetElementById(xercesc::DOMNode* node, const char16_t* id) {
  if (!node) return nullptr;
  const XPathVariables binding(u"id", id ? id : u"", nullptr);
  return XPathExpression(node, u"//*[@xml:id = $id]", binding, Namespaces::Defaults);
}

xercesc::DOMElement* XmlSchema::GetElementById(const std::shared_ptr<XmlDocument>& doc,
                                               const char16_t* id) {
  return GetElementById(DocumentNode(doc), id);
}

}  // namespace Veskan
