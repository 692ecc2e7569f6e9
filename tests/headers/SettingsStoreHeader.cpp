// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/SettingsStore.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, SettingsStoreStandsAlone) {
  EXPECT_EQ(Veskan::SettingsStore::FoldedPath("\\A\\\\B\\"), "a\\b");
}
