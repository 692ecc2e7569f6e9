// The library's functions on nodes, names and URIs: node names and namespaces, roots, languages,
// base and document URIs, URI resolution, documents and collections, and xs:QName values.
//
// The engine evaluates over DOM trees it is handed: it reads no files and opens no connections,
// so doc() and collection() find nothing, and expressions carry no base URI of their own.
#include "xml/xpath/XPathFunctionSupport.h"
#include "xml/xpath/XPathNodes.h"

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>
#include <xercesc/dom/DOMNode.hpp>
#include <xercesc/util/XMLChar.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

using xercesc::DOMNode;

// ---- Names

bool IsNcName(std::u16string_view text) {
  return !text.empty() && xercesc::XMLChar1_0::isValidNCName(text.data(), text.size());
}

// A lexical QName split at its colon; nothing when `text` is not one (no whitespace allowed).
struct LexicalQName {
  std::u16string prefix;
  std::u16string local;
};
std::optional<LexicalQName> SplitQName(std::u16string_view text) {
  const std::size_t colon = text.find(u':');
  LexicalQName name;
  if (colon == std::u16string_view::npos) {
    name.local = std::u16string(text);
  } else {
    name.prefix = std::u16string(text.substr(0, colon));
    name.local = std::u16string(text.substr(colon + 1));
    if (!IsNcName(name.prefix)) return std::nullopt;
  }
  if (!IsNcName(name.local)) return std::nullopt;
  return name;
}

// The prefix a namespace node (an xmlns attribute) binds: "" for the default namespace.
std::u16string_view DeclaredPrefix(const DOMNode* declaration) {
  return View(declaration->getPrefix()) == u"xmlns" ? View(declaration->getLocalName())
                                                    : std::u16string_view();
}

// The local part of an element's or attribute's name; nodes made without namespace support have
// only a qualified name.
std::u16string_view LocalPart(const DOMNode* node) {
  if (const XMLCh* local = node->getLocalName()) return View(local);
  const std::u16string_view name = View(node->getNodeName());
  const std::size_t colon = name.find(u':');
  return colon == std::u16string_view::npos ? name : name.substr(colon + 1);
}

std::u16string_view PrefixPart(const DOMNode* node) {
  if (node->getLocalName()) return View(node->getPrefix());
  const std::u16string_view name = View(node->getNodeName());
  const std::size_t colon = name.find(u':');
  return colon == std::u16string_view::npos ? std::u16string_view() : name.substr(0, colon);
}

bool IsElement(const DOMNode* node) {
  return node->getNodeType() == DOMNode::ELEMENT_NODE;
}

// The node argument of a function whose argument defaults to the context node: null for an
// empty argument.
DOMNode* NodeOrContext(FunctionContext& context, Arguments& arguments) {
  if (arguments.empty()) return context.ContextNode();
  return arguments[0].empty() ? nullptr : arguments[0].front().node;
}

xercesc::DOMElement* RequireElement(const Sequence& argument, std::u16string_view function) {
  DOMNode* node = argument.front().node;
  if (!IsElement(node)) {
    ThrowTypeError(u"XPTY0004",
                   u"The node argument of " + std::u16string(function) + u"() must be an element.");
  }
  return static_cast<xercesc::DOMElement*>(node);
}

Sequence Name(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments);
  if (!node) return OneString(std::u16string());
  switch (node->getNodeType()) {
    case DOMNode::ATTRIBUTE_NODE:
      if (IsNamespaceDeclaration(node)) return OneString(std::u16string(DeclaredPrefix(node)));
      [[fallthrough]];
    case DOMNode::ELEMENT_NODE:
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      return OneString(std::u16string(View(node->getNodeName())));
    default:
      return OneString(std::u16string());
  }
}

Sequence LocalName(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments);
  if (!node) return OneString(std::u16string());
  switch (node->getNodeType()) {
    case DOMNode::ATTRIBUTE_NODE:
      if (IsNamespaceDeclaration(node)) return OneString(std::u16string(DeclaredPrefix(node)));
      [[fallthrough]];
    case DOMNode::ELEMENT_NODE:
      return OneString(std::u16string(LocalPart(node)));
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      return OneString(std::u16string(View(node->getNodeName())));
    default:
      return OneString(std::u16string());
  }
}

