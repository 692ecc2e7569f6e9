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

TEST(XPathParserTest, Steps) {
  ExpectTrees({
      {u"child::a/descendant::a/parent::a/ancestor::a/following-sibling::a/"
       u"preceding-sibling::a/following::a/preceding::a/attribute::a/namespace::a/self::a/"
       u"descendant-or-self::a/ancestor-or-self::a",
       "(path (step child a) (step descendant a) (step parent a) (step ancestor a) (step "
       "following-sibling a) (step preceding-sibling a) (step following a) (step preceding a) "
       "(step attribute a) (step namespace a) (step self a) (step descendant-or-self a) (step "
       "ancestor-or-self a))"},
      {u"child :: a", "(path (step child a))"},
      {u"/", "(path /)"},
      {u"//a/../@x",
       "(path / (step descendant-or-self node()) (step child a) (step parent node()) (step "
       "attribute x))"},
      {u"./a//b",
       "(path (context) (step child a) (step descendant-or-self node()) (step child b))"},
      {u"a[@x][1]", "(path (step child a (pred (path (step attribute x))) (pred (number 1))))"},
      {u"p:a/*/p:*/*:a/@*",
       "(path (step child p:a) (step child *) (step child p:*) (step child *:a) (step "
       "attribute *))"},
      {u"node()/text()/comment()",
       "(path (step child node()) (step child text()) (step child comment()))"},
      // A target may be a name or a literal, which keeps its spaces.
      {u"processing-instruction()/processing-instruction(x)/processing-instruction(' x')",
       "(path (step child processing-instruction()) (step child processing-instruction(\"x\")) "
       "(step child processing-instruction(\" x\")))"},
      {u"element()/element(*)/element(p:a)/element(a, p:T)/element(*, T?)",
       "(path (step child element()) (step child element()) (step child element(p:a)) (step "
       "child element(a, p:T)) (step child element(*, T?)))"},
      // Attribute tests select along the attribute axis unless an axis is named.
      {u"attribute(a)/schema-attribute(b)/child::attribute(*, T)",
       "(path (step attribute attribute(a)) (step attribute schema-attribute(b)) (step child "
       "attribute(*, T)))"},
      {u"document-node()/document-node(element(a))/document-node(schema-element(a))",
       "(path (step child document-node()) (step child document-node(element(a))) (step child "
       "document-node(schema-element(a))))"},
      {u"self::schema-element(p:a)[1]", "(path (step self schema-element(p:a) (pred (number 1))))"},
      // Kind test names are names unless a parenthesis follows, and only unprefixed.
      {u"text/child::element", "(path (step child text) (step child element))"},
      {u"fn:element(1)", "(call fn:element (number 1))"},
  });
}

TEST(XPathParserTest, PrimaryAndFilterExpressions) {
  ExpectTrees({
      {u"$p:x/a", "(path (var p:x) (step child a))"},
      {u"$x[1]", "(filter (var x) (pred (number 1)))"},
      {u"(a)[2]/b", "(path (filter (path (step child a)) (pred (number 2))) (step child b))"},
      {u"count(a)", "(call count (path (step child a)))"},
      {u"fn:concat('a', \"b\", 1)", "(call fn:concat (literal \"a\") (literal \"b\") (number 1))"},
      {u"id('x')//a",
       "(path (call id (literal \"x\")) (step descendant-or-self node()) (step child a))"},
      {u"a/(b | c)", "(path (step child a) (union (path (step child b)) (path (step child c))))"},
      {u"((), 1, (2, 3))", "(seq (seq) (number 1) (seq (number 2) (number 3)))"},
      {u"(1 to 5)[. > 2]", "(filter (to (number 1) (number 5)) (pred (> (context) (number 2))))"},
  });
}

