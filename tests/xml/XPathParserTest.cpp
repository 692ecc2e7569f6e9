// The XPath engine's tokenizer and parser: expression text to the printed expression tree.
#include "xml/xpath/XPathParser.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {
namespace {

struct Case {
  std::u16string expression;
  std::string tree;
};

// The expression for trace output, non-ASCII units shown as '?'.
std::string Ascii(const std::u16string& text) {
  std::string out;
  for (const char16_t c : text)
    out += c < 0x80 ? static_cast<char>(c) : '?';
  return out;
}

// Each expression parses to the tree, and the tree printed as XPath parses back to it.
void ExpectTrees(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(Ascii(c.expression));
    const auto tree = Parse(c.expression);
    EXPECT_EQ(ToSExpression(*tree), c.tree);
    const std::u16string printed = ToXPath(*tree);
    SCOPED_TRACE(Ascii(printed));
    EXPECT_EQ(ToSExpression(*Parse(printed)), c.tree);
  }
}

TEST(XPathParserTest, Axes) {
  ExpectTrees({
      {u"child::a", "(path (step child a))"},
      {u"descendant::a", "(path (step descendant a))"},
      {u"parent::a", "(path (step parent a))"},
      {u"ancestor::a", "(path (step ancestor a))"},
      {u"following-sibling::a", "(path (step following-sibling a))"},
      {u"preceding-sibling::a", "(path (step preceding-sibling a))"},
      {u"following::a", "(path (step following a))"},
      {u"preceding::a", "(path (step preceding a))"},
      {u"attribute::a", "(path (step attribute a))"},
      {u"namespace::a", "(path (step namespace a))"},
      {u"self::a", "(path (step self a))"},
      {u"descendant-or-self::a", "(path (step descendant-or-self a))"},
      {u"ancestor-or-self::a", "(path (step ancestor-or-self a))"},
      {u"child :: a", "(path (step child a))"},
  });
}

TEST(XPathParserTest, Abbreviations) {
  ExpectTrees({
      {u"a", "(path (step child a))"},
      {u"@id", "(path (step attribute id))"},
      {u".", "(context)"},
      {u"..", "(path (step parent node()))"},
      {u"/", "(path /)"},
      {u"/a", "(path / (step child a))"},
      {u"//a", "(path / (step descendant-or-self node()) (step child a))"},
      {u"a//b", "(path (step child a) (step descendant-or-self node()) (step child b))"},
      {u"./a", "(path (context) (step child a))"},
      {u"../@x", "(path (step parent node()) (step attribute x))"},
      {u"a/b/c", "(path (step child a) (step child b) (step child c))"},
      {u"a[@id = 'x']",
       "(path (step child a (pred (= (path (step attribute id)) (literal \"x\")))))"},
      {u"a[1][last()]", "(path (step child a (pred (number 1)) (pred (call last))))"},
  });
}

TEST(XPathParserTest, NodeTests) {
  ExpectTrees({
      {u"p:a", "(path (step child p:a))"},
      {u"*", "(path (step child *))"},
      {u"p:*", "(path (step child p:*))"},
      {u"*:a", "(path (step child *:a))"},
      {u"@*", "(path (step attribute *))"},
      {u"node()", "(path (step child node()))"},
      {u"text()", "(path (step child text()))"},
      {u"comment()", "(path (step child comment()))"},
      {u"processing-instruction()", "(path (step child processing-instruction()))"},
      {u"processing-instruction('x')", "(path (step child processing-instruction(\"x\")))"},
      {u"self::node()", "(path (step self node()))"},
      // Node type names are element names unless a parenthesis follows.
      {u"text", "(path (step child text))"},
      {u"child::comment", "(path (step child comment))"},
  });
}

TEST(XPathParserTest, PrimaryAndFilterExpressions) {
  ExpectTrees({
      {u"$x", "(var x)"},
      {u"$p:x", "(var p:x)"},
      {u"$x/a", "(path (var x) (step child a))"},
      {u"$x[1]", "(filter (var x) (pred (number 1)))"},
      {u"(a)[2]/b", "(path (filter (path (step child a)) (pred (number 2))) (step child b))"},
      {u"count(a)", "(call count (path (step child a)))"},
      {u"fn:concat('a', \"b\", 1)", "(call fn:concat (literal \"a\") (literal \"b\") (number 1))"},
      {u"f()", "(call f)"},
      {u"id('x')//a",
       "(path (call id (literal \"x\")) (step descendant-or-self node()) (step child a))"},
      {u"a/(b | c)", "(path (step child a) (union (path (step child b)) (path (step child c))))"},
  });
}

