// The XPath evaluator: the XPath 2.0 expressions hosts write, axes and document order, static
// and type errors, and hostile input (deep nesting, huge ranges and values, large and deep
// documents).
#include "xml/xpath/XPathEvaluator.h"

#include <veskan/Globals.h>
#include <veskan/XmlSchema.h>

#include <gtest/gtest.h>

#include <string>

namespace Veskan {
namespace Detail {
namespace XPath {
namespace {

// Whitespace-free, so positions count elements only.
constexpr char16_t QuizText[] =
    u"<quiz xmlns:v=\"urn:v\" xml:lang=\"en\">"
    u"<q id=\"1\" points=\"3\"><t>Paris</t><a ok=\"true\">A</a><a>B</a></q>"
    u"<q id=\"2\" points=\"5\"><t>Lyon</t><a>C</a><a ok=\"true\">D</a></q>"
    u"<v:meta v:k=\"x\">m<!--c--><?pi data?></v:meta>"
    u"</quiz>";

std::string Utf8(const std::u16string& text) {
  return StringBuffer(text.c_str(), static_cast<int>(text.size())).ToUTF8();
}

// Nodes by kind and name (an element with a text child also by that text: "a(B)"), atomic
// values by their string, all joined by ", ".
std::string Render(const Sequence& sequence) {
  std::string out;
  for (const Item& item : sequence) {
    if (!out.empty()) out += ", ";
    if (!item.IsNode()) {
      out += Utf8(ToString(item));
      continue;
    }
    const xercesc::DOMNode* node = item.node;
    switch (node->getNodeType()) {
      case xercesc::DOMNode::ATTRIBUTE_NODE:
        out += "@" + Utf8(node->getNodeName());
        break;
      case xercesc::DOMNode::TEXT_NODE:
        out += "text(" + Utf8(node->getNodeValue()) + ")";
        break;
      case xercesc::DOMNode::COMMENT_NODE:
        out += "comment()";
        break;
      case xercesc::DOMNode::PROCESSING_INSTRUCTION_NODE:
        out += "pi(" + Utf8(node->getNodeName()) + ")";
        break;
      case xercesc::DOMNode::DOCUMENT_NODE:
        out += "/";
        break;
      default: {
        out += Utf8(node->getNodeName());
        const xercesc::DOMNode* child = node->getFirstChild();
        if (child && !child->getNextSibling() &&
            child->getNodeType() == xercesc::DOMNode::TEXT_NODE) {
          out += "(" + Utf8(child->getNodeValue()) + ")";
        }
      }
    }
  }
  return out;
}

class XPathEvaluatorTest : public ::testing::Test {
 protected:
  // The result rendered, or "error " and the error's message.
  std::string Eval(const char16_t* expression, xercesc::DOMNode* context = nullptr) {
    try {
      CompiledExpression compiled(expression, namespaces_);
      return Render(compiled.Evaluate(context ? context : doc_->DocumentNode()));
    } catch (const XPathError& error) {
      return "error " + Utf8(error.getMessage());
    }
  }

  // The error's code, and its message in UTF-8 after a colon.
  std::string Error(const char16_t* expression) {
    try {
      CompiledExpression compiled(expression, namespaces_);
      compiled.Evaluate(doc_->DocumentNode());
    } catch (const XPathError& error) {
      return std::to_string(error.code) + ": " + Utf8(error.getMessage());
    }
    return "no error";
  }

