// The evaluator of the library's XPath engine: binding (prefixes, functions, variables, the
// rewrites that keep common paths cheap) and evaluation over the Xerces DOM.
#include "xml/xpath/XPathEvaluator.h"

#include "xml/xpath/XPathCalendar.h"
#include "xml/xpath/XPathNodes.h"

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
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
  const std::vector<ParameterType>* parameterTypes = nullptr;  // the function's, read at binding
  Item constant;                                               // a literal's value
  Type atomicType = Type::AnyAtomicType;  // of a cast, a constructor call or an atomic test
  const SequenceType* sequenceType = nullptr;
  std::shared_ptr<Op> elementTest;  // of document-node(element(...))
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
  if (predicate.kind == NodeKind::Number && predicate.source->numberForm == NumberForm::Integer)
    return PredicateKind::Constant;
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

// The sequence type of a constructor function's result: one atomic value or none.
const SequenceType OptionalAtomic = [] {
  SequenceType type;
  type.item = SequenceType::Item::Atomic;
  type.occurrence = Occurrence::ZeroOrOne;
  return type;
}();

class Binder {
 public:
  // The external variables take the first slots, in order.
  Binder(const XPathVariables& namespaces, const std::vector<std::u16string>& externals)
      : namespaces_(namespaces) {
    for (const std::u16string& name : externals) {
      const std::size_t colon = name.find(u':');
      QName qname;
      if (colon == std::u16string::npos) {
        qname.local = name;
      } else {
        qname.prefix = name.substr(0, colon);
        qname.local = name.substr(colon + 1);
      }
      externals_.push_back(std::move(qname));
    }
    for (const QName& name : externals_)
      scope_.push_back({&name, slots_++});
  }

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
      case NodeKind::Literal:
        op.constant = Item::OfString(node.text);
        break;
      case NodeKind::Number:
        op.constant = NumberConstant(node);
        break;
      case NodeKind::Step:
        BindTest(node.test, node.axis, node.offset, op);
        break;
      case NodeKind::Variable:
        op.slot = Lookup(node);
        break;
      case NodeKind::Call:
        if (BindConstructor(node, op)) break;
        op.function = BindFunction(node);
        op.parameterTypes = &ParameterTypes(*op.function);
        break;
      case NodeKind::CastAs:
      case NodeKind::CastableAs:
        op.sequenceType = &node.type;
        op.atomicType = CastTarget(node.type.atomicType, node.offset);
        break;
      case NodeKind::InstanceOf:
      case NodeKind::TreatAs:
        op.sequenceType = &node.type;
        BindSequenceType(node.type, node.offset, op);
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

  // Resolves the names of a node test: `op.uri` for the element or attribute name, and checks
  // the type name of element(N, T) and attribute(N, T).
  void BindTest(const NodeTest& test, Axis axis, std::size_t offset, Op& op) {
    const bool attributeName = axis == Axis::Attribute || axis == Axis::Namespace ||
                               test.kind == TestKind::Attribute ||
                               test.kind == TestKind::SchemaAttribute;
    const bool named =
        test.kind == TestKind::Name || test.kind == TestKind::AnyLocalName ||
        ((test.kind == TestKind::Element || test.kind == TestKind::Attribute) && test.hasName) ||
        test.kind == TestKind::SchemaElement || test.kind == TestKind::SchemaAttribute;
    if (named && !test.name.prefix.empty()) {
      op.uri = Resolve(test.name.prefix, offset);
    } else if (named && test.kind != TestKind::AnyLocalName && !attributeName &&
               namespaces_.Contains(u"")) {
      // The table's empty prefix names the default element namespace; attributes keep none.
      op.uri = std::u16string(namespaces_[u""]);
    }
    if (test.kind == TestKind::SchemaElement || test.kind == TestKind::SchemaAttribute) {
      // No schema is imported: no declaration of that name exists.
      ThrowInvalidExpression(u"XPST0008", u"No schema declares " + test.name.local + u".");
    }
    if (test.hasType) op.atomicType = SchemaType(test.typeName, offset, false);
    if (test.kind == TestKind::DocumentNode && test.element) {
      op.elementTest = std::make_shared<Op>();
      op.elementTest->test = test.element.get();
      BindTest(*test.element, Axis::Child, offset, *op.elementTest);
    }
  }