TEST(XPathParserTest, PrecedenceAndAssociativity) {
  ExpectTrees({
      {u"1 - 2 - 3", "(- (- (number 1) (number 2)) (number 3))"},
      {u"1 + 2 * 3", "(+ (number 1) (* (number 2) (number 3)))"},
      {u"8 div 4 div 2", "(div (div (number 8) (number 4)) (number 2))"},
      {u"-1 * 2", "(* (neg (number 1)) (number 2))"},
      {u"- - 1", "(neg (neg (number 1)))"},
      {u"+1", "(pos (number 1))"},
      {u"a | b / c", "(union (path (step child a)) (path (step child b) (step child c)))"},
      {u"a | b | c",
       "(union (union (path (step child a)) (path (step child b))) (path (step child c)))"},
      {u"1 to 3, 4", "(seq (to (number 1) (number 3)) (number 4))"},
      {u"1 to 2 + 3", "(to (number 1) (+ (number 2) (number 3)))"},
      {u"a or b and c",
       "(or (path (step child a)) (and (path (step child b)) (path (step child c))))"},
      {u"1 = 2 or 3 < 4", "(or (= (number 1) (number 2)) (< (number 3) (number 4)))"},
      // XPath 1.0: equality binds looser than relational comparison.
      {u"1 < 2 = 2 < 3", "(= (< (number 1) (number 2)) (< (number 2) (number 3)))"},
      {u"1 + 2 = 3", "(= (+ (number 1) (number 2)) (number 3))"},
      {u"a union b intersect c",
       "(union (path (step child a)) (intersect (path (step child b)) (path (step child "
       "c))))"},
      {u"a except b except c",
       "(except (except (path (step child a)) (path (step child b))) (path (step child c)))"},
      {u"2 * a | b", "(* (number 2) (union (path (step child a)) (path (step child b))))"},
      {u"7 mod 3 idiv 2", "(idiv (mod (number 7) (number 3)) (number 2))"},
      {u"(1 - 2) - 3", "(- (- (number 1) (number 2)) (number 3))"},
      {u"1 - (2 - 3)", "(- (number 1) (- (number 2) (number 3)))"},
      {u"1 != 2", "(!= (number 1) (number 2))"},
      {u"1 <= 2 >= 3", "(>= (<= (number 1) (number 2)) (number 3))"},
  });
}

TEST(XPathParserTest, LexicalDisambiguation) {
  ExpectTrees({
      {u"* * *", "(* (path (step child *)) (path (step child *)))"},
      {u"div div div", "(div (path (step child div)) (path (step child div)))"},
      {u"and and and", "(and (path (step child and)) (path (step child and)))"},
      {u"or or or", "(or (path (step child or)) (path (step child or)))"},
      {u"mod mod mod", "(mod (path (step child mod)) (path (step child mod)))"},
      {u"a/and", "(path (step child a) (step child and))"},
      {u"@div", "(path (step attribute div))"},
      {u"child::div", "(path (step child div))"},
      {u"a[div]", "(path (step child a (pred (path (step child div)))))"},
      {u"f(*, eq)", "(call f (path (step child *)) (path (step child eq)))"},
      {u"a-b", "(path (step child a-b))"},
      {u"a - b", "(- (path (step child a)) (path (step child b)))"},
      {u"for", "(path (step child for))"},
      {u"if", "(path (step child if))"},
      {u"return", "(path (step child return))"},
      {u"2*3", "(* (number 2) (number 3))"},
      {u"(/) * 2", "(* (path /) (number 2))"},
      {u"last ()", "(call last)"},
      {u"text ()", "(path (step child text()))"},
  });
}