Sequence NamespaceUri(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments);
  std::u16string uri;
  // A namespace node's name has no namespace, though the DOM puts xmlns attributes in one.
  if (node && (IsElement(node) || node->getNodeType() == DOMNode::ATTRIBUTE_NODE) &&
      !IsNamespaceDeclaration(node)) {
    uri = std::u16string(View(node->getNamespaceURI()));
  }
  return One(Item::OfString(std::move(uri), Type::AnyUri));
}

Sequence NodeName(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty()) return {};
  const DOMNode* node = arguments[0].front().node;
  switch (node->getNodeType()) {
    case DOMNode::ATTRIBUTE_NODE:
      if (IsNamespaceDeclaration(node)) {
        // The default namespace's node has no name.
        const std::u16string_view prefix = DeclaredPrefix(node);
        if (prefix.empty()) return {};
        return One(Item::OfQName(u"", u"", std::u16string(prefix)));
      }
      [[fallthrough]];
    case DOMNode::ELEMENT_NODE:
      return One(Item::OfQName(std::u16string(View(node->getNamespaceURI())),
                               std::u16string(PrefixPart(node)), std::u16string(LocalPart(node))));
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      return One(Item::OfQName(u"", u"", std::u16string(View(node->getNodeName()))));
    default:
      return {};
  }
}

// Elements are never nilled: nilling takes schema validation, and the engine's trees are
// untyped.
Sequence Nilled(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty() || !IsElement(arguments[0].front().node)) return {};
  return OneBoolean(false);
}

Sequence Root(FunctionContext& context, Arguments& arguments) {
  DOMNode* node = NodeOrContext(context, arguments);
  if (!node) return {};
  while (DOMNode* parent = ParentOf(node))
    node = parent;
  return One(Item::OfNode(node));
}

char16_t AsciiLower(char16_t c) {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + (u'a' - u'A')) : c;
}

// The value of an element's xml:lang attribute, or null when it has none.
const XMLCh* XmlLang(const xercesc::DOMElement* element) {
  if (const xercesc::DOMAttr* attribute =
          element->getAttributeNodeNS(XmlNamespace.data(), u"lang")) {
    return attribute->getValue();
  }
  // Trees built without namespace support know the attribute by its qualified name only.
  if (const xercesc::DOMAttr* attribute = element->getAttributeNode(u"xml:lang")) {
    if (!attribute->getLocalName()) return attribute->getValue();
  }
  return nullptr;
}

Sequence Lang(FunctionContext& context, Arguments& arguments) {
  const std::u16string wanted = StringOf(arguments[0]);
  const DOMNode* node = arguments.size() > 1 ? arguments[1].front().node : context.ContextNode();
  for (; node; node = ParentOf(node)) {
    if (!IsElement(node)) continue;
    const XMLCh* value = XmlLang(static_cast<const xercesc::DOMElement*>(node));
    if (!value) continue;
    // The nearest xml:lang decides: the language or one of its sublanguages, in any case.
    const std::u16string_view lang = View(value);
    if (lang.size() < wanted.size()) return OneBoolean(false);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      if (AsciiLower(lang[i]) != AsciiLower(wanted[i])) return OneBoolean(false);
    }
    return OneBoolean(lang.size() == wanted.size() || lang[wanted.size()] == u'-');
  }
  return OneBoolean(false);
}

// ---- URIs

bool IsHexDigit(char16_t c) {
  return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}
bool IsAsciiLetter(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

// The length of the scheme that `text` starts with (up to its colon), or 0 when it has none.
std::size_t SchemeLength(std::u16string_view text) {
  if (text.empty() || !IsAsciiLetter(text[0])) return 0;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c == u':') return i;
    if (!IsAsciiLetter(c) && !(c >= u'0' && c <= u'9') && c != u'+' && c != u'-' && c != u'.') {
      return 0;
    }
  }
  return 0;
}

// Whether `text` is a URI reference, absolute or relative. Characters beyond ASCII are taken as
// they are (IRIs); ASCII characters that a URI never holds unescaped, a broken escape, a second
// fragment mark or a colon in a relative reference's first segment make it none.
bool IsUriReference(std::u16string_view text) {
  int hashes = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c <= 0x20 || c == 0x7F ||
        std::u16string_view(u"<>\"{}|\\^`").find(c) != std::u16string_view::npos) {
      return false;
    }
    if (c == u'%' &&
        (i + 2 >= text.size() || !IsHexDigit(text[i + 1]) || !IsHexDigit(text[i + 2]))) {
      return false;
    }
    if (c == u'#' && ++hashes > 1) return false;
  }
  const std::size_t colon = text.find(u':');
  const std::size_t firstDelimiter = text.find_first_of(u"/?#");
  if (colon != std::u16string_view::npos && colon < firstDelimiter) return SchemeLength(text) > 0;
  return true;
}

