// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Timepoint.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, TimepointStandsAlone) {
  const Veskan::Timepoint start = Veskan::Timepoint::Now();
  EXPECT_GE(Veskan::Timepoint::Now() - start, 0);
  const Veskan::StringBuffer text =
      Veskan::FormatTimestamp(1500000, Veskan::TimestampStyles::Iso8601);
  EXPECT_EQ(text, u"1970-01-01T00:00:01.500000Z");
  EXPECT_EQ(Veskan::ParseTimestamp(text, Veskan::DateTimeConversions::Iso8601), 1500000u);
  EXPECT_GT(Veskan::CurrentTimeValue(), 0u);
  EXPECT_FALSE(Veskan::CurrentTimestamp().isEmpty());
}
