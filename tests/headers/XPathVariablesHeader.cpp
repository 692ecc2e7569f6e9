// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/XPathVariables.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, XPathVariablesStandsAlone) {
  const Veskan::XPathVariables table(u"id", u"q1", nullptr);
  EXPECT_EQ(table.GetValue(u"id"), u"q1");
}
