// XPathExpression: variable substitution and its literals, namespace tables, the recorded
// errors, result access; and the XmlSchema operations built on it.
#include <veskan/XPathExpression.h>

#include <gtest/gtest.h>

#include <string>

namespace Veskan {
namespace {

std::shared_ptr<XmlDocument> Quiz() {
  return XmlSchema::NewDoc(
      u"<quiz xmlns:veskan=\"http://www.calvorco.com/2008/veskan/\" xmlns:x=\"urn:x\">"
      u"<question xml:id=\"q1\" kind=\"single\"><title>One</title></question>"
      u"<question xml:id=\"O'Brien\" kind=\"multi\"><title>Two</title>"
      u"<section><answer xml:id=\"deep\" kind=\"single\"/></section></question>"
      u"<veskan:note>n</veskan:note><x:extra/>"
      u"</quiz>");
}

std::string Utf8(const StringBuffer& text) {
  return text.ToUTF8();
}

TEST(XPathExpressionTest, LiteralsQuoteByTheKindsOfQuoteInside) {
  EXPECT_EQ(XPathExpression::Literal(nullptr), u"''");
  EXPECT_EQ(XPathExpression::Literal(u""), u"''");
  EXPECT_EQ(XPathExpression::Literal(u"plain"), u"'plain'");
  EXPECT_EQ(XPathExpression::Literal(u"say \"hi\""), u"'say \"hi\"'");
  EXPECT_EQ(XPathExpression::Literal(u"O'Brien"), u"\"O'Brien\"");
  EXPECT_EQ(XPathExpression::Literal(u"it's \"x\""), u"'it&apos;s \"x\"'");
}

TEST(XPathExpressionTest, VariablesAreSubstitutedAsText) {
  const auto doc = Quiz();
  const XPathExpression byId(doc, u"//question[@xml:id = $id]/title",
                             XPathVariables(u"id", u"O'Brien", nullptr));
  EXPECT_EQ(Utf8(byId.Expression()), "//question[@xml:id = \"O'Brien\"]/title");
  ASSERT_EQ(byId.Count(), 1);
  EXPECT_EQ(Utf8(StringBuffer(byId[0]->getTextContent())), "Two");

  // Every occurrence is replaced; a value holding "$name" is not substituted again.
  const XPathExpression twice(doc, u"//question[@kind = $k or @kind = $k]",
                              XPathVariables(u"k", u"$other", u"other", u"single", nullptr));
  EXPECT_EQ(Utf8(twice.Expression()), "//question[@kind = '$other' or @kind = '$other']");
  EXPECT_EQ(twice.Count(), 0);
  EXPECT_EQ(Utf8(twice.ErrorCode()), "");

  // Text substitution: a key that begins a longer name replaces that name's start.
  const XPathExpression collide(doc, u"//question[@kind = $kind]",
                                XPathVariables(u"k", u"single", u"kind", u"multi", nullptr));
  EXPECT_EQ(Utf8(collide.Expression()), "//question[@kind = 'single'ind]");
  EXPECT_EQ(collide.Count(), 0);
  EXPECT_EQ(Utf8(collide.ErrorCode()), "51 (DOMXPathException)");
}

TEST(XPathExpressionTest, ErrorsAreRecordedNotThrown) {
  const auto doc = Quiz();
  const XPathExpression noNode(static_cast<xercesc::DOMNode*>(nullptr), u"//question");
  EXPECT_EQ(noNode.Count(), 0);
  EXPECT_EQ(Utf8(noNode.ErrorCode()), "##unknown error##");
  EXPECT_EQ(Utf8(noNode.ErrorMessage()),
            "Context node provided is null or not owned by a document.");
  const XPathExpression noDocument(std::shared_ptr<XmlDocument>(), u"//question");
  EXPECT_EQ(Utf8(noDocument.ErrorCode()), "##unknown error##");

  const XPathExpression syntax(doc, u"//question[");
  EXPECT_EQ(syntax.Count(), 0);
  EXPECT_EQ(syntax[0], nullptr);
  EXPECT_EQ(Utf8(syntax.ErrorCode()), "51 (DOMXPathException)");
  EXPECT_NE(Utf8(syntax.ErrorMessage()).find("offset 11"), std::string::npos)
      << Utf8(syntax.ErrorMessage());

  const XPathExpression type(doc, u"//question eq 1");
  EXPECT_EQ(Utf8(type.ErrorCode()), "52 (DOMXPathException)");
  EXPECT_FALSE(Utf8(type.ErrorMessage()).empty());

  const XPathExpression tooLong(doc, std::u16string((1 << 20) + 1, u' ').c_str());
  EXPECT_EQ(Utf8(tooLong.ErrorCode()), "51 (DOMXPathException)");

  // A null expression is an empty one: a syntax error, not a crash.
  const XPathExpression null(doc, nullptr);
  EXPECT_EQ(Utf8(null.ErrorCode()), "51 (DOMXPathException)");
}

TEST(XPathExpressionTest, ResultsNamespacesAndCopies) {
  const auto doc = Quiz();
  const XPathExpression questions(doc, u"//question/@kind | //question");
  ASSERT_EQ(questions.Count(), 4);
  EXPECT_EQ(questions[-1], nullptr);
  EXPECT_EQ(questions[4], nullptr);
  EXPECT_EQ(questions[1]->getNodeType(), xercesc::DOMNode::ATTRIBUTE_NODE);
  EXPECT_EQ(static_cast<xercesc::DOMElement*>(questions), questions[0]);

  const XPathExpression attribute(doc, u"//@kind");
  EXPECT_EQ(static_cast<xercesc::DOMElement*>(attribute), nullptr);

  // Atomic results are left out without error.
  const XPathExpression count(doc, u"count(//question)");
  EXPECT_EQ(count.Count(), 0);
  EXPECT_EQ(Utf8(count.ErrorCode()), "");

  // Prefixes resolve through the document element's declarations, then the table, which wins;
  // the table's empty prefix is the default namespace of element names, not of attributes.
  EXPECT_EQ(XPathExpression(doc, u"//veskan:note").Count(), 1);
  EXPECT_EQ(XPathExpression(doc, u"//x:extra").Count(), 1);
  EXPECT_EQ(Utf8(XPathExpression(doc, u"//z:extra").ErrorCode()), "51 (DOMXPathException)");
  const XPathVariables other(u"y", u"urn:x", u"x", u"urn:other", nullptr);
  EXPECT_EQ(XPathExpression(doc, u"//y:extra", XPathVariables::Empty, other).Count(), 1);
  EXPECT_EQ(XPathExpression(doc, u"//x:extra", XPathVariables::Empty, other).Count(), 0);
  const XPathVariables byDefault(u"", u"urn:x", nullptr);
  EXPECT_EQ(XPathExpression(doc, u"//extra", XPathVariables::Empty, byDefault).Count(), 1);
  EXPECT_EQ(XPathExpression(doc, u"//question", XPathVariables::Empty, byDefault).Count(), 0);
  EXPECT_EQ(XPathExpression(doc, u"//*:question/@kind", XPathVariables::Empty, byDefault).Count(),
            2);
  EXPECT_EQ(Utf8(XPathExpression(doc, u"fn:upper-case('a')").ErrorCode()), "");

  // From an element, relative paths start there.
  const XPathExpression second(questions[2], u"section/answer");
  EXPECT_EQ(second.Count(), 1);

  XPathExpression copy = questions;
  EXPECT_EQ(copy.Count(), 4);
  EXPECT_EQ(copy[3], questions[3]);
  copy = XPathExpression(doc, u"//title[. = 'One']");
  EXPECT_EQ(copy.Count(), 1);
}

TEST(XPathExpressionTest, SchemaOperationsBuiltOnExpressions) {
  const auto doc = Quiz();
  const xercesc::DOMElement* deep = XmlSchema::GetElementById(doc, u"deep");
  ASSERT_NE(deep, nullptr);
  EXPECT_EQ(Utf8(StringBuffer(deep->getLocalName())), "answer");
  EXPECT_EQ(XmlSchema::GetElementById(XmlSchema::DocumentElement(doc), u"O'Brien"),
            XPathExpression(doc, u"/quiz/question[2]")[0]);
  EXPECT_EQ(XmlSchema::GetElementById(doc, u"absent"), nullptr);
  EXPECT_EQ(XmlSchema::GetElementById(doc, nullptr), nullptr);
  EXPECT_EQ(XmlSchema::GetElementById(std::shared_ptr<XmlDocument>(), u"q1"), nullptr);

  XmlElementMap groups;
  XmlSchema::MapElementsByAttributeValue(XPathExpression(doc, u"//*[@kind] | //title"), u"kind",
                                         groups);
  ASSERT_EQ(groups.size(), 3u);
  EXPECT_EQ(groups[u"single"]->Count(), 2);
  EXPECT_EQ(groups[u"multi"]->Count(), 1);
  EXPECT_EQ(groups[u""]->Count(), 2);
}

}  // namespace
}  // namespace Veskan
