// XmlSchema: attributes, text, CDATA and changes to the tree.
#include <veskan/XmlSchema.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Veskan {
namespace {

std::string Bytes(const ByteBuffer& buffer) {
  return std::string(buffer, buffer.Size());
}

// The element's subtree printed compactly enough to compare: pretty-print line breaks removed.
std::u16string Markup(const xercesc::DOMNode* node) {
  std::u16string text(XmlSchema::PrintElement(node).c_str());
  std::u16string compact;
  bool lineStart = false;
  for (char16_t unit : text) {
    if (unit == u'\n') {
      lineStart = true;
      continue;
    }
    if (lineStart && unit == u' ') continue;
    lineStart = false;
    compact += unit;
  }
  return compact;
}

TEST(XmlTextTest, GetTextContentGivesTheFallbackWithoutDirectText) {
  const auto doc = XmlSchema::NewDoc(
      u"<a x=\"attr\"><only><child>deep</child></only><mixed>one<b>two</b></mixed>"
      u"<cdata><![CDATA[<raw>]]></cdata><empty/></a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  struct Case {
    const char* name;
    const xercesc::DOMNode* node;
    const char16_t* expected;
  };
  const std::vector<Case> cases{
      {"null node", nullptr, u"fallback"},
      {"only element children", XmlSchema::FindElement(a, u"only", nullptr), u"fallback"},
      {"text and elements", XmlSchema::FindElement(a, u"mixed", nullptr), u"onetwo"},
      {"CDATA", XmlSchema::FindElement(a, u"cdata", nullptr), u"<raw>"},
      {"empty element", XmlSchema::FindElement(a, u"empty", nullptr), u"fallback"},
      {"document", doc->DocumentNode(), u"fallback"},
      {"attribute", XmlSchema::GetAttributeNode(a, u"x"), u"attr"},
      {"text node", XmlSchema::FirstChild(XmlSchema::FindElement(a, u"only/child", nullptr)),
       u"deep"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(XmlSchema::GetTextContent(test.node, u"fallback"), test.expected);
  }
  EXPECT_EQ(XmlSchema::GetTextContent(nullptr), u"");
}

TEST(XmlAttributeTest, SetGetAndReplace) {
  const auto doc = XmlSchema::NewDoc(u"<a xmlns:v=\"http://www.calvorco.com/2008/veskan/\"/>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  ASSERT_NE(XmlSchema::SetAttribute(a, u"id", u"q1"), nullptr);
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"id"), u"q1");
  xercesc::DOMAttr* replaced = XmlSchema::SetAttribute(a, u"id", u"q2");
  ASSERT_NE(replaced, nullptr);
  EXPECT_EQ(StringBuffer(replaced->getValue()), u"q2");
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"missing", nullptr, u"none"), u"none");
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"missing"), u"");
  EXPECT_TRUE(XmlSchema::HasAttribute(a, u"id"));
  EXPECT_FALSE(XmlSchema::HasAttribute(a, u"missing"));
  XmlSchema::SetAttribute(a, u"empty", nullptr);
  EXPECT_TRUE(XmlSchema::HasAttribute(a, u"empty"));
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"empty", nullptr, u"fallback"), u"");

  // Namespaced attributes: by URI and local name, or by node name without URI.
  XmlSchema::SetAttribute(a, u"v:kind", u"page", Namespaces::Uri::Veskan);
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"kind", Namespaces::Uri::Veskan), u"page");
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"v:kind", Namespaces::Uri::Veskan), u"page");
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"v:kind"), u"page");
  EXPECT_FALSE(XmlSchema::HasAttribute(a, u"kind", Namespaces::Uri::Vantrel));
  // A prefix bound in scope needs no URI; so do namespace declarations.
  XmlSchema::SetAttribute(a, u"v:level", u"2");
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"level", Namespaces::Uri::Veskan), u"2");
  XmlSchema::SetAttribute(a, u"xmlns:w", Namespaces::Uri::Vantrel);
  EXPECT_EQ(StringBuffer(a->lookupNamespaceURI(u"w")), Namespaces::Uri::Vantrel);
  // The xml prefix is bound by definition.
  XmlSchema::SetAttribute(a, u"xml:id", u"root");
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"id", Namespaces::Uri::Xml), u"root");

  EXPECT_EQ(Markup(a),
            u"<a empty=\"\" id=\"q2\" xmlns:v=\"http://www.calvorco.com/2008/veskan/\" "
            u"v:kind=\"page\" v:level=\"2\" xml:id=\"root\" "
            u"xmlns:w=\"http://www.calvorco.com/2008/vantrel/\"/>");
  EXPECT_EQ(XmlSchema::GetAttributes(a).Count(), 7);
}

