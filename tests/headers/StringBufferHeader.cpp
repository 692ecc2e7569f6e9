// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/StringBuffer.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, StringBufferStandsAlone) {
  Veskan::StringList list;
  list.Add(Veskan::NewId(u"x"));
  EXPECT_EQ(Veskan::StringBuffer(list[0]).length(), 26);
}