// A URI reference's parts; the flags tell an absent part from an empty one.
struct UriParts {
  std::u16string scheme, authority, path, query, fragment;
  bool hasScheme = false, hasAuthority = false, hasQuery = false, hasFragment = false;
};

UriParts SplitUri(std::u16string_view text) {
  UriParts parts;
  if (const std::size_t length = SchemeLength(text)) {
    parts.hasScheme = true;
    parts.scheme = std::u16string(text.substr(0, length));
    text.remove_prefix(length + 1);
  }
  if (const std::size_t hash = text.find(u'#'); hash != std::u16string_view::npos) {
    parts.hasFragment = true;
    parts.fragment = std::u16string(text.substr(hash + 1));
    text = text.substr(0, hash);
  }
  if (const std::size_t mark = text.find(u'?'); mark != std::u16string_view::npos) {
    parts.hasQuery = true;
    parts.query = std::u16string(text.substr(mark + 1));
    text = text.substr(0, mark);
  }
  if (text.substr(0, 2) == u"//") {
    parts.hasAuthority = true;
    const std::size_t slash = text.find(u'/', 2);
    parts.authority = std::u16string(
        text.substr(2, slash == std::u16string_view::npos ? std::u16string_view::npos : slash - 2));
    text = slash == std::u16string_view::npos ? std::u16string_view() : text.substr(slash);
  }
  parts.path = std::u16string(text);
  return parts;
}

std::u16string JoinUri(const UriParts& parts) {
  std::u16string text;
  if (parts.hasScheme) text += parts.scheme + u':';
  if (parts.hasAuthority) text += u"//" + parts.authority;
  text += parts.path;
  if (parts.hasQuery) text += u'?' + parts.query;
  if (parts.hasFragment) text += u'#' + parts.fragment;
  return text;
}

// A path without its "." and ".." segments, the way a relative reference's path is resolved.
std::u16string RemoveDotSegments(std::u16string_view input) {
  std::u16string output;
  while (!input.empty()) {
    if (input.substr(0, 3) == u"../") {
      input.remove_prefix(3);
    } else if (input.substr(0, 2) == u"./") {
      input.remove_prefix(2);
    } else if (input.substr(0, 3) == u"/./") {
      input.remove_prefix(2);
    } else if (input == u"/.") {
      input = u"/";
    } else if (input.substr(0, 4) == u"/../" || input == u"/..") {
      input = input.size() == 3 ? std::u16string_view(u"/") : input.substr(3);
      const std::size_t slash = output.rfind(u'/');
      output.erase(slash == std::u16string::npos ? 0 : slash);
    } else if (input == u"." || input == u"..") {
      input = {};
    } else {
      const std::size_t next = input.find(u'/', 1);
      const std::u16string_view segment = input.substr(0, next);
      output += segment;
      input.remove_prefix(segment.size());
    }
  }
  return output;
}

// `relative` resolved against the absolute URI `base`; both are URI references already.
std::u16string ResolveAgainst(std::u16string_view relative, std::u16string_view base) {
  const UriParts reference = SplitUri(relative);
  const UriParts from = SplitUri(base);
  UriParts target;
  target.hasScheme = true;
  target.scheme = from.scheme;
  target.hasFragment = reference.hasFragment;
  target.fragment = reference.fragment;
  if (reference.hasAuthority) {
    target.hasAuthority = true;
    target.authority = reference.authority;
    target.path = RemoveDotSegments(reference.path);
    target.hasQuery = reference.hasQuery;
    target.query = reference.query;
    return JoinUri(target);
  }
  target.hasAuthority = from.hasAuthority;
  target.authority = from.authority;
  if (reference.path.empty()) {
    target.path = from.path;
    target.hasQuery = reference.hasQuery || from.hasQuery;
    target.query = reference.hasQuery ? reference.query : from.query;
    return JoinUri(target);
  }
  if (reference.path.front() == u'/') {
    target.path = RemoveDotSegments(reference.path);
  } else {
    std::u16string merged;
    if (from.hasAuthority && from.path.empty()) {
      merged = u"/" + reference.path;
    } else {
      const std::size_t slash = from.path.rfind(u'/');
      merged = (slash == std::u16string::npos ? std::u16string() : from.path.substr(0, slash + 1)) +
               reference.path;
    }
    target.path = RemoveDotSegments(merged);
  }
  target.hasQuery = reference.hasQuery;
  target.query = reference.query;
  return JoinUri(target);
}

