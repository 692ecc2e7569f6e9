// StringList: indexing that never fails, and the three orders of Sort.
#include <veskan/StringBuffer.h>

#include <gtest/gtest.h>

#include <unicode/locid.h>

#include <vector>

namespace Veskan {
namespace {

std::vector<std::u16string> Entries(const StringList& list) {
  std::vector<std::u16string> entries;
  for (int i = 0; i < list.Count(); ++i)
    entries.emplace_back(list[i]);
  return entries;
}

TEST(StringListTest, AddRemoveAndCount) {
  StringList list;
  EXPECT_EQ(list.Add(u"a"), 0);
  EXPECT_EQ(list.Add(nullptr), 1);
  EXPECT_EQ(list.Add(StringBuffer(u"c")), 2);
  EXPECT_EQ(list.Count(), 3);
  EXPECT_EQ(Entries(list), (std::vector<std::u16string>{u"a", u"", u"c"}));
  list.RemoveAt(1);
  list.RemoveAt(7);
  list.RemoveAt(-1);
  EXPECT_EQ(Entries(list), (std::vector<std::u16string>{u"a", u"c"}));
  StringList copy(list);
  list.RemoveAll();
  EXPECT_EQ(list.Count(), 0);
  EXPECT_EQ(copy.Count(), 2);
}

TEST(StringListTest, BadIndexesGiveTheEmptyString) {
  StringList list{StringBuffer(u"only")};
  const StringList& constant = list;
  EXPECT_EQ(constant[-1][0], 0);
  EXPECT_EQ(constant[1][0], 0);
  EXPECT_EQ(std::u16string(constant[0]), u"only");

  StringBuffer& spare = list[-1];
  EXPECT_TRUE(spare.isEmpty());
  spare = u"scribbled";            // a caller writes into the spare...
  EXPECT_TRUE(list[5].isEmpty());  // ...and the next bad index still reads empty
  EXPECT_EQ(list.Count(), 1);
  list[0] = u"changed";
  EXPECT_EQ(std::u16string(constant[0]), u"changed");
}

TEST(StringListSortTest, ExactAndDescending) {
  StringList list{StringBuffer(u"b"), StringBuffer(u"B"), StringBuffer(u"a"), StringBuffer(u"A")};
  list.Sort(SortMethods::Exact);
  EXPECT_EQ(Entries(list), (std::vector<std::u16string>{u"A", u"B", u"a", u"b"}));
  list.Sort(SortMethods::Exact | SortMethods::Descending);
  EXPECT_EQ(Entries(list), (std::vector<std::u16string>{u"b", u"a", u"B", u"A"}));
}

TEST(StringListSortTest, NumericWinsOverExactAndPlacesEmptyAndNaNFirst) {
  StringList list{StringBuffer(u"10"),   StringBuffer(u"9"),   StringBuffer(u""),
                  StringBuffer(u"-1.5"), StringBuffer(u"NaN"), StringBuffer(u"9.0")};
  list.Sort(SortMethods::Numeric | SortMethods::Exact);
  EXPECT_EQ(Entries(list),
            (std::vector<std::u16string>{u"", u"NaN", u"-1.5", u"9", u"9.0", u"10"}));
  list.Sort(SortMethods::Numeric | SortMethods::Descending);
  EXPECT_EQ(Entries(list),
            (std::vector<std::u16string>{u"10", u"9.0", u"9", u"-1.5", u"NaN", u""}));
}

TEST(StringListSortTest, LocaleAwareIgnoresCaseAndSymbolsThenBreaksTiesExactly) {
  const icu::Locale previous = icu::Locale::getDefault();
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(icu::Locale::getUS(), status);
  StringList list{StringBuffer(u"banana"), StringBuffer(u"-cherry"), StringBuffer(u"Apple"),
                  StringBuffer(u"apple"), StringBuffer(u"\u00E9clair")};
  list.Sort();
  EXPECT_EQ(Entries(list), (std::vector<std::u16string>{u"Apple", u"apple", u"banana", u"-cherry",
                                                        u"\u00E9clair"}));
  list.Sort(SortMethods::Descending);
  EXPECT_EQ(Entries(list), (std::vector<std::u16string>{u"\u00E9clair", u"-cherry", u"banana",
                                                        u"apple", u"Apple"}));
  icu::Locale::setDefault(previous, status);
}

TEST(SortMethodsTest, NamesOfFlags) {
  EXPECT_EQ(SortMethods::ToString(0), u"Ascending");
  EXPECT_EQ(SortMethods::ToString(SortMethods::Descending | SortMethods::Numeric),
            u"Descending|Numeric");
  EXPECT_EQ(SortMethods::ToString(8), u"##invalid value##");
  EXPECT_EQ(StringBuffer(FormattingStyles::ToString(FormattingStyles::NumericBoolean)),
            u"NumericBoolean");
  EXPECT_EQ(StringBuffer(FormattingStyles::ToString(static_cast<FormattingStyles::Enumeration>(9))),
            u"##invalid value##");
}

}  // namespace
}  // namespace Veskan
