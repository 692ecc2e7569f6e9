// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Content.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, ContentStandsAlone) {
  Veskan::MediaType type(u"text/plain; charset=utf-8");
  EXPECT_EQ(type.Parameters.Count(), 1);
  Veskan::Content content(u"abc");
  content.Sealed(type.Text.c_str());
  EXPECT_EQ(content.Length, 3);
}