bool IsAbsoluteUri(std::u16string_view text) {
  return IsUriReference(text) && SchemeLength(text) > 0;
}

// An absolute URI that a relative reference can be resolved against: no fragment.
bool IsResolutionBase(std::u16string_view text) {
  return IsAbsoluteUri(text) && text.find(u'#') == std::u16string_view::npos;
}

// The base URI of a node: the nearest xml:base attributes, resolved against one another and
// against the document's URI. Namespace nodes have none.
std::optional<std::u16string> BaseUriOf(const DOMNode* node) {
  if (IsNamespaceDeclaration(node)) return std::nullopt;
  switch (node->getNodeType()) {
    case DOMNode::DOCUMENT_NODE: {
      const std::u16string_view uri =
          View(static_cast<const xercesc::DOMDocument*>(node)->getDocumentURI());
      if (!IsAbsoluteUri(uri)) return std::nullopt;
      return std::u16string(uri);
    }
    case DOMNode::ELEMENT_NODE: {
      const auto* element = static_cast<const xercesc::DOMElement*>(node);
      const DOMNode* parent = ParentOf(node);
      std::optional<std::u16string> inherited =
          parent ? BaseUriOf(parent) : std::optional<std::u16string>();
      const xercesc::DOMAttr* attribute = element->getAttributeNodeNS(XmlNamespace.data(), u"base");
      if (!attribute) return inherited;
      const std::u16string_view value = View(attribute->getValue());
      // An xml:base that is no URI reference cannot change the base.
      if (!IsUriReference(value)) return inherited;
      if (SchemeLength(value) > 0) return std::u16string(value);
      if (inherited && IsResolutionBase(*inherited)) return ResolveAgainst(value, *inherited);
      return std::u16string(value);
    }
    default: {
      const DOMNode* parent = ParentOf(node);
      return parent ? BaseUriOf(parent) : std::nullopt;
    }
  }
}

Sequence BaseUri(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments);
  if (!node) return {};
  std::optional<std::u16string> uri = BaseUriOf(node);
  if (!uri) return {};
  return One(Item::OfString(std::move(*uri), Type::AnyUri));
}

Sequence DocumentUri(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty()) return {};
  const DOMNode* node = arguments[0].front().node;
  if (node->getNodeType() != DOMNode::DOCUMENT_NODE) return {};
  // Documents parsed from memory carry an internal identifier, not a URI: only an absolute URI
  // names the document.
  const std::u16string_view uri =
      View(static_cast<const xercesc::DOMDocument*>(node)->getDocumentURI());
  if (!IsAbsoluteUri(uri)) return {};
  return One(Item::OfString(std::u16string(uri), Type::AnyUri));
}

Sequence StaticBaseUri(FunctionContext&, Arguments&) {
  return {};
}

Sequence ResolveUri(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty()) return {};
  const std::u16string& relative = arguments[0].front().string;
  if (!IsUriReference(relative)) {
    ThrowTypeError(u"FORG0002", u"resolve-uri(): \"" + relative + u"\" is not a URI reference.");
  }
  if (SchemeLength(relative) > 0) return One(Item::OfString(relative, Type::AnyUri));
  if (arguments.size() < 2) {
    ThrowTypeError(u"FONS0005", u"resolve-uri(): there is no base URI to resolve \"" + relative +
                                    u"\" against.");
  }
  const std::u16string& base = arguments[1].front().string;
  if (!IsResolutionBase(base)) {
    ThrowTypeError(u"FORG0002", u"resolve-uri(): \"" + base + u"\" is not an absolute URI.");
  }
  return One(Item::OfString(ResolveAgainst(relative, base), Type::AnyUri));
}

Sequence DefaultCollation(FunctionContext&, Arguments&) {
  return OneString(std::u16string(CodepointCollation));
}

// ---- Documents and collections

void CheckDocumentUri(const std::u16string& uri) {
  if (!IsUriReference(uri)) ThrowTypeError(u"FODC0005", u"\"" + uri + u"\" is not a valid URI.");
}

