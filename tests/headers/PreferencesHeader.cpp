// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Preferences.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, PreferencesStandsAlone) {
  using Veskan::Preferences;
  EXPECT_EQ(Preferences::HardwareService::GetRfChEdRating(u"15", u"10 20"),
            Preferences::HardwareService::RfChEdRatings::Good);
  EXPECT_EQ(Preferences::ReadIntegerValue(false, Preferences::Path, u"x", u"no store", 3), 3);
}
