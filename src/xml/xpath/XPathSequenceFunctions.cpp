// The library's functions on sequences: tests of emptiness and cardinality, distinct values and
// positions of values, inserting, removing, reversing and slicing, deep equality of sequences
// and nodes, and the elements and attributes that IDs and ID references lead to.
#include "xml/xpath/XPathFunctionSupport.h"
#include "xml/xpath/XPathNodes.h"

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>
#include <xercesc/dom/DOMNode.hpp>
#include <xercesc/dom/DOMTypeInfo.hpp>
#include <xercesc/util/XMLChar.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

using xercesc::DOMNode;

// ---- Cardinality

Sequence FnEmpty(FunctionContext&, Arguments& arguments) {
  return OneBoolean(arguments[0].empty());
}

Sequence FnExists(FunctionContext&, Arguments& arguments) {
  return OneBoolean(!arguments[0].empty());
}

std::u16string CountText(std::size_t count) {
  return MessageText(std::to_string(count));
}

Sequence FnZeroOrOne(FunctionContext&, Arguments& arguments) {
  if (arguments[0].size() > 1) {
    ThrowTypeError(u"FORG0003", u"zero-or-one() was given a sequence of " +
                                    CountText(arguments[0].size()) + u" items.");
  }
  return std::move(arguments[0]);
}

Sequence FnOneOrMore(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty())
    ThrowTypeError(u"FORG0004", u"one-or-more() was given an empty sequence.");
  return std::move(arguments[0]);
}

Sequence FnExactlyOne(FunctionContext&, Arguments& arguments) {
  if (arguments[0].size() != 1) {
    ThrowTypeError(u"FORG0005", u"exactly-one() was given a sequence of " +
                                    CountText(arguments[0].size()) + u" items instead of one.");
  }
  return std::move(arguments[0]);
}

// ---- Values

bool IsNaN(const Item& value) {
  return (value.type == Type::Float || value.type == Type::Double) && std::isnan(value.number);
}

Sequence FnDistinctValues(FunctionContext& context, Arguments& arguments) {
  if (arguments.size() > 1) CheckCollation(arguments[1]);
  const ComparisonContext& comparison = context.Comparison();
  Sequence result;
  // Hash to the positions in `result` of the values kept with that hash.
  std::unordered_multimap<std::size_t, std::size_t> kept;
  for (Item& value : arguments[0]) {
    const std::size_t hash = AtomicHash(value, comparison);
    const auto [first, last] = kept.equal_range(hash);
    const bool seen = std::any_of(first, last, [&](const auto& entry) {
      return AtomicEqual(result[entry.second], value, comparison);
    });
    if (seen) continue;
    kept.emplace(hash, result.size());
    result.push_back(std::move(value));
  }
  return result;
}

Sequence FnIndexOf(FunctionContext& context, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  const Item& wanted = arguments[1].front();
  Sequence result;
  // Equality as `eq` sees it: NaN matches nothing, not even NaN.
  if (IsNaN(wanted)) return result;
  for (std::size_t i = 0; i < arguments[0].size(); ++i) {
    if (AtomicEqual(arguments[0][i], wanted, context.Comparison()))
      result.push_back(Item::OfInteger(static_cast<std::int64_t>(i + 1)));
  }
  return result;
}

// ---- Positions

// A 1-based position from an xs:integer argument, clamped to [0, size + 1]: positions beyond
// either end act as that end.
std::size_t ClampedPosition(const Decimal& position, std::size_t size) {
  if (position.Sign() <= 0) return 0;
  if (!position.FitsInt64() || position.ToInt64() > static_cast<std::int64_t>(size))
    return size + 1;
  return static_cast<std::size_t>(position.ToInt64());
}

Sequence FnInsertBefore(FunctionContext&, Arguments& arguments) {
  Sequence& target = arguments[0];
  Sequence& inserts = arguments[2];
  const std::size_t position =
      std::max<std::size_t>(ClampedPosition(arguments[1].front().decimal, target.size()), 1);
  const std::size_t at = std::min(position - 1, target.size());
  target.insert(target.begin() + static_cast<std::ptrdiff_t>(at),
                std::make_move_iterator(inserts.begin()), std::make_move_iterator(inserts.end()));
  return std::move(target);
}

Sequence FnRemove(FunctionContext&, Arguments& arguments) {
  Sequence& target = arguments[0];
  const std::size_t position = ClampedPosition(arguments[1].front().decimal, target.size());
  if (position >= 1 && position <= target.size())
    target.erase(target.begin() + static_cast<std::ptrdiff_t>(position - 1));
  return std::move(target);
}

Sequence FnReverse(FunctionContext&, Arguments& arguments) {
  std::reverse(arguments[0].begin(), arguments[0].end());
  return std::move(arguments[0]);
}