Sequence Doc(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty()) return {};
  const std::u16string& uri = arguments[0].front().string;
  CheckDocumentUri(uri);
  ThrowTypeError(u"FODC0002", u"No document is available at \"" + uri + u"\".");
}

Sequence DocAvailable(FunctionContext&, Arguments& arguments) {
  if (!arguments[0].empty()) CheckDocumentUri(arguments[0].front().string);
  return OneBoolean(false);
}

Sequence Collection(FunctionContext&, Arguments& arguments) {
  if (arguments.empty() || arguments[0].empty()) {
    ThrowTypeError(u"FODC0002", u"There is no default collection.");
  }
  ThrowTypeError(u"FODC0002",
                 u"No collection is available at \"" + arguments[0].front().string + u"\".");
}

// ---- In-scope namespaces

// The namespaces in scope for `element`, prefix to URI ("" for the default namespace): its own
// and its ancestors' declarations, the nearest first, and the bindings its name and its
// attributes' names imply (a tree built in memory need not declare them). Undeclarations
// (xmlns="", xmlns:p="") leave their prefix unbound. "xml" is always bound.
std::vector<std::pair<std::u16string, std::u16string>> InScopeNamespaces(
    const xercesc::DOMElement* element) {
  std::vector<std::pair<std::u16string, std::u16string>> bindings;
  auto bind = [&bindings](std::u16string_view prefix, std::u16string_view uri) {
    for (const auto& binding : bindings)
      if (binding.first == prefix) return;
    bindings.emplace_back(std::u16string(prefix), std::u16string(uri));
  };
  bind(u"xml", XmlNamespace);
  bind(u"xmlns", u"");  // never an in-scope prefix; entered so that nothing binds it
  for (const DOMNode* node = element; node && IsElement(node); node = node->getParentNode()) {
    const xercesc::DOMNamedNodeMap* attributes = node->getAttributes();
    const XMLSize_t count = attributes ? attributes->getLength() : 0;
    for (XMLSize_t i = 0; i < count; ++i) {
      const DOMNode* attribute = attributes->item(i);
      if (IsNamespaceDeclaration(attribute)) {
        bind(DeclaredPrefix(attribute), View(attribute->getNodeValue()));
      }
    }
    if (node->getLocalName()) bind(PrefixPart(node), View(node->getNamespaceURI()));
    for (XMLSize_t i = 0; i < count; ++i) {
      const DOMNode* attribute = attributes->item(i);
      if (IsNamespaceDeclaration(attribute) || !attribute->getLocalName()) continue;
      const std::u16string_view prefix = PrefixPart(attribute);
      if (!prefix.empty()) bind(prefix, View(attribute->getNamespaceURI()));
    }
  }
  std::vector<std::pair<std::u16string, std::u16string>> inScope;
  for (auto& binding : bindings) {
    if (binding.first != u"xmlns" && !binding.second.empty()) inScope.push_back(std::move(binding));
  }
  return inScope;
}

std::optional<std::u16string> NamespaceForPrefix(const xercesc::DOMElement* element,
                                                 std::u16string_view prefix) {
  for (auto& [bound, uri] : InScopeNamespaces(element)) {
    if (bound == prefix) return std::move(uri);
  }
  return std::nullopt;
}

Sequence ResolveQName(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty()) return {};
  const xercesc::DOMElement* element = RequireElement(arguments[1], u"resolve-QName");
  const std::u16string& text = arguments[0].front().string;
  std::optional<LexicalQName> name = SplitQName(text);
  if (!name) {
    ThrowTypeError(u"FOCA0002", u"resolve-QName(): \"" + text + u"\" is not a lexical QName.");
  }
  std::optional<std::u16string> uri = NamespaceForPrefix(element, name->prefix);
  if (!uri) {
    // An unprefixed name without a default namespace is in no namespace.
    if (!name->prefix.empty()) {
      ThrowTypeError(u"FONS0004", u"resolve-QName(): the prefix \"" + name->prefix +
                                      u"\" is not bound to a namespace.");
    }
    uri.emplace();
  }
  return One(Item::OfQName(std::move(*uri), std::move(name->prefix), std::move(name->local)));
}

Sequence NamespaceUriForPrefix(FunctionContext&, Arguments& arguments) {
  const xercesc::DOMElement* element = RequireElement(arguments[1], u"namespace-uri-for-prefix");
  std::optional<std::u16string> uri = NamespaceForPrefix(element, StringOf(arguments[0]));
  if (!uri) return {};
  return One(Item::OfString(std::move(*uri), Type::AnyUri));
}

