// Namespaces, QName, XPathVariables, XmlNodeType::Of and the XPath engine's memory manager.
#include <veskan/Globals.h>
#include <veskan/XPathVariables.h>
#include <veskan/XmlSchema.h>

#include "xml/xpath/XPathRuntime.h"

#include <gtest/gtest.h>

#include <vector>

namespace Veskan {
namespace {

TEST(NamespacesTest, DefaultsMapEveryPrefixToItsUriInOrder) {
  struct Entry {
    const char16_t* prefix;
    const char16_t* uri;
  };
  const std::vector<Entry> expected{
      {u"xml", u"http://www.w3.org/XML/1998/namespace"},
      {u"xlink", u"http://www.w3.org/1999/xlink"},
      {u"rdf", u"http://www.w3.org/1999/02/22-rdf-syntax-ns#"},
      {u"dc", u"http://purl.org/dc/elements/1.1/"},
      {u"vCard", u"http://www.w3.org/2001/vcard-rdf/3.0#"},
      {u"sparql", u"http://www.w3.org/2005/sparql-results#"},
      {u"veskan", u"http://www.calvorco.com/2008/veskan/"},
      {u"vantrel", u"http://www.calvorco.com/2008/vantrel/"},
      {u"fn", u"http://www.w3.org/2005/xpath-functions"},
      {u"xs", u"http://www.w3.org/2001/XMLSchema"},
  };
  ASSERT_EQ(Namespaces::Defaults.Count(), static_cast<int>(expected.size()));
  for (int i = 0; i < Namespaces::Defaults.Count(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(Namespaces::Defaults(i).Key, expected[static_cast<std::size_t>(i)].prefix);
    EXPECT_EQ(Namespaces::Defaults(i).Value, expected[static_cast<std::size_t>(i)].uri);
  }
  EXPECT_EQ(StringBuffer(Namespaces::Prefix::Veskan), u"veskan");
  EXPECT_EQ(StringBuffer(Namespaces::Uri::Vantrel), u"http://www.calvorco.com/2008/vantrel/");
  EXPECT_EQ(Namespaces::Defaults.GetKey(Namespaces::Uri::Veskan), u"veskan");
}

TEST(QNameTest, ConstructionSplitsAndResolves) {
  const XPathVariables table(u"", u"urn:default", u"q", u"urn:q", nullptr);
  struct Case {
    const char* name;
    QName qname;
    const char16_t* prefix;
    const char16_t* local;
    const char16_t* uri;
  };
  const std::vector<Case> cases{
      {"parts", QName(u"p", u"l", u"u"), u"p", u"l", u"u"},
      {"null parts", QName(nullptr, nullptr, nullptr), u"", u"", u""},
      {"text and uri", QName(u"v:quiz", u"urn:x"), u"v", u"quiz", u"urn:x"},
      {"no prefix", QName(u"quiz", u"urn:x"), u"", u"quiz", u"urn:x"},
      {"first colon", QName(u"a:b:c", nullptr), u"a", u"b:c", u""},
      {"table prefix", QName(u"q:item", table), u"q", u"item", u"urn:q"},
      {"table default", QName(u"item", table), u"", u"item", u"urn:default"},
      {"table unknown prefix", QName(u"z:item", table), u"z", u"item", u""},
      {"defaults without default", QName(u"item", Namespaces::Defaults), u"", u"item", u""},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(test.qname.Prefix, test.prefix);
    EXPECT_EQ(test.qname.LocalName, test.local);
    EXPECT_EQ(test.qname.NamespaceUri, test.uri);
  }
  EXPECT_EQ(QName(u"v:quiz", u"urn:x").QualifiedName(), u"v:quiz");
  EXPECT_EQ(QName(u"quiz", u"urn:x").QualifiedName(), u"quiz");
}

TEST(QNameTest, EqualityIgnoresThePrefix) {
  EXPECT_EQ(QName(u"a:x", u"urn:1"), QName(u"b:x", u"urn:1"));
  EXPECT_NE(QName(u"a:x", u"urn:1"), QName(u"a:x", u"urn:2"));
  EXPECT_NE(QName(u"a:x", u"urn:1"), QName(u"a:y", u"urn:1"));

  const auto doc = XmlSchema::NewDoc(u"<v:a xmlns:v=\"urn:1\"><plain/></v:a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  const QName fromNode(a);
  EXPECT_EQ(fromNode.Prefix, u"v");
  EXPECT_EQ(fromNode.LocalName, u"a");
  EXPECT_EQ(fromNode.NamespaceUri, u"urn:1");
  EXPECT_TRUE(QName(u"w:a", u"urn:1") == a);
  EXPECT_TRUE(QName(u"a", u"urn:2") != a);
  EXPECT_TRUE(QName(u"plain", nullptr) == XmlSchema::FirstChildElement(a));
  EXPECT_FALSE(QName(u"plain", nullptr) == static_cast<const xercesc::DOMNode*>(nullptr));
  EXPECT_EQ(QName(static_cast<const xercesc::DOMNode*>(nullptr)).LocalName, u"");
}

TEST(XPathVariablesTest, KeysKeepTheirFirstPosition) {
  XPathVariables table(u"a", u"1", u"b", u"2", nullptr);
  table.SetValue(u"a", u"3");
  table.SetValue(u"c", nullptr);
  ASSERT_EQ(table.Count(), 3);
  EXPECT_EQ(table(0).Key, u"a");
  EXPECT_EQ(table(0).Value, u"3");
  EXPECT_EQ(table(2).Key, u"c");
  EXPECT_EQ(table(2).Value, u"");
  EXPECT_EQ(table(3).Key, u"");  // the shared empty entry
  EXPECT_EQ(table(-1).Value, u"");
  table[u"d"] = u"4";
  EXPECT_EQ(table.Count(), 4);
  EXPECT_EQ(table.GetValue(u"d"), u"4");
  EXPECT_EQ(table.GetValue(u"A", u"fallback"), u"fallback");  // keys are case-sensitive
  const XPathVariables& constant = table;
  EXPECT_EQ(StringBuffer(constant[u"missing"]), u"");
  EXPECT_EQ(constant.Count(), 4);
  EXPECT_TRUE(table.Contains(u"b"));
  EXPECT_FALSE(table.Contains(u"B"));
  EXPECT_EQ(table.GetKey(u"2"), u"b");
  EXPECT_EQ(table.GetKey(u""), u"");
  EXPECT_EQ(table.GetKey(nullptr), u"");
  table.Clear();
  EXPECT_EQ(table.Count(), 0);
}

TEST(XPathVariablesTest, ThePairsEndAtANullKeyOrValue) {
  EXPECT_EQ(XPathVariables(u"a", u"1", nullptr, u"2").Count(), 1);
  EXPECT_EQ(XPathVariables(u"a", u"1", u"b", nullptr, u"c", u"3").Count(), 1);
  EXPECT_EQ(XPathVariables(u"a", nullptr).Count(), 0);
  EXPECT_EQ(XPathVariables(u"a", u"1", u"b").Count(), 1);
  const XPathVariables base(u"a", u"1", nullptr);
  const XPathVariables extended(base, u"b", u"2", u"a", u"3", nullptr);
  ASSERT_EQ(extended.Count(), 2);
  EXPECT_EQ(extended(0).Value, u"3");
  EXPECT_EQ(base.GetValue(u"a"), u"1");  // a copy, not a share
  EXPECT_EQ(XPathVariables::Empty.Count(), 0);
}

TEST(XPathVariablesTest, SumKeepsFirstPositionsWithTheSecondTablesValues) {
  const XPathVariables first(u"a", u"1", u"b", u"2", nullptr);
  const XPathVariables second(u"c", u"3", u"a", u"4", nullptr);
  const XPathVariables sum = first + second;
  ASSERT_EQ(sum.Count(), 3);
  EXPECT_EQ(sum(0).Key, u"a");
  EXPECT_EQ(sum(0).Value, u"4");
  EXPECT_EQ(sum(1).Key, u"b");
  EXPECT_EQ(sum(2).Key, u"c");
  XPathVariables copy;
  copy = sum;
  copy.SetValue(u"a", u"5");
  EXPECT_EQ(sum.GetValue(u"a"), u"4");
}

TEST(XmlNodeTypeTest, OfTellsElementsTextAndDocumentsOnly) {
  const auto doc = XmlSchema::NewDoc(u"<a x=\"1\">t<![CDATA[c]]><!--n--><?pi d?><b/></a>");
  xercesc::DOMElement* a = XmlSchema::DocumentElement(doc);
  const XmlNodeList children = XmlSchema::GetAllChildNodes(a);
  ASSERT_EQ(children.Count(), 5);
  struct Case {
    const char* name;
    const xercesc::DOMNode* node;
    XmlNodeType::Enumeration expected;
  };
  const std::vector<Case> cases{
      {"null", nullptr, XmlNodeType::None},
      {"element", a, XmlNodeType::Element},
      {"document", doc->DocumentNode(), XmlNodeType::Document},
      {"text", children[0], XmlNodeType::Text},
      {"CDATA", children[1], XmlNodeType::None},
      {"comment", children[2], XmlNodeType::None},
      {"processing instruction", children[3], XmlNodeType::None},
      {"attribute", XmlSchema::GetAttributeNode(a, u"x"), XmlNodeType::None},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(XmlNodeType::Of(test.node), test.expected);
  }
}

TEST(XPathMemoryManagerTest, CountsWhatIsOutstanding) {
  Globals keep;
  Detail::XPathMemoryManager manager;
  void* small = manager.allocate(10);
  void* large = manager.allocate(1000);
  EXPECT_EQ(manager.OutstandingBlocks(), 2u);
  EXPECT_EQ(manager.OutstandingBytes(), 1010u);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(large) % alignof(std::max_align_t), 0u);
  manager.deallocate(small);
  manager.deallocate(nullptr);
  EXPECT_EQ(manager.OutstandingBlocks(), 1u);
  EXPECT_EQ(manager.OutstandingBytes(), 1000u);
  manager.deallocate(large);
  EXPECT_EQ(manager.OutstandingBytes(), 0u);
  EXPECT_NE(manager.getExceptionMemoryManager(), nullptr);
}

}  // namespace
}  // namespace Veskan
