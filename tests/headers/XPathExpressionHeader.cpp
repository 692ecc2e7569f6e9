// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/XPathExpression.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, XPathExpressionStandsAlone) {
  const auto doc = Veskan::XmlSchema::NewDoc(u"<a><b/></a>");
  const Veskan::XPathExpression expression(doc, u"/a/b");
  EXPECT_EQ(expression.Count(), 1);
}