Sequence InScopePrefixes(FunctionContext&, Arguments& arguments) {
  const xercesc::DOMElement* element = RequireElement(arguments[0], u"in-scope-prefixes");
  Sequence result;
  for (auto& binding : InScopeNamespaces(element))
    result.push_back(Item::OfString(std::move(binding.first)));
  return result;
}

// ---- xs:QName values

Sequence MakeQName(FunctionContext&, Arguments& arguments) {
  std::u16string uri = StringOf(arguments[0]);
  const std::u16string& text = arguments[1].front().string;
  std::optional<LexicalQName> name = SplitQName(text);
  if (!name) ThrowTypeError(u"FOCA0002", u"QName(): \"" + text + u"\" is not a lexical QName.");
  if (uri.empty() && !name->prefix.empty()) {
    ThrowTypeError(u"FOCA0002",
                   u"QName(): the name \"" + text + u"\" has a prefix but no namespace URI.");
  }
  return One(Item::OfQName(std::move(uri), std::move(name->prefix), std::move(name->local)));
}

// The xs:QName argument of the accessors below. Their signature takes any atomic value, so that
// an untyped value is refused here rather than cast: it never converts to an xs:QName.
const QNameValue* QNameArgument(const Sequence& argument, std::u16string_view function) {
  if (argument.empty()) return nullptr;
  const Item& item = argument.front();
  if (item.type != Type::QName) {
    ThrowTypeError(u"XPTY0004", u"The argument of " + std::u16string(function) +
                                    u"() must be an xs:QName, not an " + TypeLabel(item) + u".");
  }
  return &item.AsQName();
}

Sequence PrefixFromQName(FunctionContext&, Arguments& arguments) {
  const QNameValue* name = QNameArgument(arguments[0], u"prefix-from-QName");
  if (!name || name->prefix.empty()) return {};
  return One(Item::OfString(name->prefix, Type::NcName));
}

Sequence LocalNameFromQName(FunctionContext&, Arguments& arguments) {
  const QNameValue* name = QNameArgument(arguments[0], u"local-name-from-QName");
  if (!name) return {};
  return One(Item::OfString(name->local, Type::NcName));
}

Sequence NamespaceUriFromQName(FunctionContext&, Arguments& arguments) {
  const QNameValue* name = QNameArgument(arguments[0], u"namespace-uri-from-QName");
  if (!name) return {};
  return One(Item::OfString(name->uri, Type::AnyUri));
}

}  // namespace

const FunctionDefinition NodeFunctions[] = {
    {u"name", 0, 1, Name, u"node()?"},
    {u"local-name", 0, 1, LocalName, u"node()?"},
    {u"namespace-uri", 0, 1, NamespaceUri, u"node()?"},
    {u"node-name", 1, 1, NodeName, u"node()?"},
    {u"nilled", 1, 1, Nilled, u"node()?"},
    {u"root", 0, 1, Root, u"node()?"},
    {u"lang", 1, 2, Lang, u"xs:string?, node()"},
    {u"base-uri", 0, 1, BaseUri, u"node()?"},
    {u"document-uri", 1, 1, DocumentUri, u"node()?"},
    {u"static-base-uri", 0, 0, StaticBaseUri, u""},
    {u"resolve-uri", 1, 2, ResolveUri, u"xs:string?, xs:string"},
    {u"default-collation", 0, 0, DefaultCollation, u""},
    {u"doc", 1, 1, Doc, u"xs:string?"},
    {u"doc-available", 1, 1, DocAvailable, u"xs:string?"},
    {u"collection", 0, 1, Collection, u"xs:string?"},
    {u"resolve-QName", 2, 2, ResolveQName, u"xs:string?, node()"},
    {u"QName", 2, 2, MakeQName, u"xs:string?, xs:string"},
    {u"prefix-from-QName", 1, 1, PrefixFromQName, u"xs:anyAtomicType?"},
    {u"local-name-from-QName", 1, 1, LocalNameFromQName, u"xs:anyAtomicType?"},
    {u"namespace-uri-from-QName", 1, 1, NamespaceUriFromQName, u"xs:anyAtomicType?"},
    {u"namespace-uri-for-prefix", 2, 2, NamespaceUriForPrefix, u"xs:string?, node()"},
    {u"in-scope-prefixes", 1, 1, InScopePrefixes, u"node()"},
    {u"", 0, 0, nullptr, u""},
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
