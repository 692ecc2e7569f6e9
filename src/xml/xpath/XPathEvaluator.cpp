// The evaluator of the library's XPath engine: binding (prefixes, functions, variables, the
// rewrites that keep common paths cheap) and evaluation over the Xerces DOM.
#include "xml/xpath/XPathEvaluator.h"

#include "xml/xpath/XPathNodes.h"

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <unordered_set>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

using xercesc::DOMNode;

// Deepest recursion evaluation may need, counted after chains of binary and unary operators
// are folded into loops: keeps the evaluator's stack use far below any thread's stack.
constexpr int MaxEvaluationDepth = 512;
// Longest sequence one evaluation builds: far above any document the library keeps, far below
// what would exhaust memory ("1 to 1e12" is refused rather than attempted).
constexpr std::size_t MaxSequenceLength = std::size_t{1} << 22;

// ---- The bound tree

enum class PredicateKind {
  Boolean,   // never a number, never asks position() or last(): a plain filter
  Constant,  // a number literal: selects one position
  General,   // anything else: evaluated per item with the full focus
};

struct Op {
  NodeKind kind = NodeKind::Sequence;
  Operator op = Operator::Or;
  Axis axis = Axis::Child;
  const NodeTest* test = nullptr;
  std::u16string uri;  // of a name test, resolved
  const Node* source = nullptr;
  const FunctionDefinition* function = nullptr;
  int slot = -1;  // of a variable reference or of the variable a binding expression binds
  bool absolute = false;
  PredicateKind predicateKind = PredicateKind::General;
  std::vector<Op> children;
  std::vector<Op> predicates;
};

bool IsComparisonOrLogic(Operator op) {
  switch (op) {
    case Operator::Or:
    case Operator::And:
    case Operator::GeneralEqual:
    case Operator::GeneralNotEqual:
    case Operator::GeneralLess:
    case Operator::GeneralLessEqual:
    case Operator::GeneralGreater:
    case Operator::GeneralGreaterEqual:
    case Operator::ValueEqual:
    case Operator::ValueNotEqual:
    case Operator::ValueLess:
    case Operator::ValueLessEqual:
    case Operator::ValueGreater:
    case Operator::ValueGreaterEqual:
    case Operator::Is:
    case Operator::Precedes:
    case Operator::Follows:
    case Operator::Union:
    case Operator::Intersect:
    case Operator::Except:
      return true;
    default:
      return false;
  }
}

