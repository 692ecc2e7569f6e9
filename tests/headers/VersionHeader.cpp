// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Version.h>

#include <gtest/gtest.h>

#include <string>

TEST(PublicHeaders, VersionStandsAlone) {
  EXPECT_FALSE(std::string(Veskan::LibraryVersion()).empty());
  EXPECT_EQ(Veskan::ProductName()[0], u'V');
}
