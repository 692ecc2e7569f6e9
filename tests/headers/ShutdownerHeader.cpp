// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Shutdowner.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, ShutdownerStandsAlone) {
  EXPECT_TRUE(Veskan::Shutdowner::Create() != nullptr);
}