  // A type name of the schema namespace; XPST0051 for any other name (no schema is imported).
  Type SchemaType(const QName& name, std::size_t offset, bool atomicOnly) {
    std::u16string uri;
    if (!name.prefix.empty()) {
      uri = Resolve(name.prefix, offset);
    } else if (namespaces_.Contains(u"")) {
      uri = std::u16string(namespaces_[u""]);
    }
    const std::optional<Type> type =
        uri == SchemaNamespace ? TypeNamed(name.local) : std::optional<Type>();
    if (!type || (atomicOnly && !IsAtomic(*type) && *type != Type::AnyAtomicType)) {
      ThrowInvalidExpression(u"XPST0051", u"The type " + Spelled(name) + u" is not known.");
    }
    return *type;
  }

  Type CastTarget(const QName& name, std::size_t offset) {
    const Type type = SchemaType(name, offset, false);
    if (type == Type::Notation || type == Type::AnyAtomicType) {
      ThrowInvalidExpression(u"XPST0080", u"Nothing can be cast to " + Spelled(name) + u".");
    }
    if (!IsAtomic(type)) {
      ThrowInvalidExpression(u"XPST0051", u"The type " + Spelled(name) + u" is not atomic.");
    }
    return type;
  }

  void BindSequenceType(const SequenceType& type, std::size_t offset, Op& op) {
    if (type.item == SequenceType::Item::Atomic) {
      op.atomicType = SchemaType(type.atomicType, offset, true);
    } else if (type.item == SequenceType::Item::Kind) {
      op.test = &type.test;
      BindTest(type.test, Axis::Child, offset, op);
    }
  }

  // xs:T(value) is `value cast as xs:T?`.
  bool BindConstructor(const Node& node, Op& op) {
    if (node.name.prefix.empty()) return false;
    if (Resolve(node.name.prefix, node.offset) != SchemaNamespace) return false;
    if (node.children.size() != 1) {
      ThrowInvalidExpression(u"XPST0017", u"The constructor function " + Spelled(node.name) +
                                              u"() takes one argument.");
    }
    const std::optional<Type> type = TypeNamed(node.name.local);
    if (!type || !IsAtomic(*type) || *type == Type::Notation) {
      ThrowInvalidExpression(u"XPST0017",
                             u"The function " + Spelled(node.name) + u"() is not known.");
    }
    op.kind = NodeKind::CastAs;
    op.atomicType = *type;
    op.sequenceType = &OptionalAtomic;
    return true;
  }

  static Item NumberConstant(const Node& node) {
    std::u16string_view text = node.text;
    switch (node.numberForm) {
      case NumberForm::Integer:
        if (auto value = Decimal::ParseInteger(text)) return Item::OfDecimal(*value, Type::Integer);
        break;
      case NumberForm::Decimal:
        if (auto value = Decimal::ParseDecimal(text)) return Item::OfDecimal(*value);
        break;
      case NumberForm::Double:
        break;
    }
    return Item::OfDouble(node.number);
  }

  static std::u16string Spelled(const QName& name) {
    return name.prefix.empty() ? name.local : name.prefix + u":" + name.local;
  }

