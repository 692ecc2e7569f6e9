// The parser of the library's XPath engine: expression text to an expression tree that the
// evaluator walks. XPath 1.0 and the XPath 2.0 subset of sequences, value and node comparisons,
// if, for, some/every, to, union/intersect/except and idiv.
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
  ProcessingInstruction,  // processing-instruction() or processing-instruction('target')
};

struct NodeTest {
  TestKind kind = TestKind::AnyNode;
  QName name;
  std::u16string target;  // the processing instruction's target, when hasTarget
  bool hasTarget = false;
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
// expressions may nest `maxNestingDepth` levels deep.
// Throws XPathSyntaxError on a malformed or empty expression, on deeper nesting, or on a tree
// taller than MaxTreeHeight.
std::unique_ptr<Node> Parse(std::u16string_view text, int maxNestingDepth = 256);

// The tree as an S-expression in UTF-8, e.g. `(path (step child a (pred (= (path (step
// attribute id)) (literal "x")))))`, for tests and diagnostics.
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