TEST(XPathParserTest, Operators) {
  ExpectTrees({
      {u"1 - 2 + 3 * 4", "(+ (- (number 1) (number 2)) (* (number 3) (number 4)))"},
      {u"8 div 4 idiv 2 mod 1", "(mod (idiv (div (number 8) (number 4)) (number 2)) (number 1))"},
      {u"-1 * - + 2", "(* (neg (number 1)) (neg (pos (number 2))))"},
      {u"$a | $b / c union $d", "(union (union (var a) (path (var b) (step child c))) (var d))"},
      {u"1 to 2 + 3, 4", "(seq (to (number 1) (+ (number 2) (number 3))) (number 4))"},
      {u"$a or $b and 1 + 2 = 3",
       "(or (var a) (and (var b) (= (+ (number 1) (number 2)) (number 3))))"},
      {u"(1 = 2, 1 != 2, 1 < 2, 1 <= 2, 1 > 2, 1 >= 2)",
       "(seq (= (number 1) (number 2)) (!= (number 1) (number 2)) (< (number 1) (number 2)) (<= "
       "(number 1) (number 2)) (> (number 1) (number 2)) (>= (number 1) (number 2)))"},
      {u"(1 eq 2, 1 ne 2, 1 lt 2, 1 le 2, 1 gt 2, 1 ge 2)",
       "(seq (eq (number 1) (number 2)) (ne (number 1) (number 2)) (lt (number 1) (number 2)) "
       "(le (number 1) (number 2)) (gt (number 1) (number 2)) (ge (number 1) (number 2)))"},
      {u"($a is $b, $a << $b, $a >> $b)",
       "(seq (is (var a) (var b)) (<< (var a) (var b)) (>> (var a) (var b)))"},
      {u"a union b intersect c except d",
       "(union (path (step child a)) (except (intersect (path (step child b)) (path (step child "
       "c))) (path (step child d))))"},
      {u"2 * a | b", "(* (number 2) (union (path (step child a)) (path (step child b))))"},
      {u"1 - (2 - 3)", "(- (number 1) (- (number 2) (number 3)))"},
      {u"if (1, 2) then () else if (3) then 4 else 5",
       "(if (seq (number 1) (number 2)) (seq) (if (number 3) (number 4) (number 5)))"},
      {u"for $x in 1 to 2, $y in $x return $x * $y",
       "(for $x (to (number 1) (number 2)) (for $y (var x) (* (var x) (var y))))"},
      {u"some $x in a satisfies $x = 1", "(some $x (path (step child a)) (= (var x) (number 1)))"},
      {u"every $x in a, $y in b satisfies $x eq $y",
       "(every $x (path (step child a)) (every $y (path (step child b)) (eq (var x) (var "
       "y))))"},
      {u"for $x in a return $x, 2", "(seq (for $x (path (step child a)) (var x)) (number 2))"},
  });
}

TEST(XPathParserTest, SequenceTypes) {
  ExpectTrees({
      {u"($x instance of xs:integer, $x instance of item()?, $x instance of node()*, $x "
       u"instance of text()+, $x instance of empty-sequence())",
       "(seq (instance-of (var x) xs:integer) (instance-of (var x) item()?) (instance-of (var "
       "x) node()*) (instance-of (var x) text()+) (instance-of (var x) empty-sequence()))"},
      {u". treat as document-node(element(*, p:T?))*",
       "(treat-as (context) document-node(element(*, p:T?))*)"},
      {u"a castable as p:t", "(castable-as (path (step child a)) p:t)"},
      // Each binds tighter than the last, and all tighter than intersect, looser than signs.
      {u"-$v cast as t1 castable as t2 treat as t3 instance of t4",
       "(instance-of (treat-as (castable-as (cast-as (neg (var v)) t1) t2) t3) t4)"},
      {u"a intersect b instance of node()*",
       "(intersect (path (step child a)) (instance-of (path (step child b)) node()*))"},
      {u"1 + 2 instance of xs:integer", "(+ (number 1) (instance-of (number 2) xs:integer))"},
      // `?`, `*` and `+` after a sequence type belong to it; an operator may follow them.
      {u"4 treat as item() + - 5", "(- (treat-as (number 4) item()+) (number 5))"},
      {u"$x instance of xs:integer* * 2", "(* (instance-of (var x) xs:integer*) (number 2))"},
      {u"$x instance of item()+ and $y", "(and (instance-of (var x) item()+) (var y))"},
      {u"$x instance of xs:integer - 1", "(- (instance-of (var x) xs:integer) (number 1))"},
      // A cast type takes only `?`: the `*` after it multiplies.
      {u"1 cast as xs:integer * 2", "(* (cast-as (number 1) xs:integer) (number 2))"},
      {u"1 cast as xs:integer? div 2", "(div (cast-as (number 1) xs:integer?) (number 2))"},
      {u"(1 instance of item())*2", "(* (instance-of (number 1) item()) (number 2))"},
  });
}