  Globals globals_;
  XPathVariables namespaces_{u"v",   u"urn:v",
                             u"fn",  FunctionsNamespace.data(),
                             u"xs",  u"http://www.w3.org/2001/XMLSchema",
                             nullptr};
  std::shared_ptr<XmlDocument> doc_ = XmlSchema::NewDoc(QuizText);
};

TEST_F(XPathEvaluatorTest, PathsAxesAndPredicates) {
  const std::pair<const char16_t*, const char*> cases[] = {
      {u"/quiz/q/t", "t(Paris), t(Lyon)"},
      {u"//a[@ok]", "a(A), a(D)"},
      {u"//q[@points > 4]/t", "t(Lyon)"},
      {u"//a[. = ('B', 'C')]", "a(B), a(C)"},
      // Positions count per parent for //a[1], over the whole set for (//a)[1].
      {u"//a[1]", "a(A), a(C)"},
      {u"(//a)[1]", "a(A)"},
      {u"//a[last()]", "a(B), a(D)"},
      {u"//q/a[position() = 2]", "a(B), a(D)"},
      {u"//q[a[2][@ok]]/t", "t(Lyon)"},
      // Reverse axes count from the context node outwards, results come in document order.
      {u"//a[@ok][1]/preceding-sibling::*[1]", "t(Paris), a(C)"},
      {u"(//a)[4]/preceding::*[1]", "a(C)"},
      {u"(//a)[4]/preceding::*", "q, t(Paris), a(A), a(B), t(Lyon), a(C)"},
      {u"(//a)[4]/ancestor::*", "quiz, q"},
      {u"(//a)[4]/ancestor-or-self::*[last()]", "quiz"},
      {u"//t[1]/following::*", "a(A), a(B), q, t(Lyon), a(C), a(D), v:meta"},
      {u"//q[2]/t/following::*", "a(C), a(D), v:meta"},
      {u"//q[1]/following-sibling::node()", "q, v:meta"},
      {u"//@ok/following::*[1]", "a(B), v:meta"},
      {u"//q//a/..", "q, q"},
      {u"//a/ancestor::node()", "/, quiz, q, q"},
      {u"//v:meta/node()", "text(m), comment(), pi(pi)"},
      {u"//processing-instruction('pi')", "pi(pi)"},
      {u"//processing-instruction('other')", ""},
      {u"//comment()/self::node()", "comment()"},
      {u"//v:meta/@*", "@v:k"},
      {u"//v:*", "v:meta"},
      {u"//*:meta", "v:meta"},
      {u"//@*", "@xml:lang, @id, @points, @ok, @id, @points, @ok, @v:k"},
      {u"/quiz/@xml:lang", "@xml:lang"},
      {u"count(//v:meta/namespace::*)", "1"},
      {u"//q/(t | a)[1]", "t(Paris), t(Lyon)"},
      {u"//q/string(@id)", "1, 2"},
      {u"/", "/"},
      {u"//q[1]/descendant-or-self::*", "q, t(Paris), a(A), a(B)"},
  };
  for (const auto& [expression, expected] : cases) {
    EXPECT_EQ(Eval(expression), expected) << Utf8(expression);
  }
}

TEST_F(XPathEvaluatorTest, SequencesComparisonsAndBindings) {
  const std::pair<const char16_t*, const char*> cases[] = {
      {u"(1, 2, 3)", "1, 2, 3"},
      {u"()", ""},
      {u"1 to 3", "1, 2, 3"},
      {u"3 to 1", ""},
      {u"for $q in //q return string($q/@id)", "1, 2"},
      {u"for $x in 1 to 3, $y in (10, 20) return $x * $y", "10, 20, 20, 40, 30, 60"},
      {u"for $x in (1, 2) return for $x in ($x * 10) return $x + 1", "11, 21"},
      {u"some $q in //q satisfies $q/@points > 4", "true"},
      {u"every $q in //q satisfies $q/@points > 4", "false"},
      {u"every $q in () satisfies false()", "true"},
      {u"if (count(//q) = 2) then 'two' else 'other'", "two"},
      {u"if (()) then 1 else 2", "2"},
      {u"//q[1] is //q[@id = '1']", "true"},
      {u"//q[1] << //q[2]", "true"},
      {u"//q[1] >> //q[2]", "false"},
      {u"//q[1]/@id << //q[1]/t", "true"},
      {u"//q[1] is ()", ""},
      {u"//q[1]/@points eq '3'", "true"},
      {u"'abc' lt 'abd'", "true"},
      {u"() eq 1", ""},
      {u"(//a | //t) except //a[@ok]", "t(Paris), a(B), t(Lyon), a(C)"},
      {u"//a intersect //q[2]/*", "a(C), a(D)"},
      {u"count(//a union //t)", "6"},
      {u"//t | //q[1]", "q, t(Paris), t(Lyon)"},
      {u"7 idiv 2", "3"},
      {u"-7 idiv 2", "-3"},
      {u"7 mod -3", "1"},
      {u"-(-(3))", "3"},
      {u"--3", "3"},
      {u"1 = (2, 1)", "true"},
      {u"(1, 2) != (1, 2)", "true"},
      {u"//q/@points = 5", "true"},
      {u"//q/@points < //q/@id", "false"},
      {u"true() = xs:untypedAtomic('1')", "true"},
      {u"//nothing = false()", "false"},
      {u"fn:count(//q)", "2"},
  };
  for (const auto& [expression, expected] : cases) {
    EXPECT_EQ(Eval(expression), expected) << Utf8(expression);
  }
}

TEST_F(XPathEvaluatorTest, StaticAndTypeErrorsNameTheirCause) {
  const std::pair<const char16_t*, const char*> cases[] = {
      {u"//q[", "51: XPST0003: Syntax error at offset"},
      {u"//w:q", "51: XPST0081: The prefix \"w\" at offset"},
      {u"nosuch(1)", "51: XPST0017: The function nosuch() is not known."},
      {u"w:count(1)", "51: XPST0081: The prefix \"w\""},
      {u"count()", "51: XPST0017: The function count() does not take 0 arguments."},
      {u"$undefined", "51: XPST0008: The variable $undefined is not defined."},
      {u"//q eq 1", "52: XPTY0004: The operand of a value comparison must be a single item"},
      {u"'a' eq 1", "52: XPTY0004: Comparison is not defined for xs:string and xs:integer."},
      {u"1 idiv 0", "52: FOAR0001: Division of 1 by zero."},
      {u"(1, 2)/a", "52: XPTY0019: A path starts from values that are not nodes."},
      {u"//q/(1)/a", "52: XPTY0018: A path step gave values that are not nodes."},
      {u"1 | 2", "52: XPTY0004: union, intersect and except take nodes only."},
      {u"//q is //a", "52: XPTY0004: A node comparison needs a single node on each side."},
      {u"if ((1, 2)) then 1 else 0", "52: FORG0006: "},
      {u"1 to 5000000",
       "52: XPDY0130: The expression builds a sequence of more than 4194304 items."},
      {u"count(9223372036854775807 to 9223372036854775808)", "no error"},
      // Catastrophic backtracking ends at the match engine's step limit.
      {u"matches('aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa!', '^(a+)+$')",
       "52: FORX0002: The regular expression \"^(a+)+$\" could not be matched: U_REGEX_TIME_OUT."},
  };
  for (const auto& [expression, expected] : cases) {
    const std::string error = Error(expression);
    EXPECT_EQ(error.rfind(expected, 0), 0u) << Utf8(expression) << " gave " << error;
  }
  // Without a context item, paths and '.' are type errors rather than crashes.
  CompiledExpression dot(u".", namespaces_);
  EXPECT_THROW(dot.Evaluate(nullptr), XPathError);
  CompiledExpression path(u"a/b", namespaces_);
  EXPECT_THROW(path.Evaluate(nullptr), XPathError);
  EXPECT_EQ(Render(CompiledExpression(u"1 + 1", namespaces_).Evaluate(nullptr)), "2");
}

TEST_F(XPathEvaluatorTest, HostileExpressionsEndInErrorsNotCrashes) {
  const std::u16string parentheses =
      std::u16string(10000, u'(') + u"1" + std::u16string(10000, u')');
  EXPECT_EQ(Error(parentheses.c_str()).rfind("51: XPST0003: Syntax error", 0), 0u);

  // Long operator chains fold in a loop: no recursion per operator.
  std::u16string sum = u"1";
  for (int i = 0; i < 3000; ++i)
    sum += u" + 1";
  EXPECT_EQ(Eval(sum.c_str()), "3001");
  std::u16string minus(3000, u'-');
  EXPECT_EQ(Eval((minus + u"2").c_str()), "2");

  std::u16string huge(401, u'0');
  huge[0] = u'1';
  EXPECT_EQ(Eval((huge + u" > 1").c_str()), "true");
  // Integers are exact however long: the product has 801 digits.
  EXPECT_EQ(Eval((u"-" + huge + u" * " + huge).c_str()), "-1" + std::string(800, '0'));
  EXPECT_EQ(Eval((u"-" + huge + u"e0 * " + huge).c_str()), "-INF");
  EXPECT_EQ(Eval(u"0.0000000000000000000000000000000000000000000001 > 0"), "true");

  // Values are limited in size as sequences are in length: squaring again and again, and
  // strings of eight copies of eight copies of ..., end in errors rather than exhausting memory.
  const auto name = [](const char16_t* prefix, int i) {
    std::u16string text(prefix);
    text += MessageText(std::to_string(i));
    return text;
  };
  std::u16string squares = u"for $n0 in 99999999999999999999 return ";
  for (int i = 1; i < 24; ++i) {
    const std::u16string previous = name(u"$n", i - 1);
    squares += u"for " + name(u"$n", i) + u" in " + previous + u" * " + previous + u" return ";
  }
  EXPECT_EQ(Error((squares + u"$n23").c_str()),
            "52: FOAR0002: The product has more than 67108864 digits.");
  // $sN holds 16 * 8^N characters.
  const auto copies = [&name](int levels) {
    std::u16string text = u"for $s0 in '0123456789abcdef' return ";
    for (int i = 1; i <= levels; ++i) {
      std::u16string arguments = name(u"$s", i - 1);
      for (int k = 1; k < 8; ++k)
        arguments += u", " + name(u"$s", i - 1);
      text += u"for " + name(u"$s", i) + u" in concat(" + arguments + u") return ";
    }
    return text;
  };
  const std::string tooLong =
      "52: XPDY0130: The expression builds values of more than 67108864 characters.";
  EXPECT_EQ(Eval((copies(6) + u"string-length($s6)").c_str()), "4194304");
  EXPECT_EQ(Error((copies(8) + u"string-length($s8)").c_str()), tooLong);
  EXPECT_EQ(Error((copies(6) + u"count(for $i in 1 to 100 return $s6)").c_str()), tooLong);
  EXPECT_EQ(Error((copies(6) + u"string-join(for $i in 1 to 1000 return '', $s6)").c_str()),
            tooLong);
  // Each sequence within its limits, but every level of nesting holding one more.
  std::u16string fifteen = u"$s6";
  for (int i = 1; i < 15; ++i)
    fifteen += u", $s6";
  EXPECT_EQ(Error((copies(6) + u"count(for $x in (" + fifteen + u") return for $y in (" + fifteen +
                   u") return for $z in (" + fifteen + u") return 1)")
                      .c_str()),
            "52: XPDY0130: The expression holds values of more than 134217728 characters at "
            "once.");
}

TEST_F(XPathEvaluatorTest, LargeAndDeepDocuments) {
  // A million elements: paths and counts stay linear.
  std::u16string wide = u"<r>";
  wide.reserve(6000020);
  for (int i = 0; i < 1000000; ++i)
    wide += u"<e/>";
  wide += u"</r>";
  const auto big = XmlSchema::NewDoc(wide.c_str());
  wide.clear();
  wide.shrink_to_fit();
  EXPECT_EQ(Eval(u"count(//e)", big->DocumentNode()), "1000000");
  EXPECT_EQ(Eval(u"count(/r/e[position() mod 2 = 0])", big->DocumentNode()), "500000");
  EXPECT_EQ(Eval(u"count(//e[last()]/preceding-sibling::e)", big->DocumentNode()), "999999");
  EXPECT_EQ(Eval(u"count((//e)[last()] | (//e)[1])", big->DocumentNode()), "2");

  // As deep as documents may nest.
  std::u16string deep;
  for (int i = 0; i < 500; ++i)
    deep += u"<d>";
  deep += u"x";
  for (int i = 0; i < 500; ++i)
    deep += u"</d>";
  const auto tall = XmlSchema::NewDoc(deep.c_str());
  ASSERT_NE(tall->DocumentNode(), nullptr);
  EXPECT_EQ(Eval(u"count(//d)", tall->DocumentNode()), "500");
  EXPECT_EQ(Eval(u"count(//d[not(d)]/ancestor::*)", tall->DocumentNode()), "499");
  EXPECT_EQ(Eval(u"count(//text()/ancestor::d | (//d)[5]//d)", tall->DocumentNode()), "500");
  EXPECT_EQ(Eval(u"count(//text()/preceding::node())", tall->DocumentNode()), "0");
  EXPECT_EQ(Eval(u"string(/)", tall->DocumentNode()), "x");
}

TEST_F(XPathEvaluatorTest, DocumentOrderSortsLargeAndSmallSetsAlike) {
  // The same union sorted by comparing ancestor chains (few nodes) and by numbering the tree
  // (many nodes) must agree.
  std::u16string text = u"<r>";
  for (int i = 0; i < 100; ++i)
    text += u"<s n=\"" + std::u16string(1, u'a' + i % 26) + u"\"><t/></s>";
  text += u"</r>";
  const auto doc = XmlSchema::NewDoc(text.c_str());
  const std::string few = Eval(u"//s[5]/t | //s[3]/@n | //s[3]", doc->DocumentNode());
  EXPECT_EQ(few, "s, @n, t");
  EXPECT_EQ(Eval(u"count(//t | //s | //@n)", doc->DocumentNode()), "300");
  EXPECT_EQ(Eval(u"(//t | //s | //@n)[position() <= 4]", doc->DocumentNode()), "s, @n, t, s");
  EXPECT_EQ(Eval(u"(//t | //s)[last()]", doc->DocumentNode()), "t");
}

}  // namespace
}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
