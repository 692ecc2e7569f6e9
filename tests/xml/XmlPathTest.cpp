// XmlSchema: navigation, path lookup and path creation.
#include <veskan/XmlSchema.h>

#include <gtest/gtest.h>

#include <vector>

namespace Veskan {
namespace {

constexpr char16_t QuizUri[] = u"urn:quiz";

// Both sections hold a question; only the second question has an answer, so paths through
// "section/question/answer" must go past the first section.
std::shared_ptr<XmlDocument> Quiz() {
  return XmlSchema::NewDoc(
      u"<quiz xmlns=\"urn:quiz\" xmlns:v=\"http://www.calvorco.com/2008/veskan/\">\n"
      u"  <section id=\"s1\"><question id=\"q1\"/></section>\n"
      u"  <section id=\"s2\"><question id=\"q2\"><answer/></question></section>\n"
      u"  <v:meta><v:title>Capitals</v:title></v:meta>\n"
      u"</quiz>");
}

StringBuffer Id(const xercesc::DOMElement* element) {
  return XmlSchema::GetAttribute(element, u"id", nullptr, u"(none)");
}

StringBuffer Name(const xercesc::DOMNode* node) {
  return node ? StringBuffer(node->getNodeName()) : StringBuffer(u"(null)");
}

// The quiz namespace for unprefixed names, and the defaults for the rest.
XPathVariables QuizTable() {
  return XPathVariables(Namespaces::Defaults, u"", QuizUri, nullptr);
}

TEST(XmlPathTest, FindElementBacktracksToALaterSibling) {
  const auto doc = Quiz();
  xercesc::DOMElement* answer =
      XmlSchema::FindElement(doc, u"quiz/section/question/answer", QuizUri);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(Id(static_cast<xercesc::DOMElement*>(answer->getParentNode())), u"q2");
  EXPECT_EQ(Id(XmlSchema::FindElement(doc, u"quiz/section/question", QuizUri)), u"q1");
}

TEST(XmlPathTest, StepsAreResolvedThroughTheGivenUriOrTable) {
  const auto doc = Quiz();
  struct Case {
    const char16_t* path;
    const XPathVariables& table;
    const char16_t* expected;
  };
  const XPathVariables quizTable = QuizTable();
  const std::vector<Case> cases{
      {u"quiz/section", quizTable, u"section"},
      // The document's own prefix means nothing here: the table has no "v".
      {u"quiz/v:meta/v:title", quizTable, u"(null)"},
      // The defaults have no entry for names without prefix: those are in no namespace.
      {u"quiz", Namespaces::Defaults, u"(null)"},
      // Prefixes are looked up, not compared: "veskan" names the namespace the document calls "v".
      {u"quiz/veskan:meta/veskan:title", quizTable, u"v:title"},
      {u"quiz/unknown:meta", quizTable, u"(null)"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(StringBuffer(test.path).ToUTF8());
    EXPECT_EQ(Name(XmlSchema::FindElement(doc, test.path, test.table)), test.expected);
  }
  EXPECT_EQ(Name(XmlSchema::FindElement(doc, u"quiz/section", nullptr)), u"(null)");
  EXPECT_EQ(Name(XmlSchema::FindElement(doc, u"quiz/meta", Namespaces::Uri::Veskan)), u"(null)");
}

TEST(XmlPathTest, SlashDotAndDotDotSteps) {
  const auto doc = Quiz();
  xercesc::DOMElement* answer =
      XmlSchema::FindElement(doc, u"quiz/section/question/answer", QuizUri);
  ASSERT_NE(answer, nullptr);
  struct Case {
    xercesc::DOMNode* from;
    const char16_t* path;
    const char16_t* expectedId;
  };
  const std::vector<Case> cases{
      // A leading slash starts at the document, even from deep down.
      {answer, u"/quiz/section", u"s1"},
      {doc->DocumentNode(), u"/quiz/section", u"s1"},
      // ".." goes through the parents.
      {answer, u"../../../section/question", u"q1"},
      {answer, u"..", u"q2"},
      {answer, u"../..", u"s2"},
      // "." stays; empty steps are skipped.
      {XmlSchema::DocumentElement(doc), u"./section//./question/", u"q1"},
      {answer, u"", u"(none)"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(StringBuffer(test.path).ToUTF8());
    EXPECT_EQ(Id(XmlSchema::FindElement(test.from, test.path, QuizUri)), test.expectedId);
  }
  // A step with no match, a walk above the document and a path that ends on the document.
  EXPECT_EQ(XmlSchema::FindElement(answer, u"../missing", QuizUri), nullptr);
  EXPECT_EQ(XmlSchema::FindElement(answer, u"../../../../../quiz", QuizUri), nullptr);
  EXPECT_EQ(XmlSchema::FindElement(answer, u"/", QuizUri), nullptr);
  EXPECT_EQ(XmlSchema::FindElement(static_cast<xercesc::DOMNode*>(nullptr), u"quiz", QuizUri),
            nullptr);
  EXPECT_EQ(XmlSchema::FindElement(std::shared_ptr<XmlDocument>(), u"quiz", QuizUri), nullptr);
}

TEST(XmlPathTest, GetElementCreatesOnlyTheMissingRest) {
  const auto doc = Quiz();
  xercesc::DOMElement* note = XmlSchema::GetElement(doc, u"quiz/section/note/text", QuizUri);
  ASSERT_NE(note, nullptr);
  EXPECT_EQ(Name(note), u"text");
  EXPECT_EQ(StringBuffer(note->getNamespaceURI()), QuizUri);
  // Created below the first section, which was walked into rather than created anew.
  EXPECT_EQ(Id(static_cast<xercesc::DOMElement*>(note->getParentNode()->getParentNode())), u"s1");
  EXPECT_EQ(XmlSchema::GetElementsByTagName(doc->DocumentNode(), u"section", QuizUri).Count(), 2);
  // Found the second time.
  EXPECT_EQ(XmlSchema::GetElement(doc, u"quiz/section/note/text", QuizUri), note);
  // An existing element is returned as it is.
  EXPECT_EQ(Id(XmlSchema::GetElement(doc, u"quiz/section/question", QuizUri)), u"q1");
}

TEST(XmlPathTest, CreateElementWithoutReuseAlwaysAppends) {
  const auto doc = Quiz();
  xercesc::DOMElement* quiz = XmlSchema::DocumentElement(doc);
  xercesc::DOMElement* question =
      XmlSchema::CreateElement(quiz, u"section/question", QuizUri, false);
  ASSERT_NE(question, nullptr);
  const XmlElementList sections = XmlSchema::GetElementsByTagName(quiz, u"section", QuizUri);
  ASSERT_EQ(sections.Count(), 3);
  EXPECT_EQ(question->getParentNode(), sections[2]);
  EXPECT_EQ(XmlSchema::LastChildElement(quiz), sections[2]);
}

TEST(XmlPathTest, CreateElementBuildsADocumentFromNothing) {
  const auto doc = XmlSchema::NewDoc();
  xercesc::DOMElement* question =
      XmlSchema::CreateElement(doc, u"veskan:quiz/veskan:question", Namespaces::Defaults, true);
  ASSERT_NE(question, nullptr);
  XmlSchema::SetTextContent(question, u"What is 6 x 7?");
  XmlSchema::CreateElement(doc, u"/veskan:quiz/plain", Namespaces::Defaults, true);
  EXPECT_EQ(XmlSchema::PrintDoc(doc),
            u"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n"
            u"<veskan:quiz xmlns:veskan=\"http://www.calvorco.com/2008/veskan/\">\n"
            u"\n"
            u"  <veskan:question>What is 6 x 7?</veskan:question>\n"
            u"\n"
            u"  <plain/>\n"
            u"\n"
            u"</veskan:quiz>\n");
}

TEST(XmlPathTest, NamesTheDomRefusesGiveNullAndChangeNothing) {
  const auto doc = Quiz();
  xercesc::DOMElement* quiz = XmlSchema::DocumentElement(doc);
  const StringBuffer before = XmlSchema::PrintDoc(doc);
  // A second document element.
  EXPECT_EQ(XmlSchema::CreateElement(doc, u"other", QuizUri, false), nullptr);
  EXPECT_EQ(XmlSchema::CreateElement(quiz, u"bad name", QuizUri, false), nullptr);
  EXPECT_EQ(XmlSchema::CreateElement(quiz, u"../../x", QuizUri, false), nullptr);
  EXPECT_EQ(XmlSchema::InsertNewElement(quiz, u"1st", QuizUri), nullptr);
  EXPECT_EQ(XmlSchema::PrintDoc(doc), before);
}

TEST(XmlPathTest, InsertNewElementGoesBeforeTheGivenChildOrAtTheEnd) {
  const auto doc = Quiz();
  xercesc::DOMElement* quiz = XmlSchema::DocumentElement(doc);
  xercesc::DOMElement* first = XmlSchema::FirstChildElement(quiz);
  xercesc::DOMElement* intro = XmlSchema::InsertNewElement(quiz, u"intro", QuizUri, first);
  xercesc::DOMElement* outro =
      XmlSchema::InsertNewElement(quiz, u"v:outro", Namespaces::Uri::Veskan);
  EXPECT_EQ(XmlSchema::FirstChildElement(quiz), intro);
  EXPECT_EQ(XmlSchema::NextElement(intro), first);
  EXPECT_EQ(XmlSchema::LastChildElement(quiz), outro);
  EXPECT_EQ(StringBuffer(outro->getNamespaceURI()), Namespaces::Uri::Veskan);
  EXPECT_EQ(StringBuffer(outro->getPrefix()), u"v");
}

TEST(XmlPathTest, FindElementWithAttributeValue) {
  const auto doc = Quiz();
  const XPathVariables table = QuizTable();
  xercesc::DOMNode* document = doc->DocumentNode();
  EXPECT_EQ(
      Id(XmlSchema::FindElementWithAttributeValue(document, u"/quiz/section", u"id", u"s2", table)),
      u"s2");
  EXPECT_EQ(Id(XmlSchema::FindElementWithAttributeValue(document, u"quiz/section/question", u"id",
                                                        u"q2", table)),
            u"q2");
  EXPECT_EQ(
      XmlSchema::FindElementWithAttributeValue(document, u"quiz/section", u"id", u"s3", table),
      nullptr);
  EXPECT_EQ(
      XmlSchema::FindElementWithAttributeValue(document, u"quiz/section", u"id", nullptr, table),
      nullptr);
}

TEST(XmlPathTest, NavigationSkipsWhatIsNotAnElement) {
  const auto doc = Quiz();
  xercesc::DOMElement* quiz = XmlSchema::DocumentElement(doc);
  EXPECT_EQ(XmlSchema::FirstChild(quiz)->getNodeType(), xercesc::DOMNode::TEXT_NODE);
  xercesc::DOMElement* first = XmlSchema::FirstChildElement(quiz);
  xercesc::DOMElement* last = XmlSchema::LastChildElement(quiz);
  EXPECT_EQ(Id(first), u"s1");
  EXPECT_EQ(Name(last), u"v:meta");
  EXPECT_EQ(Id(XmlSchema::NextElement(first)), u"s2");
  EXPECT_EQ(Id(XmlSchema::PreviousElement(XmlSchema::NextElement(first))), u"s1");
  EXPECT_EQ(XmlSchema::PreviousElement(first), nullptr);
  EXPECT_EQ(XmlSchema::NextElement(last), nullptr);
  EXPECT_EQ(XmlSchema::NextSibling(first)->getNodeType(), xercesc::DOMNode::TEXT_NODE);
  EXPECT_EQ(XmlSchema::PreviousSibling(XmlSchema::NextSibling(first)), first);
  EXPECT_EQ(XmlSchema::LastChild(quiz)->getNodeType(), xercesc::DOMNode::TEXT_NODE);
  EXPECT_EQ(XmlSchema::Parent(first), quiz);
  EXPECT_EQ(XmlSchema::Parent(quiz), doc->DocumentNode());
  EXPECT_TRUE(XmlSchema::HasChildren(quiz));
  EXPECT_FALSE(XmlSchema::HasChildren(XmlSchema::FirstChildElement(first)));
  EXPECT_EQ(XmlSchema::GetAllChildNodes(quiz).Count(), 7);  // four text nodes between three
  EXPECT_EQ(XmlSchema::GetAllChildElements(quiz).Count(), 3);
  EXPECT_EQ(XmlSchema::OwnerDocument(first), doc->DocumentNode());
  EXPECT_EQ(XmlSchema::OwnerDocument(doc->DocumentNode()), doc->DocumentNode());
  EXPECT_EQ(XmlSchema::DocumentElement(first), quiz);
  for (auto* nothing : {XmlSchema::FirstChild(nullptr), XmlSchema::LastChild(nullptr),
                        XmlSchema::NextSibling(nullptr), XmlSchema::PreviousSibling(nullptr),
                        XmlSchema::Parent(nullptr)})
    EXPECT_EQ(nothing, nullptr);
  EXPECT_EQ(XmlSchema::FirstChildElement(nullptr), nullptr);
  EXPECT_EQ(XmlSchema::GetAllChildNodes(nullptr).Count(), 0);
}

TEST(XmlPathTest, NodeAsGivesTheNodeOnlyForItsKind) {
  const auto doc = Quiz();
  xercesc::DOMElement* quiz = XmlSchema::DocumentElement(doc);
  xercesc::DOMNode* text = XmlSchema::FirstChild(quiz);
  xercesc::DOMNode* attribute =
      XmlSchema::GetAttributeNode(XmlSchema::FirstChildElement(quiz), u"id");
  xercesc::DOMNode* document = doc->DocumentNode();
  EXPECT_EQ(XmlSchema::NodeAsElement(quiz), quiz);
  EXPECT_EQ(XmlSchema::NodeAsElement(text), nullptr);
  EXPECT_EQ(XmlSchema::NodeAsText(text), text);
  EXPECT_EQ(XmlSchema::NodeAsText(quiz), nullptr);
  EXPECT_EQ(XmlSchema::NodeAsAttribute(attribute), attribute);
  EXPECT_EQ(XmlSchema::NodeAsAttribute(quiz), nullptr);
  EXPECT_EQ(XmlSchema::NodeAsDocument(document), document);
  EXPECT_EQ(XmlSchema::NodeAsDocument(quiz), nullptr);
  EXPECT_EQ(XmlSchema::NodeAsElement(nullptr), nullptr);
}

TEST(XmlPathTest, GetElementsByTagNameFindsDescendantsInDocumentOrder) {
  const auto doc = Quiz();
  const XmlElementList questions =
      XmlSchema::GetElementsByTagName(doc->DocumentNode(), u"question", QuizUri);
  ASSERT_EQ(questions.Count(), 2);
  EXPECT_EQ(Id(questions[0]), u"q1");
  EXPECT_EQ(Id(questions[1]), u"q2");
  const XmlElementList titles = XmlSchema::GetElementsByTagName(
      XmlSchema::DocumentElement(doc), u"veskan:title", Namespaces::Defaults);
  ASSERT_EQ(titles.Count(), 1);
  EXPECT_EQ(XmlSchema::GetTextContent(titles[0]), u"Capitals");
  EXPECT_EQ(XmlSchema::GetElementsByTagName(doc->DocumentNode(), u"question", nullptr).Count(), 0);
  // Only below the node: a section finds its own question only.
  EXPECT_EQ(
      XmlSchema::GetElementsByTagName(questions[1]->getParentNode(), u"question", QuizUri).Count(),
      1);
  EXPECT_EQ(XmlSchema::GetElementsByTagName(nullptr, u"question", QuizUri).Count(), 0);
}

}  // namespace
}  // namespace Veskan
