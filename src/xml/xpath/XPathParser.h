// The parser of the library's XPath engine: XPath 2.0 expression text to an expression tree that
// the evaluator walks.
#ifndef VESKAN_XML_XPATH_XPATHPARSER_H
#define VESKAN_XML_XPATH_XPATHPARSER_H

#include "xml/xpath/XPathLexer.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

// A name as written: the prefix (empty when none) is resolved later, at evaluation, through the
// expression's namespace table.
struct QName {
  std::u16string prefix;
  std::u16string local;
};

enum class Axis {
  Child,
  Descendant,
  Parent,
  Ancestor,
  FollowingSibling,
  PrecedingSibling,
  Following,
  Preceding,
  Attribute,
  Namespace,
  Self,
  DescendantOrSelf,
  AncestorOrSelf
};

enum class TestKind {
  Name,                   // prefix:local or local
  AnyName,                // *
  AnyLocalName,           // prefix:*  (name.prefix set)
  AnyPrefix,              // *:local   (name.local set)
  AnyNode,                // node()
  Text,                   // text()
  Comment,                // comment()
  ProcessingInstruction,  // processing-instruction(), processing-instruction('target') or (NCName)
  Element,                // element(), element(*), element(N), element(N, T), element(*, T?)...
  Attribute,              // attribute(), attribute(*), attribute(N), attribute(N, T)...
  DocumentNode,           // document-node() or document-node(element(...) / schema-element(N))
  SchemaElement,          // schema-element(N)
  SchemaAttribute,        // schema-attribute(N)
};

// A node test of a step or a sequence type. Members that the kind does not use keep their
// defaults.
struct NodeTest {
  TestKind kind = TestKind::AnyNode;
  // Name: the name; AnyLocalName: its prefix; AnyPrefix: its local part; Element/Attribute:
  // the name, when hasName; SchemaElement/SchemaAttribute: the name.
  QName name;
  bool hasName = false;  // element(N) / attribute(N); false for element(), element(*)
  QName typeName;        // element(N, T) / attribute(N, T), also element(*, T): T, when hasType
  bool hasType = false;
  bool nillable = false;  // element(N, T?)
  // The processing instruction's target as written, when hasTarget: a string literal is not
  // normalized here.
  std::u16string target;
  bool hasTarget = false;
  // DocumentNode: its Element or SchemaElement test, or null for document-node().
  std::shared_ptr<const NodeTest> element;
};

// How many items a sequence type allows: exactly one, or as marked by ?, * or +.
enum class Occurrence { One, ZeroOrOne, ZeroOrMore, OneOrMore };

// The type after `instance of`, `treat as`, `cast as` and `castable as`.
struct SequenceType {
  // empty-sequence(), item(), an atomic type name, a kind test.
  enum class Item { Empty, AnyItem, Atomic, Kind };
  Item item = Item::AnyItem;
  QName atomicType;  // Item::Atomic: the type's name as written, its prefix resolved later
  NodeTest test;     // Item::Kind: any kind test but a name test
  Occurrence occurrence = Occurrence::One;  // always One for empty-sequence()
};

enum class Operator {
  Or,
  And,
  GeneralEqual,  // =
  GeneralNotEqual,
  GeneralLess,
  GeneralLessEqual,
  GeneralGreater,
  GeneralGreaterEqual,
  ValueEqual,  // eq
  ValueNotEqual,
  ValueLess,
  ValueLessEqual,
  ValueGreater,
  ValueGreaterEqual,
  Is,
  Precedes,  // <<
  Follows,   // >>
  To,
  Add,
  Subtract,
  Multiply,
  Divide,         // div
  IntegerDivide,  // idiv
  Modulo,
  Union,  // | and union
  Intersect,
  Except,
  Negate,  // unary -
  Plus,    // unary +
};

enum class NodeKind {
  Literal,   // text
  Number,    // number, numberForm, text (the lexeme as written)
  Variable,  // name
  Context,   // .
  Call,      // name; children: the arguments
  Sequence,  // children, in order; none for ()
  Filter,    // children[0]: the filtered expression; predicates
  Path,      // absolute (starts at the root); children: Step nodes or other expressions
  Step,      // axis, test; predicates
  Binary,    // op; children[0] op children[1]
  Unary,     // op (Negate or Plus); children[0]
  If,        // children: condition, then, else
  For,       // name: the variable; children[0]: its sequence; children[1]: the body
  Some,      // as For, with children[1] the test
  Every,     // as For, with children[1] the test
  // children[0]: the operand; type: the sequence type. For CastAs and CastableAs the type is
  // Item::Atomic with occurrence One or ZeroOrOne ("cast as xs:integer?").
  InstanceOf,
  TreatAs,
  CastAs,
  CastableAs,
};

// One node of an expression tree. Every node owns its children and predicates. Members that
// the kind does not list keep their default values.
//
// A path "E1/E2/..." holds its parts in order: each part is evaluated with each node from the
// previous part as context item (a Step part selects along its axis; any other part is an
// expression such as `.`, a variable or a parenthesised expression). "//" stands for the step
// descendant-or-self::node(). A lone "/" is an absolute path without parts. Binding expressions
// with several clauses ("for $a in A, $b in B return C") nest one clause per node.
//
// Thread safety: immutable once parsed; may be read from any thread.
struct Node {
  NodeKind kind = NodeKind::Sequence;
  std::size_t offset = 0;  // of the node's first token in the expression text
  Operator op = Operator::Or;
  std::u16string text;
  double number = 0;
  NumberForm numberForm = NumberForm::Integer;
  QName name;
  bool absolute = false;
  Axis axis = Axis::Child;
  NodeTest test;
  SequenceType type;
  std::vector<std::unique_ptr<Node>> children;
  std::vector<std::unique_ptr<Node>> predicates;
  // Longest chain of nodes from this one down to a leaf, counting this one; bounded by
  // MaxTreeHeight, so that recursive walks over the tree have bounded depth.
  int height = 1;
};

// Tallest tree the parser returns, whatever the nesting limit: long chains of left-associative
// operators ("1-1-1-...") build trees as tall as they are long.
constexpr int MaxTreeHeight = 4096;

// The tree of an expression. Parentheses, predicates, function calls and the binding
// expressions may nest `maxNestingDepth` levels deep. The unprefixed names that the grammar
// reserves are not function names: `element(a)` is a step with a kind test (the default axis of
// attribute() and schema-attribute() steps is the attribute axis), `item()`,
// `empty-sequence()` and `typeswitch(...)` are errors.
// Throws XPathSyntaxError on a malformed or empty expression, on deeper nesting, or on a tree
// taller than MaxTreeHeight.
std::unique_ptr<Node> Parse(std::u16string_view text, int maxNestingDepth = 256);

// The tree as an S-expression in UTF-8, e.g. `(path (step child a (pred (= (path (step
// attribute id)) (literal "x")))))` or `(instance-of (var x) xs:integer+)`, for tests and
// diagnostics.
std::string ToSExpression(const Node& node);

// The tree as XPath text that parses back to the same tree: every operator fully parenthesised,
// every step with its axis spelled out.
std::u16string ToXPath(const Node& node);

// The XPath spelling of an axis, e.g. "following-sibling".
std::u16string_view AxisName(Axis axis);

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
