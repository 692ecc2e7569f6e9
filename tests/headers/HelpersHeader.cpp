// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Helpers.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, HelpersStandsAlone) {
  // Null storage holds nothing to destroy: the call links and returns.
  EXPECT_NO_FATAL_FAILURE(Veskan::Helpers::PlatformSpecificCleanup(nullptr, false));
}