// Functions whose result is never a number.
bool ReturnsNonNumber(std::u16string_view name) {
  static const std::u16string_view names[] = {u"not",
                                              u"boolean",
                                              u"true",
                                              u"false",
                                              u"contains",
                                              u"starts-with",
                                              u"ends-with",
                                              u"matches",
                                              u"exists",
                                              u"empty",
                                              u"lang",
                                              u"string",
                                              u"concat",
                                              u"substring",
                                              u"lower-case",
                                              u"upper-case",
                                              u"normalize-space",
                                              u"translate",
                                              u"name",
                                              u"local-name",
                                              u"namespace-uri",
                                              u"id",
                                              u"root"};
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

bool UsesFocusSize(const Op& op) {
  if (op.kind == NodeKind::Call && op.function &&
      (op.function->localName == u"position" || op.function->localName == u"last")) {
    return true;
  }
  for (const Op& child : op.children) {
    if (UsesFocusSize(child)) return true;
  }
  // Predicates of nested steps and filters have their own focus.
  return false;
}

PredicateKind Classify(const Op& predicate) {
  if (predicate.kind == NodeKind::Number) return PredicateKind::Constant;
  if (UsesFocusSize(predicate)) return PredicateKind::General;
  switch (predicate.kind) {
    case NodeKind::Path:
      return predicate.children.empty() || predicate.children.back().kind == NodeKind::Step
                 ? PredicateKind::Boolean
                 : PredicateKind::General;
    case NodeKind::Literal:
    case NodeKind::Step:
    case NodeKind::Some:
    case NodeKind::Every:
      return PredicateKind::Boolean;
    case NodeKind::Binary:
      return IsComparisonOrLogic(predicate.op) ? PredicateKind::Boolean : PredicateKind::General;
    case NodeKind::Call:
      return ReturnsNonNumber(predicate.function->localName) ? PredicateKind::Boolean
                                                             : PredicateKind::General;
    default:
      return PredicateKind::General;
  }
}

class Binder {
 public:
  explicit Binder(const XPathVariables& namespaces) : namespaces_(namespaces) {}

  Op Bind(const Node& node, int depth) {
    if (depth > MaxEvaluationDepth) {
      ThrowInvalidExpression(u"FOER0000", u"The expression is nested too deeply to evaluate.");
    }
    Op op;
    op.kind = node.kind;
    op.op = node.op;
    op.axis = node.axis;
    op.test = &node.test;
    op.source = &node;
    op.absolute = node.absolute;
    switch (node.kind) {
      case NodeKind::Step:
        BindTest(node, op);
        break;
      case NodeKind::Variable:
        op.slot = Lookup(node);
        break;
      case NodeKind::Call:
        op.function = BindFunction(node);
        break;
      case NodeKind::For:
      case NodeKind::Some:
      case NodeKind::Every:
        op.children.push_back(Bind(*node.children[0], depth + 1));
        scope_.push_back({&node.name, slots_});
        op.slot = slots_++;
        op.children.push_back(Bind(*node.children[1], depth + 1));
        scope_.pop_back();
        return op;
      case NodeKind::Binary:
      case NodeKind::Unary:
        return BindChain(node, depth);
      default:
        break;
    }
    for (const auto& child : node.children)
      op.children.push_back(Bind(*child, depth + 1));
    BindPredicates(node, op, depth);
    if (op.kind == NodeKind::Path) Rewrite(op);
    return op;
  }

  int Slots() const { return slots_; }

 private:
  struct Binding {
    const QName* name;
    int slot;
  };

  // Chains of operators evaluate in a loop, so they do not add depth.
  Op BindChain(const Node& node, int depth) {
    Op op;
    op.kind = node.kind;
    op.op = node.op;
    op.source = &node;
    const Node* left = node.children[0].get();
    if (left->kind == node.kind && node.kind == NodeKind::Binary) {
      op.children.push_back(BindChain(*left, depth));
    } else if (left->kind == NodeKind::Unary && node.kind == NodeKind::Unary) {
      op.children.push_back(BindChain(*left, depth));
    } else {
      op.children.push_back(Bind(*left, depth + 1));
    }
    if (node.kind == NodeKind::Binary) op.children.push_back(Bind(*node.children[1], depth + 1));
    return op;
  }

  void BindPredicates(const Node& node, Op& op, int depth) {
    for (const auto& predicate : node.predicates) {
      op.predicates.push_back(Bind(*predicate, depth + 1));
      op.predicates.back().predicateKind = Classify(op.predicates.back());
    }
  }

  // "descendant-or-self::node()/child::T[p]" is "descendant::T[p]" when no predicate asks for a
  // position: one walk instead of a child step from every node of the tree.
  static void Rewrite(Op& path) {
    std::vector<Op>& parts = path.children;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
      Op& first = parts[i];
      Op& second = parts[i + 1];
      if (first.kind != NodeKind::Step || second.kind != NodeKind::Step) continue;
      if (first.axis != Axis::DescendantOrSelf || first.test->kind != TestKind::AnyNode ||
          !first.predicates.empty() || second.axis != Axis::Child) {
        continue;
      }
      const bool plain =
          std::all_of(second.predicates.begin(), second.predicates.end(),
                      [](const Op& p) { return p.predicateKind == PredicateKind::Boolean; });
      if (!plain) continue;
      second.axis = Axis::Descendant;
      parts.erase(parts.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }

  std::u16string Resolve(const std::u16string& prefix, std::size_t offset) {
    if (prefix == u"xml") return std::u16string(XmlNamespace);
    if (!namespaces_.Contains(prefix.c_str())) {
      ThrowInvalidExpression(u"XPST0081", u"The prefix \"" + prefix + u"\" at offset " +
                                              MessageText(std::to_string(offset)) +
                                              u" is not bound to a namespace.");
    }
    return std::u16string(namespaces_[prefix.c_str()]);
  }

  void BindTest(const Node& node, Op& op) {
    const NodeTest& test = node.test;
    if ((test.kind == TestKind::Name || test.kind == TestKind::AnyLocalName) &&
        !test.name.prefix.empty()) {
      op.uri = Resolve(test.name.prefix, node.offset);
    } else if (test.kind == TestKind::Name && node.axis != Axis::Attribute &&
               node.axis != Axis::Namespace && namespaces_.Contains(u"")) {
      // The table's empty prefix names the default element namespace; attributes keep none.
      op.uri = std::u16string(namespaces_[u""]);
    }
  }

  int Lookup(const Node& node) {
    for (auto binding = scope_.rbegin(); binding != scope_.rend(); ++binding) {
      if (binding->name->prefix == node.name.prefix && binding->name->local == node.name.local) {
        return binding->slot;
      }
    }
    std::u16string name =
        node.name.prefix.empty() ? node.name.local : node.name.prefix + u":" + node.name.local;
    ThrowInvalidExpression(u"XPST0008", u"The variable $" + name + u" is not defined.");
  }

  const FunctionDefinition* BindFunction(const Node& node) {
    const std::u16string uri = node.name.prefix.empty() ? std::u16string(FunctionsNamespace)
                                                        : Resolve(node.name.prefix, node.offset);
    std::u16string name =
        node.name.prefix.empty() ? node.name.local : node.name.prefix + u":" + node.name.local;
    const FunctionDefinition* function = FindFunction(uri, node.name.local);
    if (!function)
      ThrowInvalidExpression(u"XPST0017", u"The function " + name + u"() is not known.");
    const int count = static_cast<int>(node.children.size());
    if (count < function->minArguments ||
        (function->maxArguments >= 0 && count > function->maxArguments)) {
      ThrowInvalidExpression(u"XPST0017", u"The function " + name + u"() does not take " +
                                              MessageText(std::to_string(count)) + u" arguments.");
    }
    return function;
  }

  const XPathVariables& namespaces_;
  std::vector<Binding> scope_;
  int slots_ = 0;
};

// ---- Node tests and axes

std::u16string_view LocalNameOf(const DOMNode* node) {
  const XMLCh* local = node->getLocalName();
  return View(local ? local : node->getNodeName());
}

// The node test of a step, for nodes of the axis's principal kind or any kind.
class Matcher {
 public:
  Matcher(const Op& step)
      : test_(*step.test),
        principal_(step.axis == Axis::Attribute || step.axis == Axis::Namespace
                       ? DOMNode::ATTRIBUTE_NODE
                       : DOMNode::ELEMENT_NODE),
        namespaceAxis_(step.axis == Axis::Namespace),
        uri_(step.uri) {}

  bool operator()(const DOMNode* node) const {
    const DOMNode::NodeType type = node->getNodeType();
    switch (test_.kind) {
      case TestKind::AnyNode:
        return true;
      case TestKind::Text:
        return type == DOMNode::TEXT_NODE || type == DOMNode::CDATA_SECTION_NODE;
      case TestKind::Comment:
        return type == DOMNode::COMMENT_NODE;
      case TestKind::ProcessingInstruction:
        return type == DOMNode::PROCESSING_INSTRUCTION_NODE &&
               (!test_.hasTarget || View(node->getNodeName()) == test_.target);
      default:
        break;
    }
    if (type != principal_) return false;
    if (namespaceAxis_) {
      // A namespace node's name is its prefix; it has no namespace.
      if (test_.kind == TestKind::AnyName) return true;
      if (test_.kind != TestKind::Name || !test_.name.prefix.empty()) return false;
      const std::u16string_view prefix =
          View(node->getPrefix()) == u"xmlns" ? LocalNameOf(node) : std::u16string_view();
      return prefix == test_.name.local;
    }
    switch (test_.kind) {
      case TestKind::AnyName:
        return true;
      case TestKind::AnyLocalName:
        return View(node->getNamespaceURI()) == uri_;
      case TestKind::AnyPrefix:
        return LocalNameOf(node) == test_.name.local;
      case TestKind::Name:
        return LocalNameOf(node) == test_.name.local && View(node->getNamespaceURI()) == uri_;
      default:
        return false;
    }
  }

 private:
  const NodeTest& test_;
  DOMNode::NodeType principal_;
  bool namespaceAxis_;
  const std::u16string& uri_;
};

bool IsReverse(Axis axis) {
  return axis == Axis::Parent || axis == Axis::Ancestor || axis == Axis::AncestorOrSelf ||
         axis == Axis::Preceding || axis == Axis::PrecedingSibling;
}

// Calls `emit` for every descendant of `root` in document order. The walk keeps its own stack of
// open ancestors: Xerces' getParentNode costs a dynamic_cast per call.
template <typename Emit>
void WalkDescendants(DOMNode* root, Emit&& emit) {
  std::vector<DOMNode*> open;
  DOMNode* node = root->getFirstChild();
  while (node) {
    emit(node);
    if (DOMNode* child = node->getFirstChild()) {
      open.push_back(node);
      node = child;
      continue;
    }
    DOMNode* next = node->getNextSibling();
    while (!next && !open.empty()) {
      next = open.back()->getNextSibling();
      open.pop_back();
    }
    node = next;
  }
}

// Calls `emit` for every node of the axis from `context`, in axis order (reverse axes
// nearest first).
template <typename Emit>
void WalkAxis(Axis axis, DOMNode* context, Emit&& emit) {
  const bool attribute = context->getNodeType() == DOMNode::ATTRIBUTE_NODE;
  switch (axis) {
    case Axis::Self:
      emit(context);
      return;
    case Axis::Child:
      if (attribute) return;
      for (DOMNode* child = context->getFirstChild(); child; child = child->getNextSibling()) {
        emit(child);
      }
      return;
    case Axis::DescendantOrSelf:
      emit(context);
      [[fallthrough]];
    case Axis::Descendant:
      if (!attribute) WalkDescendants(context, emit);
      return;
    case Axis::Parent:
      if (DOMNode* parent = ParentOf(context)) emit(parent);
      return;
    case Axis::AncestorOrSelf:
      emit(context);
      [[fallthrough]];
    case Axis::Ancestor:
      for (DOMNode* node = ParentOf(context); node; node = ParentOf(node))
        emit(node);
      return;
    case Axis::FollowingSibling:
      if (attribute) return;
      for (DOMNode* node = context->getNextSibling(); node; node = node->getNextSibling()) {
        emit(node);
      }
      return;
    case Axis::PrecedingSibling:
      if (attribute) return;
      for (DOMNode* node = context->getPreviousSibling(); node; node = node->getPreviousSibling()) {
        emit(node);
      }
      return;
    case Axis::Following: {
      DOMNode* start = context;
      if (attribute) {
        start = ParentOf(context);
        if (!start) return;
        WalkDescendants(start, emit);
      }
      for (DOMNode* ancestor = start; ancestor; ancestor = ancestor->getParentNode()) {
        for (DOMNode* sibling = ancestor->getNextSibling(); sibling;
             sibling = sibling->getNextSibling()) {
          emit(sibling);
          WalkDescendants(sibling, emit);
        }
      }
      return;
    }
    case Axis::Preceding: {
      // Reverse document order, ancestors left out.
      DOMNode* ancestor = attribute ? ParentOf(context) : context;
      DOMNode* node = ancestor;
      while (node) {
        if (DOMNode* sibling = node->getPreviousSibling()) {
          node = sibling;
          while (DOMNode* last = node->getLastChild())
            node = last;
          emit(node);
        } else {
          DOMNode* parent = node->getParentNode();
          if (!parent) return;
          // Climbing from the first sibling of the ancestor line reaches the next ancestor.
          const bool ancestorOfContext = parent == ancestor->getParentNode();
          node = parent;
          if (ancestorOfContext) {
            ancestor = parent;
          } else {
            emit(node);
          }
        }
      }
      return;
    }
    case Axis::Attribute: {
      if (context->getNodeType() != DOMNode::ELEMENT_NODE) return;
      const xercesc::DOMNamedNodeMap* attributes = context->getAttributes();
      for (XMLSize_t i = 0, n = attributes->getLength(); i < n; ++i) {
        DOMNode* node = attributes->item(i);
        if (!IsNamespaceDeclaration(node)) emit(node);
      }
      return;
    }
    case Axis::Namespace: {
      // The in-scope declarations, nearest first per prefix; an undeclared default namespace
      // (xmlns="") has no node.
      if (context->getNodeType() != DOMNode::ELEMENT_NODE) return;
      std::vector<std::u16string_view> seen;
      for (DOMNode* element = context; element && element->getNodeType() == DOMNode::ELEMENT_NODE;
           element = element->getParentNode()) {
        const xercesc::DOMNamedNodeMap* attributes = element->getAttributes();
        for (XMLSize_t i = 0, n = attributes->getLength(); i < n; ++i) {
          DOMNode* node = attributes->item(i);
          if (!IsNamespaceDeclaration(node)) continue;
          const std::u16string_view prefix =
              View(node->getPrefix()) == u"xmlns" ? LocalNameOf(node) : std::u16string_view();
          if (std::find(seen.begin(), seen.end(), prefix) != seen.end()) continue;
          seen.push_back(prefix);
          if (!View(node->getNodeValue()).empty()) emit(node);
        }
      }
      return;
    }
  }
}

// The document of a node in a document's tree; the top of a detached subtree.
DOMNode* RootOf(DOMNode* node) {
  while (DOMNode* parent = ParentOf(node))
    node = parent;
  return node;
}

// ---- Comparisons

bool AllNodes(const Sequence& sequence) {
  return std::all_of(sequence.begin(), sequence.end(), [](const Item& i) { return i.IsNode(); });
}

bool IsNumeric(const Item& item) {
  return item.type == ItemType::Number;
}

template <typename T>
bool Relate(Operator op, const T& a, const T& b) {
  switch (op) {
    case Operator::GeneralEqual:
    case Operator::ValueEqual:
      return a == b;
    case Operator::GeneralNotEqual:
    case Operator::ValueNotEqual:
      return a != b;
    case Operator::GeneralLess:
    case Operator::ValueLess:
      return a < b;
    case Operator::GeneralLessEqual:
    case Operator::ValueLessEqual:
      return a <= b;
    case Operator::GeneralGreater:
    case Operator::ValueGreater:
      return a > b;
    case Operator::GeneralGreaterEqual:
    case Operator::ValueGreaterEqual:
      return a >= b;
    default:
      return false;
  }
}

bool IsEquality(Operator op) {
  return op == Operator::GeneralEqual || op == Operator::GeneralNotEqual;
}

// The text of an item for comparing: a node's string-value into `buffer`, or the item's text.
const std::u16string& TextOf(const Item& item, std::u16string& buffer) {
  if (item.type == ItemType::String) return item.string;
  buffer.clear();
  if (item.IsNode()) {
    AppendStringValue(item.node, buffer);
  } else {
    buffer = ToString(item);
  }
  return buffer;
}

// Two items of general comparison, by the XPath 1.0 rules: booleans compare as booleans, else
// a number makes both numbers, else both compare as strings; <, <=, >, >= always compare
// numbers.
bool CompareItems(Operator op, const Item& a, const Item& b, std::u16string& bufferA,
                  std::u16string& bufferB) {
  if (IsEquality(op)) {
    if (a.type == ItemType::Boolean || b.type == ItemType::Boolean) {
      return Relate(op, ToBoolean(a), ToBoolean(b));
    }
    if (IsNumeric(a) || IsNumeric(b)) return Relate(op, ToNumber(a), ToNumber(b));
    return Relate(op, TextOf(a, bufferA), TextOf(b, bufferB));
  }
  const double x = a.IsNode() ? StringToNumber(TextOf(a, bufferA)) : ToNumber(a);
  const double y = b.IsNode() ? StringToNumber(TextOf(b, bufferB)) : ToNumber(b);
  return Relate(op, x, y);
}

bool GeneralCompare(Operator op, const Sequence& left, const Sequence& right) {
  // A single boolean: = and != compare booleans; <, <=, >, >= compare numbers, where nodes
  // count by their boolean value (1 or 0) and a value by its number.
  const bool leftBoolean = left.size() == 1 && left[0].type == ItemType::Boolean;
  const bool rightBoolean = right.size() == 1 && right[0].type == ItemType::Boolean;
  if (leftBoolean || rightBoolean) {
    if (IsEquality(op)) return Relate(op, EffectiveBoolean(left), EffectiveBoolean(right));
    auto number = [](const Sequence& side) {
      if (AllNodes(side)) return side.empty() ? 0.0 : 1.0;
      return ToNumber(side);
    };
    return Relate(op, number(left), number(right));
  }
  std::u16string bufferA;
  std::u16string bufferB;
  // Node against constant, the common case: the constant's conversion is done once.
  if (right.size() == 1 && !right[0].IsNode()) {
    const Item& constant = right[0];
    const bool numeric = !IsEquality(op) || IsNumeric(constant);
    const double number = numeric ? ToNumber(constant) : 0;
    for (const Item& item : left) {
      if (item.IsNode() && numeric) {
        bufferA.clear();
        AppendStringValue(item.node, bufferA);
        if (Relate(op, StringToNumber(bufferA), number)) return true;
      } else if (item.IsNode() && constant.type == ItemType::String) {
        bufferA.clear();
        AppendStringValue(item.node, bufferA);
        if (Relate(op, bufferA, constant.string)) return true;
      } else if (CompareItems(op, item, constant, bufferA, bufferB)) {
        return true;
      }
    }
    return false;
  }
  if (left.size() * right.size() > 64) {
    // Many against many: convert each side once.
    std::vector<std::u16string> texts;
    std::vector<double> numbers;
    const bool numeric = !IsEquality(op) || std::any_of(left.begin(), left.end(), IsNumeric) ||
                         std::any_of(right.begin(), right.end(), IsNumeric);
    if (numeric) {
      for (const Item& b : right) {
        numbers.push_back(b.IsNode() ? StringToNumber(StringValue(b.node)) : ToNumber(b));
      }
      for (const Item& a : left) {
        const double x = a.IsNode() ? StringToNumber(StringValue(a.node)) : ToNumber(a);
        for (double y : numbers) {
          if (Relate(op, x, y)) return true;
        }
      }
      return false;
    }
    if (op == Operator::GeneralEqual) {
      std::unordered_set<std::u16string> set;
      for (const Item& b : right)
        set.insert(TextOf(b, bufferB));
      for (const Item& a : left) {
        if (set.count(TextOf(a, bufferA))) return true;
      }
      return false;
    }
  }
  for (const Item& a : left) {
    for (const Item& b : right) {
      if (CompareItems(op, a, b, bufferA, bufferB)) return true;
    }
  }
  return false;
}

// One atomic value of a value comparison: a node's value is untyped text.
Item Atomize(const Sequence& sequence, const char16_t* what) {
  if (sequence.size() != 1) {
    ThrowTypeError(u"XPTY0004", std::u16string(u"The operand of ") + what +
                                    u" must be a single item, not a sequence of " +
                                    MessageText(std::to_string(sequence.size())) + u".");
  }
  if (sequence[0].IsNode()) return Item::OfString(StringValue(sequence[0].node));
  return sequence[0];
}

Sequence ValueCompare(Operator op, const Sequence& left, const Sequence& right) {
  if (left.empty() || right.empty()) return {};
  const bool leftUntyped = left[0].IsNode();
  const bool rightUntyped = right[0].IsNode();
  const Item a = Atomize(left, u"a value comparison");
  const Item b = Atomize(right, u"a value comparison");
  // Untyped text (from a node) takes the other side's type.
  if (IsNumeric(a) || IsNumeric(b)) {
    const bool aFits = IsNumeric(a) || leftUntyped;
    const bool bFits = IsNumeric(b) || rightUntyped;
    if (!aFits || !bFits)
      ThrowTypeError(u"XPTY0004", u"A value comparison of a number with a string.");
    return {Item::OfBoolean(Relate(op, ToNumber(a), ToNumber(b)))};
  }
  if (a.type == ItemType::Boolean || b.type == ItemType::Boolean) {
    if (a.type != b.type && !leftUntyped && !rightUntyped) {
      ThrowTypeError(u"XPTY0004", u"A value comparison of a boolean with a string.");
    }
    return {Item::OfBoolean(Relate(op, ToBoolean(a), ToBoolean(b)))};
  }
  return {Item::OfBoolean(Relate(op, a.string, b.string))};
}

double Arithmetic(Operator op, double a, double b) {
  switch (op) {
    case Operator::Add:
      return a + b;
    case Operator::Subtract:
      return a - b;
    case Operator::Multiply:
      return a * b;
    case Operator::Divide:
      return a / b;
    case Operator::Modulo:
      return std::fmod(a, b);
    case Operator::IntegerDivide: {
      if (b == 0 || std::isnan(a) || std::isnan(b) || std::isinf(a)) {
        ThrowTypeError(u"FOAR0001", u"Integer division of " + NumberToString(a) + u" by " +
                                        NumberToString(b) + u" has no integer result.");
      }
      return std::trunc(a / b);
    }
    default:
      return std::numeric_limits<double>::quiet_NaN();
  }
}

void CheckLength(std::size_t length) {
  if (length > MaxSequenceLength) {
    ThrowTypeError(u"FOER0000", u"The expression builds a sequence of more than " +
                                    MessageText(std::to_string(MaxSequenceLength)) + u" items.");
  }
}

// ---- Evaluation

struct Focus {
  const Item* item;
  std::size_t position;
  std::size_t size;
};

class Evaluation {
 public:
  explicit Evaluation(int slots) : variables_(static_cast<std::size_t>(slots)) {}

  Sequence Eval(const Op& op, const Focus& focus) {
    switch (op.kind) {
      case NodeKind::Literal:
        return {Item::OfString(op.source->text)};
      case NodeKind::Number:
        return {Item::OfNumber(op.source->number)};
      case NodeKind::Variable:
        return variables_[static_cast<std::size_t>(op.slot)];
      case NodeKind::Context:
        if (!focus.item) ThrowTypeError(u"XPDY0002", u"There is no context item for '.'.");
        return {*focus.item};
      case NodeKind::Call:
        return Call(op, focus);
      case NodeKind::Sequence: {
        Sequence result;
        for (const Op& child : op.children)
          Append(result, Eval(child, focus));
        return result;
      }
      case NodeKind::Filter: {
        Sequence items = Eval(op.children[0], focus);
        for (const Op& predicate : op.predicates)
          items = Filter(std::move(items), predicate);
        return items;
      }
      case NodeKind::Path:
        return Path(op, focus);
      case NodeKind::Step: {
        DOMNode* node = ContextNodeOf(focus);
        Sequence result;
        Step(op, node, result);
        if (IsReverse(op.axis)) std::reverse(result.begin(), result.end());
        return result;
      }
      case NodeKind::Binary:
        return Binary(op, focus);
      case NodeKind::Unary:
        return Unary(op, focus);
      case NodeKind::If:
        return EffectiveBoolean(Eval(op.children[0], focus)) ? Eval(op.children[1], focus)
                                                             : Eval(op.children[2], focus);
      case NodeKind::For:
      case NodeKind::Some:
      case NodeKind::Every:
        return Binding(op, focus);
    }
    return {};
  }

 private:
  static void Append(Sequence& to, Sequence&& from) {
    CheckLength(to.size() + from.size());
    if (to.empty()) {
      to = std::move(from);
    } else {
      to.insert(to.end(), std::make_move_iterator(from.begin()),
                std::make_move_iterator(from.end()));
    }
  }

  static DOMNode* ContextNodeOf(const Focus& focus) {
    if (!focus.item) ThrowTypeError(u"XPDY0002", u"A path needs a context node and there is none.");
    if (!focus.item->IsNode())
      ThrowTypeError(u"XPTY0020", u"A path step's context item is not a node.");
    return focus.item->node;
  }

  Sequence Call(const Op& op, const Focus& focus) {
    std::vector<Sequence> arguments;
    arguments.reserve(op.children.size());
    for (const Op& child : op.children)
      arguments.push_back(Eval(child, focus));
    FunctionContext context(focus.item, focus.position, focus.size, order_);
    return op.function->body(context, arguments);
  }

  // Keeps the items for which the predicate holds, each tested with its position in `items`.
  Sequence Filter(Sequence items, const Op& predicate) {
    if (predicate.predicateKind == PredicateKind::Constant) {
      const double wanted = predicate.source->number;
      if (wanted >= 1 && wanted <= static_cast<double>(items.size()) &&
          wanted == std::floor(wanted)) {
        Item kept = std::move(items[static_cast<std::size_t>(wanted) - 1]);
        items.clear();
        items.push_back(std::move(kept));
      } else {
        items.clear();
      }
      return items;
    }
    std::size_t kept = 0;
    const std::size_t size = items.size();
    for (std::size_t i = 0; i < size; ++i) {
      if (Holds(predicate, Focus{&items[i], i + 1, size})) {
        if (kept != i) items[kept] = std::move(items[i]);
        ++kept;
      }
    }
    items.resize(kept);
    return items;
  }

  bool Holds(const Op& predicate, const Focus& focus) {
    Sequence value = Eval(predicate, focus);
    if (value.size() == 1 && value[0].type == ItemType::Number) {
      return value[0].number == static_cast<double>(focus.position);
    }
    return EffectiveBoolean(value);
  }

  // Appends the nodes of one step from `context`, in axis order, predicates applied.
  void Step(const Op& step, DOMNode* context, Sequence& out) {
    const Matcher matches(step);
    if (step.predicates.empty()) {
      WalkAxis(step.axis, context, [&](DOMNode* node) {
        if (matches(node)) out.push_back(Item::OfNode(node));
      });
      CheckLength(out.size());
      return;
    }
    Sequence selected;
    WalkAxis(step.axis, context, [&](DOMNode* node) {
      if (matches(node)) selected.push_back(Item::OfNode(node));
    });
    for (const Op& predicate : step.predicates)
      selected = Filter(std::move(selected), predicate);
    Append(out, std::move(selected));
  }

  Sequence Path(const Op& path, const Focus& focus) {
    Sequence current;
    // Whether `current` is in document order without duplicates, and whether none of its nodes
    // contains another: then child and attribute steps keep document order by themselves.
    bool ordered = true;
    bool flat = true;
    std::size_t first = 0;
    if (path.absolute) {
      current.push_back(Item::OfNode(RootOf(ContextNodeOf(focus))));
    } else if (path.children[0].kind == NodeKind::Step) {
      current.push_back(Item::OfNode(ContextNodeOf(focus)));
    } else {
      current = Eval(path.children[0], focus);
      first = 1;
      ordered = flat = current.size() < 2;
      if (path.children.size() > 1) RequireNodes(current);
    }
    for (std::size_t i = first; i < path.children.size(); ++i) {
      const Op& part = path.children[i];
      const bool last = i + 1 == path.children.size();
      Sequence next;
      if (part.kind == NodeKind::Step) {
        const bool single = current.size() == 1;
        for (const Item& item : current) {
          const std::size_t start = next.size();
          Step(part, item.node, next);
          if (IsReverse(part.axis))
            std::reverse(next.begin() + static_cast<std::ptrdiff_t>(start), next.end());
        }
        const Axis axis = part.axis;
        const bool fromFlat = single || (ordered && flat);
        const bool keepsOrder =
            axis != Axis::Namespace &&
            (single ||
             (fromFlat && (axis == Axis::Child || axis == Axis::Attribute || axis == Axis::Self ||
                           axis == Axis::Descendant || axis == Axis::DescendantOrSelf)));
        if (!keepsOrder) order_.Sort(next);
        if (axis == Axis::Child || axis == Axis::Attribute || axis == Axis::Self) {
          flat = fromFlat;
        } else {
          flat = single && (axis == Axis::FollowingSibling || axis == Axis::PrecedingSibling ||
                            axis == Axis::Parent);
        }
        ordered = true;
      } else {
        const std::size_t size = current.size();
        for (std::size_t k = 0; k < size; ++k) {
          Append(next, Eval(part, Focus{&current[k], k + 1, size}));
        }
        if (AllNodes(next)) {
          order_.Sort(next);
        } else if (!last || std::any_of(next.begin(), next.end(),
                                        [](const Item& item) { return item.IsNode(); })) {
          ThrowTypeError(u"XPTY0018", u"A path step gave values that are not nodes.");
        }
        ordered = true;
        flat = false;
      }
      current = std::move(next);
      if (current.empty()) break;
    }
    return current;
  }

  static void RequireNodes(const Sequence& sequence) {
    if (!AllNodes(sequence))
      ThrowTypeError(u"XPTY0019", u"A path starts from values that are not nodes.");
  }

  Sequence Binary(const Op& op, const Focus& focus) {
    // Chains ("1 + 2 + 3", "a or b or c") fold in a loop rather than recursing down their spine.
    std::vector<const Op*> spine;
    const Op* leftmost = &op;
    while (leftmost->kind == NodeKind::Binary) {
      spine.push_back(leftmost);
      leftmost = &leftmost->children[0];
    }
    Sequence value = Eval(*leftmost, focus);
    for (auto it = spine.rbegin(); it != spine.rend(); ++it) {
      value = Apply(**it, std::move(value), focus);
    }
    return value;
  }

  Sequence Apply(const Op& node, Sequence left, const Focus& focus) {
    const Op& rightOp = node.children[1];
    switch (node.op) {
      case Operator::Or:
        if (EffectiveBoolean(left)) return {Item::OfBoolean(true)};
        return {Item::OfBoolean(EffectiveBoolean(Eval(rightOp, focus)))};
      case Operator::And:
        if (!EffectiveBoolean(left)) return {Item::OfBoolean(false)};
        return {Item::OfBoolean(EffectiveBoolean(Eval(rightOp, focus)))};
      default:
        break;
    }
    Sequence right = Eval(rightOp, focus);
    switch (node.op) {
      case Operator::GeneralEqual:
      case Operator::GeneralNotEqual:
      case Operator::GeneralLess:
      case Operator::GeneralLessEqual:
      case Operator::GeneralGreater:
      case Operator::GeneralGreaterEqual:
        return {Item::OfBoolean(GeneralCompare(node.op, left, right))};
      case Operator::ValueEqual:
      case Operator::ValueNotEqual:
      case Operator::ValueLess:
      case Operator::ValueLessEqual:
      case Operator::ValueGreater:
      case Operator::ValueGreaterEqual:
        return ValueCompare(node.op, left, right);
      case Operator::Is:
      case Operator::Precedes:
      case Operator::Follows:
        return NodeCompare(node.op, left, right);
      case Operator::To:
        return Range(left, right);
      case Operator::Union:
      case Operator::Intersect:
      case Operator::Except:
        return Combine(node.op, std::move(left), std::move(right));
      default: {
        // Arithmetic: in XPath 1.0 compatibility an empty operand is NaN, several take the first.
        return {Item::OfNumber(Arithmetic(node.op, ToNumber(left), ToNumber(right)))};
      }
    }
  }

  Sequence NodeCompare(Operator op, const Sequence& left, const Sequence& right) {
    if (left.empty() || right.empty()) return {};
    if (left.size() != 1 || right.size() != 1 || !left[0].IsNode() || !right[0].IsNode()) {
      ThrowTypeError(u"XPTY0004", u"A node comparison needs a single node on each side.");
    }
    const DOMNode* a = left[0].node;
    const DOMNode* b = right[0].node;
    if (op == Operator::Is) return {Item::OfBoolean(a == b)};
    return {Item::OfBoolean(op == Operator::Precedes ? order_.Before(a, b) : order_.Before(b, a))};
  }

  static Sequence Range(const Sequence& left, const Sequence& right) {
    if (left.empty() || right.empty()) return {};
    const double from = std::round(ToNumber(left));
    const double to = std::round(ToNumber(right));
    if (std::isnan(from) || std::isnan(to))
      ThrowTypeError(u"XPTY0004", u"A range bound is not a number.");
    // Beyond 2^53 doubles skip integers: such a range cannot be counted out one by one.
    constexpr double Exact = 9007199254740992.0;
    if (std::fabs(from) > Exact || std::fabs(to) > Exact) {
      ThrowTypeError(u"FOAR0002", u"A range bound is beyond the integers a number holds exactly.");
    }
    if (from > to) return {};
    const double count = to - from + 1;
    CheckLength(static_cast<std::size_t>(count));
    Sequence result;
    result.reserve(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      result.push_back(Item::OfNumber(from + static_cast<double>(i)));
    }
    return result;
  }

  Sequence Combine(Operator op, Sequence left, Sequence right) {
    if (!AllNodes(left) || !AllNodes(right)) {
      ThrowTypeError(u"XPTY0004", u"union, intersect and except take nodes only.");
    }
    if (op == Operator::Union) {
      Append(left, std::move(right));
      order_.Sort(left);
      return left;
    }
    std::unordered_set<const DOMNode*> others;
    for (const Item& item : right)
      others.insert(item.node);
    const bool keepShared = op == Operator::Intersect;
    left.erase(std::remove_if(
                   left.begin(), left.end(),
                   [&](const Item& item) { return (others.count(item.node) != 0) != keepShared; }),
               left.end());
    order_.Sort(left);
    return left;
  }

  Sequence Unary(const Op& op, const Focus& focus) {
    bool negate = false;
    const Op* inner = &op;
    while (inner->kind == NodeKind::Unary) {
      if (inner->op == Operator::Negate) negate = !negate;
      inner = &inner->children[0];
    }
    const double value = ToNumber(Eval(*inner, focus));
    return {Item::OfNumber(negate ? -value : value)};
  }

  Sequence Binding(const Op& op, const Focus& focus) {
    const Sequence domain = Eval(op.children[0], focus);
    Sequence& variable = variables_[static_cast<std::size_t>(op.slot)];
    const Sequence saved = std::move(variable);
    Sequence result;
    bool answer = op.kind == NodeKind::Every;
    for (const Item& item : domain) {
      variable.assign(1, item);
      if (op.kind == NodeKind::For) {
        Append(result, Eval(op.children[1], focus));
        continue;
      }
      const bool holds = EffectiveBoolean(Eval(op.children[1], focus));
      if (op.kind == NodeKind::Some && holds) {
        answer = true;
        break;
      }
      if (op.kind == NodeKind::Every && !holds) {
        answer = false;
        break;
      }
    }
    variable = saved;
    if (op.kind == NodeKind::For) return result;
    return {Item::OfBoolean(answer)};
  }

  std::vector<Sequence> variables_;
  DocumentOrder order_;
};

std::u16string SyntaxMessage(const XPathSyntaxError& error) {
  return u"Syntax error at offset " + MessageText(std::to_string(error.Offset())) + u": " +
         MessageText(error.what());
}

}  // namespace

struct CompiledExpression::Bound {
  Op root;
  int slots = 0;
};

CompiledExpression::CompiledExpression(std::u16string_view text, const XPathVariables& namespaces,
                                       int maxNestingDepth) {
  try {
    tree_ = Parse(text, maxNestingDepth);
  } catch (const XPathSyntaxError& error) {
    ThrowInvalidExpression(u"XPST0003", SyntaxMessage(error));
  }
  Binder binder(namespaces);
  bound_ = std::make_unique<Bound>();
  bound_->root = binder.Bind(*tree_, 0);
  bound_->slots = binder.Slots();
}

CompiledExpression::~CompiledExpression() = default;

Sequence CompiledExpression::Evaluate(DOMNode* contextNode) const {
  Evaluation evaluation(bound_->slots);
  if (!contextNode) return evaluation.Eval(bound_->root, Focus{nullptr, 0, 0});
  const Item context = Item::OfNode(contextNode);
  return evaluation.Eval(bound_->root, Focus{&context, 1, 1});
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
