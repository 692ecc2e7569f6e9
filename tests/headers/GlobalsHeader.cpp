// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Globals.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, GlobalsStandsAlone) {
  Veskan::Globals globals;
  EXPECT_EQ(Veskan::Globals::Instance, nullptr);
}
