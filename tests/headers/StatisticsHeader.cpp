// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Statistics.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, StatisticsStandsAlone) {
  EXPECT_EQ(Veskan::RandomSequence(u"a").NextInteger(10), 3);
  Veskan::NumericStats stats;
  stats += 4;
  stats.finish();
  EXPECT_EQ(stats.Mean(), 4);
  Veskan::Histogram histogram;
  histogram += u"x";
  histogram.Sort(Veskan::SortMethods::Numeric);
  EXPECT_EQ(histogram[u"x"], 1);
}