Sequence FnUnordered(FunctionContext&, Arguments& arguments) {
  return std::move(arguments[0]);
}

// fn:round's rounding, which positions of subsequence() follow: halves up.
double RoundHalfUp(double value) {
  if (!std::isfinite(value)) return value;
  double result = std::floor(value);
  if (value - result >= 0.5) result += 1;
  return result;
}

// The items at positions p with round(start) <= p < round(start) + round(length). A NaN bound
// compares false with every position, so it selects nothing; so does -INF + INF.
Sequence FnSubsequence(FunctionContext&, Arguments& arguments) {
  Sequence& source = arguments[0];
  const double start = RoundHalfUp(arguments[1].front().number);
  double end = std::numeric_limits<double>::infinity();
  if (arguments.size() > 2) end = start + RoundHalfUp(arguments[2].front().number);
  if (!(start <= end)) return {};
  const double size = static_cast<double>(source.size());
  // First and one-past-last positions within 1..size, as doubles until clamped.
  const double first = std::max(start, 1.0);
  const double stop = std::min(end, size + 1);
  if (!(first < stop)) return {};
  const auto from = static_cast<std::size_t>(first) - 1;
  const auto to = static_cast<std::size_t>(std::ceil(stop)) - 1;
  Sequence result(std::make_move_iterator(source.begin() + static_cast<std::ptrdiff_t>(from)),
                  std::make_move_iterator(source.begin() + static_cast<std::ptrdiff_t>(to)));
  return result;
}

// ---- Deep equality

bool IsTextNode(const DOMNode* node) {
  const short type = node->getNodeType();
  return type == DOMNode::TEXT_NODE || type == DOMNode::CDATA_SECTION_NODE;
}

// The local part of a node's name; nodes made without namespace support have only a qualified
// name.
std::u16string_view LocalPart(const DOMNode* node) {
  if (const XMLCh* local = node->getLocalName()) return View(local);
  const std::u16string_view name = View(node->getNodeName());
  const std::size_t colon = name.find(u':');
  return colon == std::u16string_view::npos ? name : name.substr(colon + 1);
}

bool SameName(const DOMNode* a, const DOMNode* b) {
  return View(a->getNamespaceURI()) == View(b->getNamespaceURI()) && LocalPart(a) == LocalPart(b);
}

// What deep equality compares of a node's children: its elements and its text, with adjacent
// text and CDATA nodes read as the one text node they are to XPath. Comments and processing
// instructions are left out; they still separate the text around them.
struct Child {
  const DOMNode* element = nullptr;  // null for text
  std::u16string text;
};

std::vector<Child> ComparedChildren(const DOMNode* parent) {
  std::vector<Child> children;
  bool afterText = false;
  for (const DOMNode* child = parent->getFirstChild(); child; child = child->getNextSibling()) {
    if (IsTextNode(child)) {
      if (!afterText) children.emplace_back();
      AppendStringValue(child, children.back().text);
      afterText = true;
      continue;
    }
    afterText = false;
    if (child->getNodeType() == DOMNode::ELEMENT_NODE) children.push_back({child, {}});
  }
  // An empty text node is no text node at all.
  children.erase(std::remove_if(children.begin(), children.end(),
                                [](const Child& c) { return !c.element && c.text.empty(); }),
                 children.end());
  return children;
}

// The attributes of an element, without the namespace declarations the engine keeps among them.
std::vector<const DOMNode*> AttributesOf(const DOMNode* element) {
  std::vector<const DOMNode*> attributes;
  const xercesc::DOMNamedNodeMap* map = element->getAttributes();
  for (XMLSize_t i = 0, n = map ? map->getLength() : 0; i < n; ++i) {
    const DOMNode* attribute = map->item(i);
    if (!IsNamespaceDeclaration(attribute)) attributes.push_back(attribute);
  }
  return attributes;
}

bool DeepEqualNodes(const DOMNode* a, const DOMNode* b);

bool DeepEqualChildren(const DOMNode* a, const DOMNode* b) {
  const std::vector<Child> left = ComparedChildren(a);
  const std::vector<Child> right = ComparedChildren(b);
  if (left.size() != right.size()) return false;
  for (std::size_t i = 0; i < left.size(); ++i) {
    if (!left[i].element != !right[i].element) return false;
    if (left[i].element ? !DeepEqualNodes(left[i].element, right[i].element)
                        : left[i].text != right[i].text) {
      return false;
    }
  }
  return true;
}

