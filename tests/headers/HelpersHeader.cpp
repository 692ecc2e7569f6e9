// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Helpers.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, HelpersStandsAlone) {
  EXPECT_TRUE(Veskan::Helpers::HelpUrl(u"en").endsWith(u"&context="));
}