TEST(XPathParserTest, XPath2Constructs) {
  ExpectTrees({
      {u"()", "(seq)"},
      {u"(1, 2, 3)", "(seq (number 1) (number 2) (number 3))"},
      {u"a eq b", "(eq (path (step child a)) (path (step child b)))"},
      {u"1 ne 2", "(ne (number 1) (number 2))"},
      {u"1 lt 2", "(lt (number 1) (number 2))"},
      {u"1 le 2", "(le (number 1) (number 2))"},
      {u"1 gt 2", "(gt (number 1) (number 2))"},
      {u"1 ge 2", "(ge (number 1) (number 2))"},
      {u"a is b", "(is (path (step child a)) (path (step child b)))"},
      {u"a << b", "(<< (path (step child a)) (path (step child b)))"},
      {u"a >> b", "(>> (path (step child a)) (path (step child b)))"},
      {u"if (a) then 1 else 2", "(if (path (step child a)) (number 1) (number 2))"},
      {u"if (1, 2) then () else if (3) then 4 else 5",
       "(if (seq (number 1) (number 2)) (seq) (if (number 3) (number 4) (number 5)))"},
      {u"for $x in a return $x", "(for $x (path (step child a)) (var x))"},
      {u"for $x in 1 to 2, $y in $x return $x * $y",
       "(for $x (to (number 1) (number 2)) (for $y (var x) (* (var x) (var y))))"},
      {u"some $x in a satisfies $x = 1", "(some $x (path (step child a)) (= (var x) (number 1)))"},
      {u"every $x in a, $y in b satisfies $x eq $y",
       "(every $x (path (step child a)) (every $y (path (step child b)) (eq (var x) (var "
       "y))))"},
      {u"for $x in a return $x, 2", "(seq (for $x (path (step child a)) (var x)) (number 2))"},
      {u"(1 to 5)[. > 2]", "(filter (to (number 1) (number 5)) (pred (> (context) (number 2))))"},
      {u"a idiv 2", "(idiv (path (step child a)) (number 2))"},
      {u"a union b", "(union (path (step child a)) (path (step child b)))"},
      {u"f(if (1) then 2 else 3)", "(call f (if (number 1) (number 2) (number 3)))"},
  });
}

TEST(XPathParserTest, LiteralsNumbersAndComments) {
  ExpectTrees({
      {u"'it''s'", "(literal \"it's\")"},
      {u"\"say \"\"hi\"\"\"", "(literal \"say \\\"hi\\\"\")"},
      {u"'a\"b'", "(literal \"a\\\"b\")"},
      {u"''", "(literal \"\")"},
      {u"12", "(number 12)"},
      {u"1.5", "(number 1.5)"},
      {u".5", "(number .5)"},
      {u"2.", "(number 2.)"},
      {u"1e3", "(number 1e3)"},
      {u"1.5E-2", "(number 1.5E-2)"},
      {u"1 (: one :) + (: two (: nested :) :) 2", "(+ (number 1) (number 2))"},
      {u"(: leading :) a", "(path (step child a))"},
      {u"$ x", "(var x)"},
      {u"élève/中", "(path (step child élève) (step child 中))"},
  });
}

TEST(XPathParserTest, NumberValues) {
  struct NumberCase {
    std::u16string expression;
    double value;
    NumberForm form;
  };
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<NumberCase> cases = {
      {u"42", 42, NumberForm::Integer},
      {u"0.25", 0.25, NumberForm::Decimal},
      {u".5", 0.5, NumberForm::Decimal},
      {u"2.", 2, NumberForm::Decimal},
      {u"0.1e1", 1, NumberForm::Double},
      {u"2.5e2", 250, NumberForm::Double},
      {u"1e400", inf, NumberForm::Double},
      {u"1e-400", 0, NumberForm::Double},
      {u"0.0001e400", inf, NumberForm::Double},
      {u"100000000000000000000000000000000000000000000000000000000000000000000000000000000000"
       u"00000000000000000000000000000000000000000000000000000000000000000000000000000000000"
       u"00000000000000000000000000000000000000000000000000000000000000000000000000000000000"
       u"00000000000000000000000000000000000000000000000000000000000000000000000000000000000",
       inf, NumberForm::Integer},
  };
  for (const NumberCase& c : cases) {
    SCOPED_TRACE(Ascii(c.expression));
    const auto tree = Parse(c.expression);
    ASSERT_EQ(tree->kind, NodeKind::Number);
    EXPECT_EQ(tree->number, c.value);
    EXPECT_EQ(tree->numberForm, c.form);
  }
}