TEST(XPathParserTest, LexicalDisambiguation) {
  ExpectTrees({
      {u"* * *", "(* (path (step child *)) (path (step child *)))"},
      {u"div div div", "(div (path (step child div)) (path (step child div)))"},
      {u"@div", "(path (step attribute div))"},
      {u"a[div]", "(path (step child a (pred (path (step child div)))))"},
      {u"f(*, eq)", "(call f (path (step child *)) (path (step child eq)))"},
      {u"a-b", "(path (step child a-b))"},
      {u"a - b", "(- (path (step child a)) (path (step child b)))"},
      {u"for/if", "(path (step child for) (step child if))"},
      {u"2*3", "(* (number 2) (number 3))"},
      {u"(/) * 2", "(* (path /) (number 2))"},
      {u"last ()", "(call last)"},
      {u"text ()", "(path (step child text()))"},
      // The type operators are two words, each a name alone.
      {u"cast cast as cast", "(cast-as (path (step child cast)) cast)"},
      {u"treat/castable", "(path (step child treat) (step child castable))"},
      {u"5 instance (: of? :) of element", "(instance-of (number 5) element)"},
      {u"a treat as item()*(: :)", "(treat-as (path (step child a)) item()*)"},
  });
}

TEST(XPathParserTest, LiteralsNumbersAndComments) {
  ExpectTrees({
      {u"'it''s'", "(literal \"it's\")"},
      {u"\"say \"\"hi\"\"\"", "(literal \"say \\\"hi\\\"\")"},
      {u"'a\"b'", "(literal \"a\\\"b\")"},
      {u"''", "(literal \"\")"},
      {u"(12, 1.5, .5, 2., 1e3, 1.5E-2)",
       "(seq (number 12) (number 1.5) (number .5) (number 2.) (number 1e3) (number 1.5E-2))"},
      {u"1 (: one :) + (: two (: nested :) :) 2", "(+ (number 1) (number 2))"},
      {u"(: leading :) a", "(path (step child a))"},
      {u"$ x", "(var x)"},
      {u"élève/中", "(path (step child élève) (step child 中))"},
  });

  struct NumberCase {
    std::u16string expression;
    double value;
    NumberForm form;
  };
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<NumberCase> cases = {
      {u"42", 42, NumberForm::Integer},
      {u"1" + std::u16string(400, u'0'), inf, NumberForm::Integer},
      {u".5", 0.5, NumberForm::Decimal},
      {u"2.", 2, NumberForm::Decimal},
      {u"2.5e2", 250, NumberForm::Double},
      {u"1e400", inf, NumberForm::Double},
      {u"1e-400", 0, NumberForm::Double},
      {u"0.0001e400", inf, NumberForm::Double},
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
      {u"(a", 2, "expected ')', found end of expression at offset 2"},
      {u"a)", 1, "unexpected ')' at offset 1"},
      {u"a[1)", 3, "expected ']', found ')' at offset 3"},
      {u"f(1,", 4, "unexpected end of expression at offset 4"},
      {u"a/", 2, "unexpected end of expression at offset 2"},
      {u"sideways::a", 0, "unknown axis at offset 0"},
      {u"$1", 1, "expected a variable name after '$' at offset 1"},
      {u"'abc", 0, "unterminated string literal at offset 0"},
      {u"1 (: open (: :)", 2, "unterminated comment at offset 2"},
      {u"1e", 1, "exponent without digits at offset 1"},
      {u"1.0foo", 3, "a name directly after a number at offset 3"},
      {u"10div 3", 2, "a name directly after a number at offset 2"},
      {u"a # b", 2, "unexpected character at offset 2"},
      {u"1 ? 2", 2, "unexpected '?' at offset 2"},
      // After "/" a "*" is a name test: the lone slash must be parenthesised.
      {u"/ * 2", 4, "unexpected number at offset 4"},
      {u"a b", 2, "expected an operator at offset 2"},
      {u"a cast b", 2, "expected an operator at offset 2"},
      {u"child::f(1)", 7, "expected a node test, found function name at offset 7"},
      {u"if (1) then 2", 13, "expected 'else', found end of expression at offset 13"},
      {u"for $x in a", 11, "expected 'return', found end of expression at offset 11"},
      // Comparisons, ranges and type operators do not chain.
      {u"1 to 2 to 3", 7, "unexpected 'to' at offset 7"},
      {u"1 < 2 = 2 < 3", 6, "unexpected '=' at offset 6"},
      {u"1 eq 2 ne 3", 7, "unexpected 'ne' at offset 7"},
      {u"1 cast as t cast as t", 12, "unexpected 'cast as' at offset 12"},
      {u"$x instance of t instance of t", 17, "unexpected 'instance of' at offset 17"},
      // Sequence types.
      {u"$x instance of", 14, "expected a type name, found end of expression at offset 14"},
      {u"$x instance of t + 1", 19, "unexpected number at offset 19"},
      {u"$x instance of empty-sequence()?", 31,
       "empty-sequence() takes no occurrence indicator at offset 31"},
      {u"$x cast as item()", 11, "expected a type name, found kind test at offset 11"},
      {u"$x cast as t+", 13, "unexpected end of expression at offset 13"},
      // Kind tests, and the names that the grammar reserves.
      {u"processing-instruction(p:a)", 23, "expected ')', found name at offset 23"},
      {u"element(p:*)", 8, "expected ')', found name at offset 8"},
      {u"attribute(a, t?)", 14, "expected ')', found '?' at offset 14"},
      {u"document-node(*)", 14, "expected ')', found name at offset 14"},
      {u"document-node(text())", 14, "expected ')', found kind test at offset 14"},
      {u"schema-element(*)", 15, "expected a type name, found name at offset 15"},
      {u"schema-attribute('a')", 17, "expected a type name, found string literal at offset 17"},
      {u"item()", 0, "item() is not a node test at offset 0"},
      {u"a/empty-sequence()", 2, "empty-sequence() is not a node test at offset 2"},
      {u"typeswitch(1)", 0, "'typeswitch' is not a function at offset 0"},
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

TEST(XPathParserTest, NodesKeepTheirParts) {
  const auto tree = Parse(u"a[@id = $v]/f(  'x')");
  ASSERT_EQ(tree->kind, NodeKind::Path);
  EXPECT_EQ(tree->children[0]->offset, 0u);
  const Node& equal = *tree->children[0]->predicates[0];
  EXPECT_EQ(equal.children[0]->offset, 2u);
  EXPECT_EQ(equal.children[1]->offset, 8u);
  EXPECT_EQ(tree->children[1]->offset, 12u);
  EXPECT_EQ(tree->children[1]->children[0]->offset, 16u);

  // The printed forms show the rest, but not which flags stand for what is printed.
  const auto treat = Parse(u" $x treat as document-node(element(p:a, t:T?))*");
  ASSERT_EQ(treat->kind, NodeKind::TreatAs);
  EXPECT_EQ(treat->offset, 1u);
  const NodeTest& element = *treat->type.test.element;
  EXPECT_TRUE(element.hasName && element.hasType && element.nillable);
  EXPECT_EQ(element.typeName.prefix + u"|" + element.typeName.local, u"t|T");
  const NodeTest any = Parse(u"element(*)")->children[0]->test;
  EXPECT_FALSE(any.hasName || any.hasType || any.nillable);
}

}  // namespace
}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