bool DeepEqualElements(const DOMNode* a, const DOMNode* b) {
  if (!SameName(a, b)) return false;
  const std::vector<const DOMNode*> left = AttributesOf(a);
  const std::vector<const DOMNode*> right = AttributesOf(b);
  if (left.size() != right.size()) return false;
  // Attribute names are unique within an element, so each finds at most one partner.
  for (const DOMNode* attribute : left) {
    const bool matched = std::any_of(right.begin(), right.end(), [&](const DOMNode* other) {
      return SameName(attribute, other) && StringValue(attribute) == StringValue(other);
    });
    if (!matched) return false;
  }
  return DeepEqualChildren(a, b);
}

// The prefix a namespace node (an xmlns attribute) binds: "" for the default namespace.
std::u16string_view DeclaredPrefix(const DOMNode* declaration) {
  return View(declaration->getPrefix()) == u"xmlns" ? LocalPart(declaration)
                                                    : std::u16string_view();
}

bool DeepEqualNodes(const DOMNode* a, const DOMNode* b) {
  if (a == b) return true;
  const short type = a->getNodeType();
  if (IsTextNode(a) && IsTextNode(b)) return StringValue(a) == StringValue(b);
  if (type != b->getNodeType()) return false;
  switch (type) {
    case DOMNode::DOCUMENT_NODE:
    case DOMNode::DOCUMENT_FRAGMENT_NODE:
      return DeepEqualChildren(a, b);
    case DOMNode::ELEMENT_NODE:
      return DeepEqualElements(a, b);
    case DOMNode::ATTRIBUTE_NODE:
      // Namespace nodes, which the engine represents by namespace declarations, compare by the
      // prefix they bind and the URI; attributes by name and value.
      if (IsNamespaceDeclaration(a) || IsNamespaceDeclaration(b)) {
        return IsNamespaceDeclaration(a) && IsNamespaceDeclaration(b) &&
               DeclaredPrefix(a) == DeclaredPrefix(b) && StringValue(a) == StringValue(b);
      }
      return SameName(a, b) && StringValue(a) == StringValue(b);
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      return View(a->getNodeName()) == View(b->getNodeName()) && StringValue(a) == StringValue(b);
    default:
      return StringValue(a) == StringValue(b);
  }
}

Sequence FnDeepEqual(FunctionContext& context, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  const Sequence& a = arguments[0];
  const Sequence& b = arguments[1];
  if (a.size() != b.size()) return OneBoolean(false);
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].IsNode() != b[i].IsNode()) return OneBoolean(false);
    const bool equal = a[i].IsNode() ? DeepEqualNodes(a[i].node, b[i].node)
                                     : AtomicEqual(a[i], b[i], context.Comparison());
    if (!equal) return OneBoolean(false);
  }
  return OneBoolean(true);
}

// ---- IDs and references

bool IsNcName(std::u16string_view text) {
  return !text.empty() && xercesc::XMLChar1_0::isValidNCName(text.data(), text.size());
}

// The whitespace-separated tokens of `text`.
std::vector<std::u16string> Tokens(std::u16string_view text) {
  std::vector<std::u16string> tokens;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && IsXPathSpace(text[i]))
      ++i;
    const std::size_t start = i;
    while (i < text.size() && !IsXPathSpace(text[i]))
      ++i;
    if (i > start) tokens.emplace_back(text.substr(start, i - start));
  }
  return tokens;
}

// The root of the tree the node (the second argument, else the context node) is in; FODC0001
// unless it is a document, since IDs are a property of documents.
const DOMNode* DocumentRoot(FunctionContext& context, const Arguments& arguments,
                            std::u16string_view function) {
  const DOMNode* node = arguments.size() > 1 ? arguments[1].front().node : context.ContextNode();
  while (const DOMNode* parent = ParentOf(node))
    node = parent;
  if (node->getNodeType() != DOMNode::DOCUMENT_NODE) {
    ThrowTypeError(u"FODC0001", std::u16string(function) +
                                    u"() needs a node of a document, and the node's tree has "
                                    u"another root.");
  }
  return node;
}

// The next node after `node` in document order within `root`'s subtree (attributes aside).
DOMNode* NextInTree(DOMNode* node, const DOMNode* root) {
  if (DOMNode* child = node->getFirstChild()) return child;
  while (node != root && !node->getNextSibling())
    node = node->getParentNode();
  return node == root ? nullptr : node->getNextSibling();
}

bool IsXmlId(const DOMNode* attribute) {
  return View(attribute->getNamespaceURI()) == XmlNamespace && LocalPart(attribute) == u"id";
}

// The type the document's DTD or schema gave an attribute ("IDREFS"), empty when none.
std::u16string_view AttributeTypeName(const DOMNode* attribute) {
  const xercesc::DOMTypeInfo* info =
      static_cast<const xercesc::DOMAttr*>(attribute)->getSchemaTypeInfo();
  return info ? View(info->getTypeName()) : std::u16string_view();
}