TEST(XPathParserTest, SyntaxErrors) {
  struct ErrorCase {
    std::u16string expression;
    std::size_t offset;
    std::string message;
  };
  const std::vector<ErrorCase> cases = {
      {u"", 0, "empty expression at offset 0"},
      {u"   ", 3, "empty expression at offset 3"},
      {u"(a", 2, "expected ')', found end of expression at offset 2"},
      {u"a)", 1, "unexpected ')' at offset 1"},
      {u"a]", 1, "unexpected ']' at offset 1"},
      {u"a[1)", 3, "expected ']', found ')' at offset 3"},
      {u"a[1", 3, "expected ']', found end of expression at offset 3"},
      {u"f(1,", 4, "unexpected end of expression at offset 4"},
      {u"1 +", 3, "unexpected end of expression at offset 3"},
      {u"a/", 2, "unexpected end of expression at offset 2"},
      {u"sideways::a", 0, "unknown axis at offset 0"},
      {u"$", 1, "expected a variable name after '$' at offset 1"},
      {u"$1", 1, "expected a variable name after '$' at offset 1"},
      {u"'abc", 0, "unterminated string literal at offset 0"},
      {u"1 (: open", 2, "unterminated comment at offset 2"},
      {u"1e", 1, "exponent without digits at offset 1"},
      {u"a # b", 2, "unexpected character at offset 2"},
      // After "/" a "*" is a name test: the lone slash must be parenthesised.
      {u"/ * 2", 4, "unexpected number at offset 4"},
      {u"a b", 2, "expected an operator at offset 2"},
      {u"child::", 7, "expected a node test, found end of expression at offset 7"},
      {u"child::f(1)", 7, "expected a node test, found function name at offset 7"},
      {u"if (1) then 2", 13, "expected 'else', found end of expression at offset 13"},
      {u"for $x in a", 11, "expected 'return', found end of expression at offset 11"},
      {u"1 to 2 to 3", 7, "unexpected 'to' at offset 7"},
      {u"processing-instruction(1)", 23, "expected ')', found number at offset 23"},
  };
  for (const ErrorCase& c : cases) {
    SCOPED_TRACE(Ascii(c.expression));
    try {
      Parse(c.expression);
      ADD_FAILURE() << "parsed";
    } catch (const XPathSyntaxError& error) {
      EXPECT_EQ(error.what(), c.message);
      EXPECT_EQ(error.Offset(), c.offset);
    }
  }
}

std::u16string Repeat(std::u16string_view unit, int count) {
  std::u16string out;
  for (int i = 0; i < count; ++i)
    out += unit;
  return out;
}

TEST(XPathParserTest, NestingIsBounded) {
  // At the limit the expression parses; one level more is an error, and so are 10,000 levels.
  EXPECT_EQ(Parse(Repeat(u"(", 255) + u"1" + Repeat(u")", 255))->kind, NodeKind::Number);
  EXPECT_THROW(Parse(Repeat(u"(", 256) + u"1" + Repeat(u")", 256)), XPathSyntaxError);
  EXPECT_THROW(Parse(Repeat(u"(", 10000) + u"1" + Repeat(u")", 10000)), XPathSyntaxError);
  EXPECT_THROW(Parse(Repeat(u"a[", 10000) + u"1" + Repeat(u"]", 10000)), XPathSyntaxError);
  EXPECT_THROW(Parse(Repeat(u"f(", 10000) + u"1" + Repeat(u")", 10000)), XPathSyntaxError);
  EXPECT_THROW(Parse(Repeat(u"if (1) then 1 else ", 10000) + u"1"), XPathSyntaxError);
  EXPECT_THROW(Parse(Repeat(u"(", 10000)), XPathSyntaxError);
  // Long operator chains and sign runs build tall trees without nesting: bounded by height.
  EXPECT_EQ(Parse(u"1" + Repeat(u" - 1", MaxTreeHeight - 2))->height, MaxTreeHeight - 1);
  EXPECT_THROW(Parse(u"1" + Repeat(u" - 1", 100000)), XPathSyntaxError);
  EXPECT_THROW(Parse(Repeat(u"-", 100000) + u"1"), XPathSyntaxError);
  // A flat sequence and a long path are not nesting.
  EXPECT_EQ(Parse(u"1" + Repeat(u", 1", 100000))->children.size(), 100001u);
  EXPECT_EQ(Parse(u"a" + Repeat(u"/a", 100000))->children.size(), 100001u);
}

TEST(XPathParserTest, NodesKeepTheirOffsets) {
  const auto tree = Parse(u"a[@id = $v]/f(  'x')");
  ASSERT_EQ(tree->kind, NodeKind::Path);
  EXPECT_EQ(tree->children[0]->offset, 0u);
  const Node& equal = *tree->children[0]->predicates[0];
  EXPECT_EQ(equal.children[0]->offset, 2u);
  EXPECT_EQ(equal.children[1]->offset, 8u);
  EXPECT_EQ(tree->children[1]->offset, 12u);
  EXPECT_EQ(tree->children[1]->children[0]->offset, 16u);
}

}  // namespace
}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