TEST(XmlAttributeTest, SettingAPrefixedAttributeAgainChangesTheSameAttribute) {
  const auto doc = XmlSchema::NewDoc(
      u"<a xmlns:v=\"http://www.calvorco.com/2008/veskan/\" "
      u"xmlns:w=\"http://www.calvorco.com/2008/veskan/\" v:points=\"3\"/>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  xercesc::DOMAttr* points = XmlSchema::GetAttributeNode(a, u"points", Namespaces::Uri::Veskan);
  ASSERT_NE(points, nullptr);
  EXPECT_EQ(XmlSchema::SetAttribute(a, u"v:points", u"4"), points);
  EXPECT_EQ(XmlSchema::SetAttribute(a, u"v:points", u"5", Namespaces::Uri::Veskan), points);
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"points", Namespaces::Uri::Veskan), u"5");
  EXPECT_EQ(points->getOwnerElement(), a);
  // Another prefix for the same namespace renames the attribute, as the DOM's setAttributeNS does
  // (with a new node: the old one is left detached).
  xercesc::DOMAttr* renamed = XmlSchema::SetAttribute(a, u"w:points", u"6");
  ASSERT_NE(renamed, nullptr);
  EXPECT_EQ(StringBuffer(renamed->getName()), u"w:points");
  EXPECT_EQ(Markup(a),
            u"<a xmlns:w=\"http://www.calvorco.com/2008/veskan/\" w:points=\"6\" "
            u"xmlns:v=\"http://www.calvorco.com/2008/veskan/\"/>");
  EXPECT_EQ(XmlSchema::GetAttributes(a).Count(), 3);
}