// The ID values the arguments name: each string of id()'s argument is a list of IDREFs, each of
// idref()'s is one ID. Strings that cannot be IDs are ignored.
std::unordered_set<std::u16string> WantedIds(const Sequence& values, bool lists) {
  std::unordered_set<std::u16string> wanted;
  for (const Item& value : values) {
    std::vector<std::u16string> tokens;
    if (lists) {
      tokens = Tokens(value.string);
    } else {
      tokens.emplace_back(TrimSpace(value.string));
    }
    for (std::u16string& token : tokens) {
      if (IsNcName(token)) wanted.insert(std::move(token));
    }
  }
  return wanted;
}

Sequence FnId(FunctionContext& context, Arguments& arguments) {
  const DOMNode* root = DocumentRoot(context, arguments, u"id");
  std::unordered_set<std::u16string> wanted = WantedIds(arguments[0], true);
  Sequence result;
  // A walk in document order meets each element once, in the order the result needs; of
  // several elements with one ID, the first counts.
  for (DOMNode* node = const_cast<DOMNode*>(root); node && !wanted.empty();
       node = NextInTree(node, root)) {
    if (node->getNodeType() != DOMNode::ELEMENT_NODE) continue;
    const xercesc::DOMNamedNodeMap* attributes = node->getAttributes();
    for (XMLSize_t i = 0, n = attributes ? attributes->getLength() : 0; i < n; ++i) {
      const auto* attribute = static_cast<const xercesc::DOMAttr*>(attributes->item(i));
      if (!attribute->isId() && !IsXmlId(attribute)) continue;
      // An ID's value is collapsed like a token: surrounding whitespace is no part of it.
      const std::u16string value(TrimSpace(StringValue(attribute)));
      if (wanted.erase(value) > 0) {
        result.push_back(Item::OfNode(node));
        break;
      }
    }
  }
  return result;
}

Sequence FnIdref(FunctionContext& context, Arguments& arguments) {
  const DOMNode* root = DocumentRoot(context, arguments, u"idref");
  const std::unordered_set<std::u16string> wanted = WantedIds(arguments[0], false);
  Sequence result;
  if (wanted.empty()) return result;
  // Elements precede their attributes in document order, and attributes follow the order of the
  // attribute map, so the walk yields the result in order.
  for (DOMNode* node = const_cast<DOMNode*>(root); node; node = NextInTree(node, root)) {
    if (node->getNodeType() != DOMNode::ELEMENT_NODE) continue;
    const xercesc::DOMNamedNodeMap* attributes = node->getAttributes();
    for (XMLSize_t i = 0, n = attributes ? attributes->getLength() : 0; i < n; ++i) {
      DOMNode* attribute = attributes->item(i);
      const std::u16string_view type = AttributeTypeName(attribute);
      if (type != u"IDREF" && type != u"IDREFS") continue;
      const std::vector<std::u16string> references = Tokens(StringValue(attribute));
      const bool hit = std::any_of(references.begin(), references.end(),
                                   [&](const std::u16string& r) { return wanted.count(r) > 0; });
      if (hit) result.push_back(Item::OfNode(attribute));
    }
  }
  return result;
}

}  // namespace

const FunctionDefinition SequenceFunctions[] = {
    {u"empty", 1, 1, FnEmpty, u"item()*"},
    {u"exists", 1, 1, FnExists, u"item()*"},
    {u"distinct-values", 1, 2, FnDistinctValues, u"xs:anyAtomicType*, xs:string"},
    {u"index-of", 2, 3, FnIndexOf, u"xs:anyAtomicType*, xs:anyAtomicType, xs:string"},
    {u"insert-before", 3, 3, FnInsertBefore, u"item()*, xs:integer, item()*"},
    {u"remove", 2, 2, FnRemove, u"item()*, xs:integer"},
    {u"reverse", 1, 1, FnReverse, u"item()*"},
    {u"subsequence", 2, 3, FnSubsequence, u"item()*, xs:double, xs:double"},
    {u"unordered", 1, 1, FnUnordered, u"item()*"},
    {u"zero-or-one", 1, 1, FnZeroOrOne, u"item()*"},
    {u"one-or-more", 1, 1, FnOneOrMore, u"item()*"},
    {u"exactly-one", 1, 1, FnExactlyOne, u"item()*"},
    {u"deep-equal", 2, 3, FnDeepEqual, u"item()*, item()*, xs:string"},
    {u"id", 1, 2, FnId, u"xs:string*, node()"},
    {u"idref", 1, 2, FnIdref, u"xs:string*, node()"},
    {u"", 0, 0, nullptr, u""},
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