  int Lookup(const Node& node) {
    for (auto binding = scope_.rbegin(); binding != scope_.rend(); ++binding) {
      if (binding->name->prefix == node.name.prefix && binding->name->local == node.name.local) {
        return binding->slot;
      }
    }
    // A prefix bound to no namespace is the fault to report, whatever the local name.
    if (!node.name.prefix.empty()) Resolve(node.name.prefix, node.offset);
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
  std::vector<QName> externals_;
  std::vector<Binding> scope_;
  int slots_ = 0;
};

// ---- Node tests and axes

std::u16string_view LocalNameOf(const DOMNode* node) {
  const XMLCh* local = node->getLocalName();
  return View(local ? local : node->getNodeName());
}

bool IsElement(const DOMNode* node) {
  return node->getNodeType() == DOMNode::ELEMENT_NODE;
}

bool IsAttribute(const DOMNode* node) {
  return node->getNodeType() == DOMNode::ATTRIBUTE_NODE && !IsNamespaceDeclaration(node);
}

// Whether an untyped node satisfies the type name of element(N, T) or attribute(N, T): elements
// are annotated xs:untyped, attributes xs:untypedAtomic.
bool TypeAnnotationMatches(const NodeTest& test, Type expected, bool element) {
  if (!test.hasType) return true;
  return DerivesFrom(element ? Type::Untyped : Type::UntypedAtomic, expected);
}

// The node test of a step (or of a sequence type's kind test), for nodes of the axis's
// principal kind or any kind.
class Matcher {
 public:
  explicit Matcher(const Op& step)
      : test_(*step.test),
        principal_(step.axis == Axis::Attribute || step.axis == Axis::Namespace
                       ? DOMNode::ATTRIBUTE_NODE
                       : DOMNode::ELEMENT_NODE),
        namespaceAxis_(step.axis == Axis::Namespace),
        uri_(step.uri),
        step_(step) {}

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
      case TestKind::Element:
      case TestKind::SchemaElement:
        return IsElement(node) && NameMatches(node) &&
               TypeAnnotationMatches(test_, step_.atomicType, true);
      case TestKind::Attribute:
      case TestKind::SchemaAttribute:
        return IsAttribute(node) && NameMatches(node) &&
               TypeAnnotationMatches(test_, step_.atomicType, false);
      case TestKind::DocumentNode:
        return type == DOMNode::DOCUMENT_NODE && DocumentElementMatches(node);
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
  bool NameMatches(const DOMNode* node) const {
    if (!test_.hasName && test_.kind != TestKind::SchemaElement &&
        test_.kind != TestKind::SchemaAttribute) {
      return true;
    }
    return LocalNameOf(node) == test_.name.local && View(node->getNamespaceURI()) == uri_;
  }

  // document-node(element(...)): exactly one element child, which the inner test accepts.
  bool DocumentElementMatches(const DOMNode* document) const {
    if (!step_.elementTest) return true;
    const DOMNode* element = nullptr;
    for (const DOMNode* child = document->getFirstChild(); child; child = child->getNextSibling()) {
      if (!IsElement(child)) continue;
      if (element) return false;
      element = child;
    }
    return element && Matcher(*step_.elementTest)(element);
  }

