// Seeded random sequences, running statistics and histograms.
#include <veskan/Statistics.h>

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

namespace Veskan {
namespace {

// The numbers a seed text must give on every machine. Computed apart from the library, in
// Python, from the hash and the advancing rule of the sequence's contract.
struct PinnedSequence {
  const char16_t* seed;
  std::int32_t hash;
  std::vector<int> integersBelow10;    // NextInteger(10), eight times
  std::vector<int> integersBelow1000;  // NextInteger(1000), five times, on a fresh sequence
  std::vector<double> doubles;         // NextDouble(), three times, on a fresh sequence
  std::vector<int> shuffleOf6;         // GetRandomSequence(6) on a fresh sequence
  std::vector<int> shuffleOf10;        // GetRandomSequence(10) on a fresh sequence
};

const PinnedSequence Pinned[] = {
    {u"",
     0,
     {0, 0, 0, 0, 0, 0, 0, 0},
     {0, 0, 0, 0, 0},
     {0.0, 0.0, 0.0},
     {1, 2, 3, 4, 5, 0},
     {1, 2, 3, 4, 5, 6, 7, 8, 9, 0}},
    {u"a",
     97,
     {3, 2, 3, 8, 9, 8, 9, 2},
     {283, 922, 783, 198, 939},
     {0.0029603405869381228, 0.017761682168469618, 0.08288714246958827},
     {0, 5, 4, 3, 2, 1},
     {0, 2, 1, 8, 9, 6, 5, 7, 4, 3}},
    {u"Question-42",
     -1662858843,
     {3, 6, 5, 4, 9, 4, 5, 2},
     {623, 706, 875, 214, 359},
     {0.25236093264648735, 0.708797508715092, 0.10554253827107257},
     {2, 4, 0, 3, 5, 1},
     {0, 5, 2, 7, 4, 1, 6, 8, 9, 3}},
    {u"\u00E9\U0001F600",
     1996812,
     {8, 0, 0, 0, 4, 0, 2, 2},
     {788, 640, 180, 120, 644},
     {0.9406557255148216, 0.6364956468513681, 0.2890788858239906},
     {2, 3, 1, 4, 5, 0},
     {9, 3, 5, 7, 6, 2, 0, 4, 1, 8}},
    {u"urn:veskan:question:7f3a",
     -847143404,
     {6, 2, 4, 2, 0, 0, 6, 0},
     {636, 752, 964, 152, 300},
     {0.05153968746379935, 0.4650932296482349, 0.3506513146453776},
     {5, 3, 1, 0, 2, 4},
     {1, 9, 8, 7, 5, 0, 2, 4, 3, 6}},
};

template <typename Draw>
auto DrawMany(int count, Draw draw) {
  std::vector<decltype(draw())> values;
  for (int i = 0; i < count; ++i)
    values.push_back(draw());
  return values;
}

TEST(RandomSequenceTest, GivesThePinnedNumbersForEachSeed) {
  for (const PinnedSequence& pinned : Pinned) {
    SCOPED_TRACE(StringBuffer(pinned.seed));
    EXPECT_EQ(RandomSequence::GenerateHashCode(pinned.seed), pinned.hash);
    RandomSequence below10(pinned.seed);
    EXPECT_EQ(DrawMany(8, [&] { return below10.NextInteger(10); }), pinned.integersBelow10);
    RandomSequence below1000(pinned.seed);
    EXPECT_EQ(DrawMany(5, [&] { return below1000.NextInteger(1000); }), pinned.integersBelow1000);
    RandomSequence doubles(pinned.seed);
    EXPECT_EQ(DrawMany(3, [&] { return doubles.NextDouble(); }), pinned.doubles);
    EXPECT_EQ(RandomSequence(pinned.seed).GetRandomSequence(6), pinned.shuffleOf6);
    EXPECT_EQ(RandomSequence(pinned.seed).GetRandomSequence(10), pinned.shuffleOf10);
  }
}

TEST(RandomSequenceTest, WideBoundsLongTextsAndNullSeeds) {
  RandomSequence wide(u"Question-42");
  EXPECT_EQ(DrawMany(3, [&] { return wide.NextInteger(2147483647); }),
            (std::vector<int>{541940976, 1522131059, 226650875}));
  const std::u16string longText(1000, u'x');
  EXPECT_EQ(RandomSequence::GenerateHashCode(longText.c_str()), -1715418112);
  EXPECT_EQ(RandomSequence::GenerateHashCode(nullptr), 0);
  EXPECT_EQ(RandomSequence(nullptr).NextInteger(1000), 0);
}

TEST(RandomSequenceTest, SmallBoundsAndCountsDrawNothing) {
  RandomSequence sequence(u"Question-42");
  EXPECT_EQ(sequence.NextInteger(1), 0);
  EXPECT_EQ(sequence.NextInteger(0), 0);
  EXPECT_EQ(sequence.NextInteger(-5), 0);
  EXPECT_TRUE(sequence.GetRandomSequence(0).empty());
  EXPECT_TRUE(sequence.GetRandomSequence(-3).empty());
  EXPECT_EQ(sequence.GetRandomSequence(1), std::vector<int>{0});
  EXPECT_EQ(sequence.NextInteger(10), 3);  // still the first number of the sequence
}

TEST(RandomSequenceTest, ShufflesArePermutations) {
  RandomSequence sequence(u"urn:veskan:quiz:1");
  for (int count : {2, 7, 100, 1000}) {
    std::vector<int> order = sequence.GetRandomSequence(count);
    std::sort(order.begin(), order.end());
    std::vector<int> identity(static_cast<std::size_t>(count));
    std::iota(identity.begin(), identity.end(), 0);
    EXPECT_EQ(order, identity);
  }
}

TEST(NumericStatsTest, SummarisesASeries) {
  NumericStats stats;
  for (double value : {1.0, 2.0, 3.0})
    stats += value;
  stats.finish();
  EXPECT_EQ(stats.Count(), 3);
  EXPECT_EQ(stats.Sum(), 6);
  EXPECT_EQ(stats.Minimum(), 1);
  EXPECT_EQ(stats.Maximum(), 3);
  EXPECT_EQ(stats.Mean(), 2);
  EXPECT_DOUBLE_EQ(stats.Spread(), std::sqrt(2.0));  // not divided by the count
}

TEST(NumericStatsTest, AnEmptySeriesKeepsItsStartingValues) {
  NumericStats stats;
  stats.finish();
  EXPECT_EQ(stats.Mean(), 0);
  EXPECT_EQ(stats.Spread(), 0);
  EXPECT_EQ(stats.Count(), 0);
  EXPECT_EQ(stats.Minimum(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(stats.Maximum(), -std::numeric_limits<double>::infinity());
}

TEST(NumericStatsTest, FinishSpreadsOnlyTheValuesAddedSinceTheLastFinish) {
  NumericStats stats;
  stats += 1;
  stats += 3;
  stats.finish();
  EXPECT_EQ(stats.Mean(), 2);
  EXPECT_DOUBLE_EQ(stats.Spread(), std::sqrt(2.0));
  stats += 2;  // exactly the new mean: a total of 0 leaves the spread as it was
  stats.finish();
  EXPECT_EQ(stats.Mean(), 2);
  EXPECT_DOUBLE_EQ(stats.Spread(), std::sqrt(2.0));
  stats += 14;
  stats.finish();
  EXPECT_EQ(stats.Mean(), 5);
  EXPECT_EQ(stats.Spread(), 9);  // (14 - 5)^2 alone
}

TEST(NumericStatsTest, NaNIsKeptButNotCounted) {
  NumericStats stats;
  stats += -4;
  stats += std::nan("");
  stats += 8;
  EXPECT_EQ(stats.Count(), 2);
  EXPECT_EQ(stats.Sum(), 4);
  EXPECT_EQ(stats.Minimum(), -4);
  EXPECT_EQ(stats.Maximum(), 8);
  stats.finish();
  EXPECT_EQ(stats.Mean(), 2);
  EXPECT_EQ(stats.Spread(), 0);  // the NaN made the total NaN
  stats += 5;
  stats.finish();  // the NaN went with the previous finish
  EXPECT_EQ(stats.Mean(), 3);
  EXPECT_EQ(stats.Spread(), 2);
}

TEST(HistogramTest, CountsByExactLabelInOrderOfAppearance) {
  Histogram histogram;
  StringBuffer label(u"Paris");
  histogram += label;
  label = u"paris";  // the histogram keeps its own copy of the first label
  histogram += label;
  histogram.Increment(u"Paris", 2.5);
  histogram += nullptr;
  histogram.Increment(u"", 1);
  ASSERT_EQ(histogram.Count(), 3);
  EXPECT_EQ(histogram[0].first, u"Paris");
  EXPECT_EQ(histogram[0].second, 3.5);
  EXPECT_EQ(histogram[1].first, u"paris");
  EXPECT_EQ(histogram[1].second, 1);
  EXPECT_EQ(histogram[2].first, u"");
  EXPECT_EQ(histogram[2].second, 2);
  EXPECT_EQ(histogram[u"Paris"], 3.5);
  EXPECT_EQ(histogram[StringBuffer(u"paris")], 1);
  EXPECT_EQ(histogram[static_cast<const char16_t*>(nullptr)], 2);
  EXPECT_EQ(histogram[u"Rome"], 0);
  EXPECT_EQ(histogram[3].first, u"");
  EXPECT_EQ(histogram[-1].second, 0);
}

TEST(HistogramTest, SortsByLabelOrByCount) {
  const icu::Locale previous = icu::Locale::getDefault();
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(icu::Locale("en_US"), status);
  struct {
    int methods;
    const char16_t* expected;  // labels and counts in order
  } const cases[] = {
      // Locale order ignores case and symbols; ties go by code units.
      {SortMethods::Ascending, u"?:NaN A:5 a:3 B:2 b:3 c:1"},
      {SortMethods::Exact, u"?:NaN A:5 B:2 a:3 b:3 c:1"},
      {SortMethods::Exact | SortMethods::Descending, u"c:1 b:3 a:3 B:2 A:5 ?:NaN"},
      // By count, ties keeping their order and NaN first.
      {SortMethods::Numeric, u"?:NaN c:1 B:2 b:3 a:3 A:5"},
      {SortMethods::Numeric | SortMethods::Descending, u"A:5 b:3 a:3 B:2 c:1 ?:NaN"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(SortMethods::ToString(c.methods));
    Histogram histogram;
    const std::pair<const char16_t*, double> entries[] = {
        {u"b", 3}, {u"B", 2}, {u"a", 3}, {u"?", std::nan("")}, {u"c", 1}, {u"A", 5}};
    for (const auto& [label, count] : entries)
      histogram.Increment(label, count);
    histogram.Sort(c.methods);
    StringBuffer order;
    for (int i = 0; i < histogram.Count(); ++i) {
      if (i > 0) order += u' ';
      order += histogram[i].first + u":" + FormatDouble(histogram[i].second);
    }
    EXPECT_EQ(order, c.expected);
  }
  icu::Locale::setDefault(previous, status);
}

}  // namespace
}  // namespace Veskan