TEST(XmlAttributeTest, RefusedNamesAndNullElementsGiveNull) {
  const auto doc = XmlSchema::NewDoc(u"<a/>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  EXPECT_EQ(XmlSchema::SetAttribute(a, u"bad name", u"1"), nullptr);
  EXPECT_EQ(XmlSchema::SetAttribute(a, nullptr, u"1"), nullptr);
  EXPECT_EQ(XmlSchema::SetAttribute(a, u"p:x", u"1", nullptr), nullptr);  // unbound prefix
  EXPECT_EQ(XmlSchema::SetAttribute(a, u"p:x", u"1", u""), nullptr);
  EXPECT_EQ(XmlSchema::SetAttribute(static_cast<xercesc::DOMElement*>(nullptr), u"x", u"1"),
            nullptr);
  EXPECT_EQ(XmlSchema::GetAttributeNode(nullptr, u"x"), nullptr);
  EXPECT_EQ(XmlSchema::GetAttributes(nullptr).Count(), 0);
  EXPECT_EQ(Markup(a), u"<a/>");
}

TEST(XmlAttributeTest, TheListFormSetsEveryElement) {
  const auto doc = XmlSchema::NewDoc(u"<a><b/><c/></a>");
  XmlElementList elements = XmlSchema::GetAllChildElements(XmlSchema::DocumentElement(doc));
  elements.Add(nullptr);
  EXPECT_EQ(XmlSchema::SetAttribute(elements, u"seen", u"yes"), 2);
  EXPECT_EQ(Markup(XmlSchema::DocumentElement(doc)), u"<a><b seen=\"yes\"/><c seen=\"yes\"/></a>");
}

TEST(XmlTextTest, TextContentLeavesOutCommentsAndInstructionsAndReadsAnyDepth) {
  const auto doc = XmlSchema::NewDoc(
      u"<a>one<!-- comment --><?pi data?><b>two<![CDATA[<three>]]></b><c/>four</a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  EXPECT_EQ(XmlSchema::GetTextContent(a), u"onetwo<three>four");
  EXPECT_EQ(XmlSchema::GetTextContent(XmlSchema::FirstChild(a)->getNextSibling()), u" comment ");

  // An attribute whose value is several text nodes, as the DOM lets a program build it.
  xercesc::DOMAttr* split = XmlSchema::SetAttribute(a, u"split", u"left");
  split->appendChild(doc->DocumentNode()->createTextNode(u"+right"));
  EXPECT_EQ(XmlSchema::GetAttribute(a, u"split"), u"left+right");

  // Far deeper than any stack would take one call per level.
  xercesc::DOMElement* deepest = XmlSchema::FindElement(a, u"c", nullptr);
  for (int level = 0; level < 100000; ++level)
    deepest = XmlSchema::InsertNewElement(deepest, u"d", nullptr);
  XmlSchema::CreateText(deepest, u"!");
  EXPECT_EQ(XmlSchema::GetTextContent(XmlSchema::FindElement(a, u"c", nullptr), u"none"), u"none");
  XmlElementList outer{};
  outer.Add(XmlSchema::FindElement(a, u"c", nullptr));
  XmlSchema::SortElementsByTextContent(outer);
  EXPECT_EQ(XmlSchema::GetTextContent(a), u"onetwo<three>!four");
}

TEST(XmlTextTest, SetTextContentAndCreateText) {
  // The old content, elements and all, is freed: only the new text remains.
  const auto doc = XmlSchema::NewDoc(u"<a><old><older/></old>gone<!--c--></a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  XmlSchema::SetTextContent(a, u"6 < 7 & 8");
  EXPECT_EQ(Markup(a), u"<a>6 &lt; 7 &amp; 8</a>");
  xercesc::DOMText* more = XmlSchema::CreateText(a, u"!");
  ASSERT_NE(more, nullptr);
  EXPECT_EQ(XmlSchema::GetTextContent(a), u"6 < 7 & 8!");
  XmlSchema::SetTextContent(a, nullptr);
  EXPECT_EQ(XmlSchema::GetTextContent(a, u"fallback"), u"");
  EXPECT_EQ(XmlSchema::GetAllChildElements(a).Count(), 0);
  XmlSchema::SetTextContent(nullptr, u"ignored");
  EXPECT_EQ(XmlSchema::CreateText(nullptr, u"x"), nullptr);
}

TEST(XmlCdataTest, TextAndUtf8BytesComeBackAsUtf8) {
  const auto doc = XmlSchema::NewDoc(u"<a><b>old</b></a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  xercesc::DOMCDATASection* section = XmlSchema::SetCDATA(a, u"<caf\u00e9> & \u20ac");
  ASSERT_NE(section, nullptr);
  EXPECT_EQ(Markup(a), u"<a><![CDATA[<caf\u00e9> & \u20ac]]></a>");
  EXPECT_EQ(Bytes(XmlSchema::GetCDATA(a)), "<caf\xc3\xa9> & \xe2\x82\xac");

  const std::string utf8 = "x\xc3\xa9y";
  ASSERT_NE(XmlSchema::SetCDATA(a, utf8.data(), static_cast<int>(utf8.size())), nullptr);
  EXPECT_EQ(Bytes(XmlSchema::GetCDATA(a)), utf8);
  EXPECT_EQ(XmlSchema::GetTextContent(a), u"x\u00e9y");

  // Bytes that are not UTF-8 change nothing.
  const std::string latin1 = "x\xe9y";
  EXPECT_EQ(XmlSchema::SetCDATA(a, latin1.data(), static_cast<int>(latin1.size())), nullptr);
  EXPECT_EQ(Bytes(XmlSchema::GetCDATA(a)), utf8);

  // A CDATA section survives printing and parsing again.
  const auto again = XmlSchema::NewDoc(XmlSchema::PrintDoc(doc));
  EXPECT_EQ(Bytes(XmlSchema::GetCDATA(XmlSchema::DocumentElement(again))), utf8);
  EXPECT_EQ(XmlSchema::GetCDATA(nullptr).Size(), 0);
  EXPECT_EQ(XmlSchema::SetCDATA(nullptr, u"x"), nullptr);
}

TEST(XmlEditingTest, ChildrenFromAnotherDocumentAreImported) {
  const auto target = XmlSchema::NewDoc(u"<quiz><first/></quiz>");
  const auto source = XmlSchema::NewDoc(u"<bank><q id=\"1\"><text>T</text></q></bank>");
  xercesc::DOMElement* quiz = XmlSchema::DocumentElement(target);
  xercesc::DOMElement* question = XmlSchema::FirstChildElement(XmlSchema::DocumentElement(source));
  xercesc::DOMNode* appended = XmlSchema::AppendChild(quiz, question);
  ASSERT_NE(appended, nullptr);
  EXPECT_NE(appended, question);
  EXPECT_EQ(appended->getOwnerDocument(), target->DocumentNode());
  EXPECT_EQ(question->getParentNode(), XmlSchema::DocumentElement(source));  // source unchanged
  xercesc::DOMNode* first = XmlSchema::FirstChildElement(quiz);
  xercesc::DOMNode* inserted = XmlSchema::InsertChild(quiz, question, first);
  EXPECT_EQ(XmlSchema::FirstChildElement(quiz), inserted);
  EXPECT_EQ(Markup(quiz),
            u"<quiz><q id=\"1\"><text>T</text></q><first/><q id=\"1\"><text>T</text></q></quiz>");
}

TEST(XmlEditingTest, MovingReplacingRemovingAndRenaming) {
  const auto doc = XmlSchema::NewDoc(u"<a x=\"1\"><b/><c/><d>t</d></a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  xercesc::DOMElement* b = XmlSchema::FindElement(a, u"b", nullptr);
  xercesc::DOMElement* c = XmlSchema::FindElement(a, u"c", nullptr);
  xercesc::DOMElement* d = XmlSchema::FindElement(a, u"d", nullptr);
  EXPECT_EQ(XmlSchema::AppendChild(a, b), b);  // a node of the same document moves
  EXPECT_EQ(Markup(a), u"<a x=\"1\"><c/><d>t</d><b/></a>");
  EXPECT_EQ(XmlSchema::ReplaceChild(c, b), b);
  EXPECT_EQ(Markup(a), u"<a x=\"1\"><b/><d>t</d></a>");
  EXPECT_EQ(c->getParentNode(), nullptr);
  EXPECT_EQ(XmlSchema::RemoveChild(d), d);
  EXPECT_EQ(Markup(a), u"<a x=\"1\"><b/></a>");
  EXPECT_EQ(XmlSchema::RemoveChild(d), nullptr);  // detached already

  xercesc::DOMNode* renamed = XmlSchema::RenameNode(b, Namespaces::Uri::Veskan, u"veskan:b");
  ASSERT_NE(renamed, nullptr);
  EXPECT_EQ(QName(renamed), QName(u"veskan:b", Namespaces::Defaults));
  EXPECT_EQ(XmlSchema::RenameNode(renamed, nullptr, u"bad name"), nullptr);
  EXPECT_EQ(XmlSchema::RenameNode(doc->DocumentNode(), nullptr, u"x"), nullptr);

  XmlSchema::RemoveAllChildrenAndAttributes(a);
  EXPECT_EQ(Markup(a), u"<a/>");
}

TEST(XmlEditingTest, ChangesTheDomRefusesGiveNull) {
  const auto doc = XmlSchema::NewDoc(u"<a><b/></a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  xercesc::DOMElement* b = XmlSchema::FirstChildElement(a);
  EXPECT_EQ(XmlSchema::AppendChild(b, a), nullptr);  // an ancestor into its descendant
  EXPECT_EQ(XmlSchema::InsertChild(b, a, nullptr), nullptr);
  EXPECT_EQ(XmlSchema::InsertChild(a, XmlSchema::NewDoc(u"<c/>")->DocumentNode(), nullptr),
            nullptr);                                   // a document cannot be a child
  EXPECT_EQ(XmlSchema::InsertChild(a, b, a), nullptr);  // `before` is no child of `a`
  EXPECT_EQ(XmlSchema::ReplaceChild(b, a), nullptr);
  EXPECT_EQ(XmlSchema::AppendChild(nullptr, b), nullptr);
  EXPECT_EQ(XmlSchema::ReplaceChild(b, b), nullptr);
  EXPECT_EQ(XmlSchema::RemoveChild(doc->DocumentNode()), nullptr);
  EXPECT_EQ(Markup(a), u"<a><b/></a>");
  EXPECT_EQ(XmlSchema::DocumentElement(doc), a);
  EXPECT_EQ(b->getParentNode(), a);
}

TEST(XmlEditingTest, ImportIntoADocumentOrBelowAnElement) {
  const auto source = XmlSchema::NewDoc(u"<bank><q n=\"1\"/><q n=\"2\"/></bank>");
  const XmlElementList questions =
      XmlSchema::GetAllChildElements(XmlSchema::DocumentElement(source));
  const auto empty = XmlSchema::NewDoc();
  xercesc::DOMElement* root = XmlSchema::Import(empty, questions[0]);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(XmlSchema::DocumentElement(empty), root);  // the document had no element yet
  xercesc::DOMElement* loose = XmlSchema::Import(empty, questions[1]);
  ASSERT_NE(loose, nullptr);
  EXPECT_EQ(loose->getParentNode(), nullptr);  // it has one now: the copy stays unattached
  EXPECT_EQ(loose->getOwnerDocument(), empty->DocumentNode());

  const auto target = XmlSchema::NewDoc(u"<quiz/>");
  const XmlElementList copies = XmlSchema::Import(XmlSchema::DocumentElement(target), questions);
  EXPECT_EQ(copies.Count(), 2);
  EXPECT_EQ(Markup(XmlSchema::DocumentElement(target)), u"<quiz><q n=\"1\"/><q n=\"2\"/></quiz>");
  EXPECT_EQ(XmlSchema::Import(XmlSchema::NewDoc(), questions).Count(), 2);
  EXPECT_EQ(XmlSchema::Import(std::shared_ptr<XmlDocument>(), questions[0]), nullptr);
}

}  // namespace
}  // namespace Veskan