  const NodeTest& test_;
  DOMNode::NodeType principal_;
  bool namespaceAxis_;
  const std::u16string& uri_;
  const Op& step_;
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

// ---- Comparisons and arithmetic

bool AllNodes(const Sequence& sequence) {
  return std::all_of(sequence.begin(), sequence.end(), [](const Item& i) { return i.IsNode(); });
}

bool IsStringLike(Type type) {
  return IsStringType(type) || type == Type::AnyUri || type == Type::UntypedAtomic;
}

bool RelateOrder(Operator op, int order) {
  switch (op) {
    case Operator::GeneralEqual:
      return order == 0;
    case Operator::GeneralNotEqual:
      return order != 0;
    case Operator::GeneralLess:
      return order < 0;
    case Operator::GeneralLessEqual:
      return order <= 0;
    case Operator::GeneralGreater:
      return order > 0;
    default:
      return order >= 0;
  }
}

// `=`, `!=`, `<`, ... : true when some pair of atomized items compares true.
bool GeneralCompare(Operator op, const Sequence& left, const Sequence& right,
                    const ComparisonContext& context) {
  if (left.empty() || right.empty()) return false;
  // Nodes against one string, the common case: compare string-values in a reused buffer.
  if (right.size() == 1 && IsStringLike(right[0].type)) {
    const std::u16string& constant = right[0].string;
    std::u16string buffer;
    for (const Item& item : left) {
      if (item.IsNode()) {
        buffer.clear();
        AppendStringValue(item.node, buffer);
        const int order = op == Operator::GeneralEqual || op == Operator::GeneralNotEqual
                              ? (buffer == constant ? 0 : 1)
                              : CompareCodePoints(buffer, constant);
        if (RelateOrder(op, order)) return true;
      } else if (GeneralCompareItems(op, Atomize(item), right[0], context)) {
        return true;
      }
    }
    return false;
  }
  const Sequence a = Atomize(left);
  const Sequence b = Atomize(right);
  if (op == Operator::GeneralEqual && a.size() * b.size() > 64 &&
      std::all_of(a.begin(), a.end(), [](const Item& i) { return IsStringLike(i.type); }) &&
      std::all_of(b.begin(), b.end(), [](const Item& i) { return IsStringLike(i.type); })) {
    std::unordered_set<std::u16string> set;
    for (const Item& item : b)
      set.insert(item.string);
    return std::any_of(a.begin(), a.end(),
                       [&](const Item& item) { return set.count(item.string) != 0; });
  }
  for (const Item& x : a) {
    for (const Item& y : b) {
      if (GeneralCompareItems(op, x, y, context)) return true;
    }
  }
  return false;
}

// The single atomic operand of a value comparison or arithmetic; nothing for an empty operand.
const Item* SingleAtomic(const Sequence& sequence, Item& storage, const char16_t* what) {
  if (sequence.empty()) return nullptr;
  if (sequence.size() != 1) {
    ThrowTypeError(u"XPTY0004", std::u16string(u"The operand of ") + what +
                                    u" must be a single item, not a sequence of " +
                                    MessageText(std::to_string(sequence.size())) + u".");
  }
  storage = Atomize(sequence[0]);
  return &storage;
}

Sequence ValueComparison(Operator op, const Sequence& left, const Sequence& right,
                         const ComparisonContext& context) {
  Item storageA;
  Item storageB;
  const Item* a = SingleAtomic(left, storageA, u"a value comparison");
  const Item* b = SingleAtomic(right, storageB, u"a value comparison");
  if (!a || !b) return {};
  // Untyped values compare as strings.
  if (a->type == Type::UntypedAtomic) storageA.type = Type::String;
  if (b->type == Type::UntypedAtomic) storageB.type = Type::String;
  return {Item::OfBoolean(ValueCompare(op, *a, *b, context))};
}

// An arithmetic operand: atomized, untyped values read as xs:double.
const Item* ArithmeticOperand(const Sequence& sequence, Item& storage) {
  const Item* item = SingleAtomic(sequence, storage, u"an arithmetic operator");
  if (item && item->type == Type::UntypedAtomic) storage = Cast(storage, Type::Double);
  return item;
}

// The characters the items hold (TextLength).
std::size_t TextLengthOf(const Sequence& sequence) {
  std::size_t length = 0;
  for (const Item& item : sequence)
    length += TextLength(item);
  return length;
}

void CheckLength(std::size_t length) {
  if (length > MaxSequenceLength) {
    ThrowTypeError(u"XPDY0130", u"The expression builds a sequence of more than " +
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
  Evaluation(int slots, const DynamicContext& dynamic)
      : variables_(static_cast<std::size_t>(slots)), dynamic_(dynamic) {}

  std::vector<Sequence>& Variables() { return variables_; }

  // The share of one expression in what the evaluation holds while a nested expression
  // evaluates: the limits of one sequence alone would let every level of nesting hold as much
  // again. Together they may hold twice what one sequence may.
  class Held {
   public:
    explicit Held(Evaluation& evaluation) : evaluation_(evaluation) {}
    ~Held() {
      evaluation_.heldItems_ -= items_;
      evaluation_.heldText_ -= text_;
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    // The expression now holds `items` items with `text` characters (TextLength). XPDY0130
    // when the evaluation then holds too much.
    void Set(std::size_t items, std::size_t text) {
      evaluation_.heldItems_ = evaluation_.heldItems_ - items_ + items;
      evaluation_.heldText_ = evaluation_.heldText_ - text_ + text;
      items_ = items;
      text_ = text;
      if (evaluation_.heldItems_ > 2 * MaxSequenceLength) {
        ThrowTypeError(u"XPDY0130", u"The expression holds more than " +
                                        MessageText(std::to_string(2 * MaxSequenceLength)) +
                                        u" items at once.");
      }
      if (evaluation_.heldText_ > 2 * MaxTextLength) {
        ThrowTypeError(u"XPDY0130", u"The expression holds values of more than " +
                                        MessageText(std::to_string(2 * MaxTextLength)) +
                                        u" characters at once.");
      }
    }

   private:
    Evaluation& evaluation_;
    std::size_t items_ = 0;
    std::size_t text_ = 0;
  };

  Sequence Eval(const Op& op, const Focus& focus) {
    switch (op.kind) {
      case NodeKind::Literal:
      case NodeKind::Number:
        return {op.constant};
      case NodeKind::Variable:
        return variables_[static_cast<std::size_t>(op.slot)];
      case NodeKind::Context:
        if (!focus.item) ThrowTypeError(u"XPDY0002", u"There is no context item for '.'.");
        return {*focus.item};
      case NodeKind::Call:
        return Call(op, focus);
      case NodeKind::Sequence: {
        Sequence result;
        std::size_t length = 0;
        Held held(*this);
        for (const Op& child : op.children) {
          Append(result, Eval(child, focus), length);
          held.Set(result.size(), length);
        }
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
      case NodeKind::InstanceOf:
        return {Item::OfBoolean(MatchesType(Eval(op.children[0], focus), op))};
      case NodeKind::TreatAs: {
        Sequence value = Eval(op.children[0], focus);
        if (!MatchesType(value, op)) {
          ThrowTypeError(u"XPDY0050", u"The value does not match the type of treat as.");
        }
        return value;
      }
      case NodeKind::CastAs:
      case NodeKind::CastableAs:
        return CastOrCastable(op, Eval(op.children[0], focus));
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

  // Appends to a sequence whose values hold `length` characters so far (TextLength).
  static void Append(Sequence& to, Sequence&& from, std::size_t& length) {
    length += TextLengthOf(from);
    CheckTextLength(length);
    Append(to, std::move(from));
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
    // The arguments are held at once, as evaluated and then as converted (nodes atomized): their
    // text is limited as one sequence's, and so is the result's.
    std::size_t items = 0;
    std::size_t length = 0;
    Held held(*this);
    for (const Op& child : op.children) {
      arguments.push_back(Eval(child, focus));
      items += arguments.back().size();
      length += TextLengthOf(arguments.back());
      CheckTextLength(length);
      held.Set(items, length);
    }
    const std::vector<ParameterType>& types = *op.parameterTypes;
    length = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      ConvertArgument(arguments[i], types[std::min(i, types.size() - 1)], op.function->localName);
      length += TextLengthOf(arguments[i]);
      CheckTextLength(length);
    }
    FunctionContext context(focus.item, focus.position, focus.size, order_, dynamic_);
    Sequence result = op.function->body(context, arguments);
    CheckTextLength(TextLengthOf(result));
    return result;
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
    Held held(*this);
    held.Set(size, TextLengthOf(items));
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
    if (value.size() == 1 && value[0].IsNumeric()) {
      const Item& number = value[0];
      if (number.type == Type::Double || number.type == Type::Float)
        return number.number == static_cast<double>(focus.position);
      return number.decimal.Compare(Decimal::FromUInt64(focus.position)) == 0;
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
    // Between parts, `current` holds nodes only.
    Held held(*this);
    for (std::size_t i = first; i < path.children.size(); ++i) {
      const Op& part = path.children[i];
      const bool last = i + 1 == path.children.size();
      Sequence next;
      if (part.kind == NodeKind::Step) {
        const bool single = current.size() == 1;
        for (const Item& item : current) {
          const std::size_t start = next.size();
          held.Set(current.size() + next.size(), 0);
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
        std::size_t length = 0;
        for (std::size_t k = 0; k < size; ++k) {
          held.Set(size + next.size(), length);
          Append(next, Eval(part, Focus{&current[k], k + 1, size}), length);
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
    Held held(*this);
    held.Set(left.size(), TextLengthOf(left));
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
        return {Item::OfBoolean(GeneralCompare(node.op, left, right, dynamic_.comparison))};
      case Operator::ValueEqual:
      case Operator::ValueNotEqual:
      case Operator::ValueLess:
      case Operator::ValueLessEqual:
      case Operator::ValueGreater:
      case Operator::ValueGreaterEqual:
        return ValueComparison(node.op, left, right, dynamic_.comparison);
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
        Item storageA;
        Item storageB;
        const Item* a = ArithmeticOperand(left, storageA);
        const Item* b = ArithmeticOperand(right, storageB);
        if (!a || !b) return {};
        return {Arithmetic(node.op, *a, *b, dynamic_.comparison)};
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
    Item storageA;
    Item storageB;
    const Item* a = SingleAtomic(left, storageA, u"a range");
    const Item* b = SingleAtomic(right, storageB, u"a range");
    if (!a || !b) return {};
    const Decimal from = RangeBound(*a);
    const Decimal to = RangeBound(*b);
    if (from > to) return {};
    // Bounds may be any integers; only the count is limited.
    const Decimal last = to - from;
    if (!last.FitsInt64() || static_cast<std::uint64_t>(last.ToInt64()) >= MaxSequenceLength) {
      CheckLength(MaxSequenceLength + 1);
    }
    const auto count = static_cast<std::size_t>(last.ToInt64()) + 1;
    Sequence result;
    result.reserve(count);
    if (from.FitsInt64() && to.FitsInt64()) {
      const std::int64_t first = from.ToInt64();
      for (std::size_t i = 0; i < count; ++i)
        result.push_back(Item::OfInteger(first + static_cast<std::int64_t>(i)));
    } else {
      const Decimal one = Decimal::FromInt64(1);
      Decimal value = from;
      for (std::size_t i = 0; i < count; ++i, value = value + one)
        result.push_back(Item::OfDecimal(value, Type::Integer));
    }
    return result;
  }

  // A bound of `to`: an integer, or an untyped value that reads as one.
  static Decimal RangeBound(const Item& item) {
    const Item value = item.type == Type::UntypedAtomic ? Cast(item, Type::Integer) : item;
    if (!IsIntegerType(value.type)) {
      ThrowTypeError(u"XPTY0004",
                     u"A range bound must be an integer, not an " + TypeLabel(value) + u".");
    }
    return value.decimal;
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
    Item storage;
    const Item* value = ArithmeticOperand(Eval(*inner, focus), storage);
    if (!value) return {};
    if (!value->IsNumeric()) {
      ThrowTypeError(u"XPTY0004", u"A sign is not defined for an " + TypeLabel(*value) + u".");
    }
    if (!negate) return {*value};
    if (value->type == Type::Double || value->type == Type::Float) {
      Item result = *value;
      result.number = -result.number;
      return {result};
    }
    return {Item::OfDecimal(value->decimal.Negate(),
                            IsIntegerType(value->type) ? Type::Integer : Type::Decimal)};
  }

  // `instance of` and `treat as`: whether the value has the sequence type.
  bool MatchesType(const Sequence& value, const Op& op) {
    const SequenceType& type = *op.sequenceType;
    if (type.item == SequenceType::Item::Empty) return value.empty();
    switch (type.occurrence) {
      case Occurrence::One:
        if (value.size() != 1) return false;
        break;
      case Occurrence::ZeroOrOne:
        if (value.size() > 1) return false;
        break;
      case Occurrence::OneOrMore:
        if (value.empty()) return false;
        break;
      case Occurrence::ZeroOrMore:
        break;
    }
    for (const Item& item : value) {
      switch (type.item) {
        case SequenceType::Item::AnyItem:
          break;
        case SequenceType::Item::Atomic:
          if (item.IsNode() || !DerivesFrom(item.type, op.atomicType)) return false;
          break;
        default:
          if (!item.IsNode() || !Matcher(op)(item.node)) return false;
          break;
      }
    }
    return true;
  }

  Sequence CastOrCastable(const Op& op, const Sequence& value) {
    const bool castable = op.kind == NodeKind::CastableAs;
    const bool optional = op.sequenceType->occurrence == Occurrence::ZeroOrOne;
    const Sequence atomized = Atomize(value);
    if (atomized.size() != 1) {
      const bool fits = atomized.empty() && optional;
      if (castable) return {Item::OfBoolean(fits)};
      if (fits) return {};
      ThrowTypeError(u"XPTY0004", u"A cast needs a single atomic value, not a sequence of " +
                                      MessageText(std::to_string(atomized.size())) + u".");
    }
    const Item& item = atomized[0];
    // A cast to xs:QName takes only a string literal or a QName, since the prefixes it resolves
    // are the expression's own.
    if (op.atomicType == Type::QName && item.type != Type::QName &&
        !(item.type == Type::String && op.children[0].kind == NodeKind::Literal)) {
      if (castable) return {Item::OfBoolean(false)};
      ThrowTypeError(u"XPTY0004", u"Only a string literal can be cast to xs:QName.");
    }
    if (castable) return {Item::OfBoolean(Castable(item, op.atomicType, dynamic_.resolver))};
    return {Cast(item, op.atomicType, dynamic_.resolver)};
  }

  Sequence Binding(const Op& op, const Focus& focus) {
    const Sequence domain = Eval(op.children[0], focus);
    Sequence& variable = variables_[static_cast<std::size_t>(op.slot)];
    const Sequence saved = std::move(variable);
    Sequence result;
    std::size_t length = 0;
    const std::size_t domainText = TextLengthOf(domain);
    Held held(*this);
    held.Set(domain.size(), domainText);
    bool answer = op.kind == NodeKind::Every;
    for (const Item& item : domain) {
      variable.assign(1, item);
      if (op.kind == NodeKind::For) {
        Append(result, Eval(op.children[1], focus), length);
        held.Set(domain.size() + result.size(), domainText + length);
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
  const DynamicContext& dynamic_;
  // What the sequences of enclosing expressions hold (Held).
  std::size_t heldItems_ = 0;
  std::size_t heldText_ = 0;
};

std::u16string SyntaxMessage(const XPathSyntaxError& error) {
  return u"Syntax error at offset " + MessageText(std::to_string(error.Offset())) + u": " +
         MessageText(error.what());
}

// The current date and time in the process's time zone, and that zone in minutes.
Calendar Now() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm local{};
  localtime_r(&seconds, &local);
  Calendar value;
  value.kind = CalendarKind::DateTime;
  value.year = local.tm_year + 1900;
  value.month = local.tm_mon + 1;
  value.day = local.tm_mday;
  value.hour = local.tm_hour;
  value.minute = local.tm_min;
  value.second = std::min(local.tm_sec, 59);
  value.nanosecond = static_cast<std::int32_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count() %
      1000000000);
  value.timezone = static_cast<int>(local.tm_gmtoff / 60);
  return value;
}

}  // namespace

struct CompiledExpression::Bound {
  Op root;
  int slots = 0;
  int externals = 0;
  // The expression's namespace table, for casts to xs:QName at evaluation.
  std::unordered_map<std::u16string, std::u16string> prefixes;
};

CompiledExpression::CompiledExpression(std::u16string_view text, const XPathVariables& namespaces,
                                       int maxNestingDepth,
                                       const std::vector<std::u16string>& externals) {
  try {
    tree_ = Parse(text, maxNestingDepth);
  } catch (const XPathSyntaxError& error) {
    ThrowInvalidExpression(u"XPST0003", SyntaxMessage(error));
  }
  Binder binder(namespaces, externals);
  bound_ = std::make_unique<Bound>();
  bound_->root = binder.Bind(*tree_, 0);
  bound_->slots = binder.Slots();
  bound_->externals = static_cast<int>(externals.size());
  for (int i = 0; i < namespaces.Count(); ++i) {
    const XPathVariables::Entry& entry = namespaces(i);
    bound_->prefixes.emplace(std::u16string(entry.Key.getBuffer(), entry.Key.length()),
                             std::u16string(entry.Value.getBuffer(), entry.Value.length()));
  }
}

CompiledExpression::~CompiledExpression() = default;

Sequence CompiledExpression::Evaluate(DOMNode* contextNode,
                                      const std::vector<Sequence>& externals) const {
  const PrefixResolver resolver = [this](std::u16string_view prefix, std::u16string& uri) {
    if (prefix == u"xml") {
      uri = std::u16string(XmlNamespace);
      return true;
    }
    const auto found = bound_->prefixes.find(std::u16string(prefix));
    if (found == bound_->prefixes.end()) {
      uri.clear();
      return false;
    }
    uri = found->second;
    return true;
  };
  DynamicContext dynamic;
  const Calendar now = Now();
  dynamic.comparison.implicitTimezone = *now.timezone;
  dynamic.currentDateTime = std::make_shared<const Calendar>(now);
  dynamic.resolver = &resolver;
  Evaluation evaluation(bound_->slots, dynamic);
  for (int i = 0; i < bound_->externals && i < static_cast<int>(externals.size()); ++i)
    evaluation.Variables()[static_cast<std::size_t>(i)] = externals[static_cast<std::size_t>(i)];
  if (!contextNode) return evaluation.Eval(bound_->root, Focus{nullptr, 0, 0});
  const Item context = Item::OfNode(contextNode);
  return evaluation.Eval(bound_->root, Focus{&context, 1, 1});
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
