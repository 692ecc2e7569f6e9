// Time points, current time values, and time stamps formatted and parsed in every form.
#include <veskan/Timepoint.h>

#include "foundation/TimeArithmetic.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <random>
#include <string>

namespace Veskan {
namespace {

// Moments used throughout, computed apart from the library (Python's datetime).
constexpr std::uint64_t LeapDay = 1709214307000123;          // 2024-02-29T13:45:07.000123Z, Thu
constexpr std::uint64_t LeapDayMidnight = 1709164800000000;  // 2024-02-29T00:00:00Z
constexpr std::uint64_t July = 1719835200000000;             // 2024-07-01T12:00:00Z, Mon
constexpr std::uint64_t SpringForward = 1711846800000000;    // 2024-03-31T01:00:00Z: CET -> CEST
constexpr std::uint64_t January5 = 1767600184000005;         // 2026-01-05T08:03:04.000005Z, Mon

constexpr const char* Cet = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* Eastern = "EST5EDT,M3.2.0,M11.1.0";

// Sets the process's time zone for one scope and restores the previous one.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    const char* previous = std::getenv("TZ");
    hadZone_ = previous != nullptr;
    if (hadZone_) previous_ = previous;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (hadZone_) {
      setenv("TZ", previous_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool hadZone_ = false;
  std::string previous_;
};

// Sets ICU's default locale for one scope and restores the previous one.
class ScopedLocale {
 public:
  explicit ScopedLocale(const char* name) : previous_(icu::Locale::getDefault()) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(name), status);
  }
  ~ScopedLocale() {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(previous_, status);
  }

 private:
  icu::Locale previous_;
};

using Styles = TimestampStyles;
using Conversions = DateTimeConversions;

TEST(TimepointTest, LaterReadingsGiveNonNegativeDifferences) {
  const Timepoint first = Timepoint::Now();
  const Timepoint second = Timepoint::Now();
  EXPECT_GE(second - first, 0);
  EXPECT_EQ(first - second, -(second - first));
  EXPECT_EQ(first - first, 0);
  EXPECT_GE(first - Timepoint(), 0);
}

TEST(TimepointTest, TicksBecomeMicrosecondsWithoutOverflow) {
  struct {
    std::int64_t ticks, frequency, expected;
  } const cases[] = {
      {1500, 1000000000, 1},
      {-1500, 1000000000, -1},                      // truncated toward zero
      {10000000000000LL, 1000000000, 10000000000},  // 2.8 hours of nanoseconds
      {INT64_MAX, 1000000000, 9223372036854775},    // 292 years
      {INT64_MAX, 10000000, 922337203685477580},    // a 10 MHz counter
      {3, 3, 1000000},
      {1, 3, 333333},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ticks << " at " << c.frequency);
    EXPECT_EQ(Detail::TicksToMicroseconds(c.ticks, c.frequency), c.expected);
  }
}

TEST(CurrentTimeValueTest, MovesByTheOffsetAndClampsToTheRange) {
  const std::uint64_t before = CurrentTimeValue();
  const std::uint64_t hourAhead = CurrentTimeValue(3600);
  const std::uint64_t after = CurrentTimeValue();
  EXPECT_GE(hourAhead - 3600000000u, before);
  EXPECT_LE(hourAhead - 3600000000u, after);
  EXPECT_GT(before, 1700000000000000u);  // the clock reads microseconds, not seconds
  EXPECT_EQ(CurrentTimeValue(-1e30), 0u);
  EXPECT_EQ(CurrentTimeValue(std::numeric_limits<double>::infinity()), UINT64_MAX);

  EXPECT_EQ(Detail::MoveTimeValue(1000000, 0.5), 1500000u);
  EXPECT_EQ(Detail::MoveTimeValue(1000000, -0.0000015), 999998u);  // rounded half away from 0
  EXPECT_EQ(Detail::MoveTimeValue(5, -1), 0u);
  EXPECT_EQ(Detail::MoveTimeValue(UINT64_MAX - 5, 1), UINT64_MAX);
  EXPECT_EQ(Detail::MoveTimeValue(42, std::nan("")), 42u);
}

TEST(CurrentTimestampTest, FormatsTheMovedCurrentTime) {
  const std::uint64_t before = CurrentTimeValue(-7200);
  const StringBuffer text = CurrentTimestamp(-7200, Styles::Rfc1123);
  const std::uint64_t after = CurrentTimeValue(-7200);
  const std::uint64_t read = ParseTimestamp(text, Conversions::Rfc1123);
  EXPECT_GE(read, before);
  EXPECT_LE(read, after);
}

struct FormatCase {
  std::uint64_t time;
  int style;
  const char16_t* expected;
};

void ExpectFormats(const FormatCase* begin, const FormatCase* end) {
  for (const FormatCase* c = begin; c != end; ++c) {
    SCOPED_TRACE(testing::Message() << c->time << " in " << Styles::ToString(c->style));
    EXPECT_EQ(FormatTimestamp(c->time, c->style), c->expected);
  }
}

TEST(FormatTimestampTest, PrintsTheUtcForms) {
  const ScopedTimeZone zone(Cet);  // must not matter without the Local flag
  const FormatCase cases[] = {
      {0, Styles::Rfc1123, u"Thu, 1 Jan 1970 00:00:00.000000 GMT"},
      {0, Styles::Rfc1123 | Styles::DateOnly, u"Thu, 01 Jan 1970"},
      {1500000, Styles::Iso8601, u"1970-01-01T00:00:01.500000Z"},
      {9999999, Styles::Iso8601, u"1970-01-01T00:00:09.999999Z"},
      {10000000, Styles::Rfc1123, u"Thu, 1 Jan 1970 00:00:10.000000 GMT"},
      {59999999, Styles::Iso8601, u"1970-01-01T00:00:59.999999Z"},
      {LeapDay, Styles::Rfc1123, u"Thu, 29 Feb 2024 13:45:07.000123 GMT"},
      {LeapDay, Styles::Iso8601, u"2024-02-29T13:45:07.000123Z"},
      {LeapDay, Styles::DateOnly, u"2024-02-29"},
      {January5, Styles::Rfc1123, u"Mon, 5 Jan 2026 08:03:04.000005 GMT"},
      {January5, Styles::Rfc1123 | Styles::DateOnly, u"Mon, 05 Jan 2026"},
      {January5, Styles::Iso8601 | Styles::TimeOnly, u"2026-01-05T08:03:04.000005Z"},
      {253402300800000000, Styles::Iso8601, u"10000-01-01T00:00:00.000000Z"},
  };
  ExpectFormats(std::begin(cases), std::end(cases));
}

TEST(FormatTimestampTest, PrintsLocalTimeWithTheOffsetOfThatMoment) {
  struct ZoneCases {
    const char* zone;
    FormatCase cases[4];
  } const zones[] = {
      {Cet,
       {{0, Styles::Local | Styles::Rfc1123, u"Thu, 1 Jan 1970 01:00:00.000000 +0100"},
        {July, Styles::Local, u"2024-07-01T14:00:00.000000+02:00"},
        {SpringForward - 1, Styles::Local, u"2024-03-31T01:59:59.999999+01:00"},
        {SpringForward, Styles::Local | Styles::Rfc1123,
         u"Sun, 31 Mar 2024 03:00:00.000000 +0200"}}},
      {Eastern,
       {{0, Styles::Local, u"1969-12-31T19:00:00.000000-05:00"},
        {0, Styles::Local | Styles::Rfc1123 | Styles::DateOnly, u"Wed, 31 Dec 1969"},
        {July, Styles::Local | Styles::Rfc1123, u"Mon, 1 Jul 2024 08:00:00.000000 -0400"},
        {0, Styles::Local | Styles::DateOnly, u"1969-12-31"}}},
      {"IST-5:30",
       {{0, Styles::Local, u"1970-01-01T05:30:00.000000+05:30"},
        {0, Styles::Local | Styles::Rfc1123, u"Thu, 1 Jan 1970 05:30:00.000000 +0530"},
        {9000000, Styles::Local, u"1970-01-01T05:30:09.000000+05:30"},
        {LeapDay, Styles::Local | Styles::DateOnly, u"2024-02-29"}}},
      {"NST3:30",
       {{0, Styles::Local, u"1969-12-31T20:30:00.000000-03:30"},
        {0, Styles::Local | Styles::Rfc1123, u"Wed, 31 Dec 1969 20:30:00.000000 -0330"},
        {LeapDay, Styles::Local, u"2024-02-29T10:15:07.000123-03:30"},
        {LeapDay, Styles::Iso8601, u"2024-02-29T13:45:07.000123Z"}}},
  };
  for (const ZoneCases& zone : zones) {
    SCOPED_TRACE(zone.zone);
    const ScopedTimeZone scoped(zone.zone);
    ExpectFormats(std::begin(zone.cases), std::end(zone.cases));
  }
  const ScopedTimeZone zone(Cet);
  setenv("TZ", Eastern, 1);  // without tzset: a host that changes TZ expects it to count at once
  EXPECT_EQ(FormatTimestamp(0, Styles::Local), u"1969-12-31T19:00:00.000000-05:00");
}

TEST(FormatTimestampTest, UsesIcuFormatsOfTheDefaultLocale) {
  const ScopedTimeZone zone(Cet);
  const ScopedLocale locale("de_DE");
  const FormatCase cases[] = {
      {0, Styles::LocaleMedium, u"01.01.1970, 00:00:00"},
      {0, Styles::LocaleMedium | Styles::DateOnly, u"01.01.1970"},
      {0, Styles::LocaleMedium | Styles::TimeOnly, u"00:00:00"},
      {0, Styles::LocaleMedium | Styles::TimeOnly | Styles::Local, u"01:00:00"},
      {0, Styles::LocaleShort, u"01.01.70, 00:00"},
      {July, Styles::LocaleShort | Styles::Local, u"01.07.24, 14:00"},
      {July, Styles::MonthDay, u"Juli 1"},
      {July - 13 * 3600000000ull, Styles::MonthDay, u"Juli 1"},  // 01:00 local, 23:00 UTC
  };
  ExpectFormats(std::begin(cases), std::end(cases));
  const ScopedLocale english("en_US");
  EXPECT_EQ(FormatTimestamp(0, Styles::LocaleMedium | Styles::DateOnly), u"Jan 1, 1970");
  EXPECT_EQ(FormatTimestamp(July, Styles::MonthDay), u"Jul 1");
}

TEST(TimestampNamesTest, NameEveryValue) {
  EXPECT_EQ(Styles::ToString(Styles::Iso8601), u"Iso8601");
  EXPECT_EQ(Styles::ToString(Styles::MonthDay), u"MonthDay");
  EXPECT_EQ(Styles::ToString(Styles::Rfc1123 | Styles::Local), u"Rfc1123|Local");
  EXPECT_EQ(Styles::ToString(63), u"Rfc1123|DateOnly|Local|TimeOnly|LocaleMedium|LocaleShort");
  EXPECT_EQ(Styles::ToString(64), u"##invalid value##");
  EXPECT_EQ(StringBuffer(Conversions::ToString(Conversions::Rfc1123)), u"Rfc1123");
  EXPECT_EQ(StringBuffer(Conversions::ToString(Conversions::Iso8601)), u"Iso8601");
  EXPECT_EQ(StringBuffer(Conversions::ToString(static_cast<Conversions::Enumeration>(7))),
            u"##invalid value##");
}

TEST(ParseTimestampTest, ReadsBackEveryPrintfForm) {
  const char* zones[] = {"UTC0", Cet, Eastern, "IST-5:30", "NST3:30"};
  const std::uint64_t times[] = {
      0, 9999999, 10000001, LeapDay, SpringForward - 1, SpringForward, July, January5, UINT64_MAX};
  for (const char* zoneName : zones) {
    const ScopedTimeZone zone(zoneName);
    for (std::uint64_t time : times) {
      for (int style : {0, 1, 4, 5}) {
        const StringBuffer text = FormatTimestamp(time, style);
        SCOPED_TRACE(testing::Message() << zoneName << ": " << text);
        const auto conversion = (style & 1) ? Conversions::Rfc1123 : Conversions::Iso8601;
        EXPECT_EQ(ParseTimestamp(text, conversion), time);
      }
    }
  }
  EXPECT_EQ(ParseTimestamp(FormatTimestamp(LeapDay, 2), Conversions::Iso8601), LeapDayMidnight);
  EXPECT_EQ(ParseTimestamp(FormatTimestamp(LeapDay, 3), Conversions::Rfc1123), LeapDayMidnight);
}

TEST(ParseTimestampTest, ToleratesVariantsOfBothForms) {
  struct {
    const char16_t* text;
    Conversions::Enumeration conversion;
    std::uint64_t expected;
  } const cases[] = {
      {u"1970-01-02T00:01Z", Conversions::Iso8601, 86460000000},
      {u"1970-01-01T00:00:01Z", Conversions::Iso8601, 1000000},
      {u"1970-01-01T00:00:01.5z", Conversions::Iso8601, 1500000},
      {u"1970-01-01t00:00:01,1234567Z", Conversions::Iso8601, 1123456},
      {u"  2024-02-29 13:45:07.000123  ", Conversions::Iso8601, LeapDay},
      {u"2024-02-29T14:45:07.000123+0100", Conversions::Iso8601, LeapDay},
      {u"2024-02-29T14:45:07.000123+01", Conversions::Iso8601, LeapDay},
      {u"2024-02-29T08:15:07.000123-05:30", Conversions::Iso8601, LeapDay},
      {u"2024-02-29", Conversions::Iso8601, LeapDayMidnight},
      {u"Thu, 29 Feb 2024 13:45:07 GMT", Conversions::Rfc1123, LeapDay - 123},
      {u"29 Feb 2024 13:45:07.000123 UTC", Conversions::Rfc1123, LeapDay},
      {u"thu, 29 FEB 2024 13:45:07.000123 ut", Conversions::Rfc1123, LeapDay},
      {u"Thu,29 Feb 2024 15:45:07.000123 +02:00", Conversions::Rfc1123, LeapDay},
      {u"Thu, 29 Feb 2024 13:45:07.000123", Conversions::Rfc1123, LeapDay},
      {u"Thu, 29 Feb 2024 13:45 Z", Conversions::Rfc1123, LeapDay - 7000123},
      {u"\tThu, 29 Feb 2024 ", Conversions::Rfc1123, LeapDayMidnight},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(StringBuffer(c.text));
    EXPECT_EQ(ParseTimestamp(c.text, c.conversion), c.expected);
  }
}

TEST(ParseTimestampTest, GivesZeroForTextInNoKnownForm) {
  const char16_t* isoTexts[] = {
      u"",
      u"garbage",
      u"2024-02-30",
      u"2023-02-29",
      u"2024-13-01",
      u"2024-00-10",
      u"2024-02-29T24:00:00Z",
      u"2024-02-29T12:60:00Z",
      u"2024-02-29T12:00:60Z",
      u"2024-02-29T12:00:00+24:00",
      u"2024-02-29T12:00:00Zjunk",
      u"2024-02-29T12Z",
      u"1969-12-31T23:59:59Z",
      u"1970-01-01T00:30:00+01:00",
      u"1234567-01-01",
      u"24-02-29",
      u"2024-02-29T12:00:00.Z",
      u"Thu, 29 Feb 2024 13:45:07 GMT",
      u"2024-2-29",
      u"999999-12-31T00:00:00Z",  // past the largest time value
  };
  for (const char16_t* text : isoTexts) {
    SCOPED_TRACE(StringBuffer(text));
    EXPECT_EQ(ParseTimestamp(text, Conversions::Iso8601), 0u);
  }
  const char16_t* rfcTexts[] = {
      u"2024-02-29T13:45:07Z",
      u"Thursday, 29 Feb 2024",
      u"Thu 29 Feb 2024",
      u"Thu, 29 Febr 2024",
      u"Thu, 29 Feb 24",
      u"Thu, 30 Feb 2024",
      u"Thu, 29 Feb 2024 13:45:07 CET",
      u"Thu, 29 Feb 2024 13:45:07 GMT+1",
      u"Thu, 29 Feb 2024 1:45:07 GMT",
      u"Thu, 1 Jan 1970 00:00 +0100",
  };
  for (const char16_t* text : rfcTexts) {
    SCOPED_TRACE(StringBuffer(text));
    EXPECT_EQ(ParseTimestamp(text, Conversions::Rfc1123), 0u);
  }
  EXPECT_EQ(ParseTimestamp(nullptr, Conversions::Iso8601), 0u);
  EXPECT_EQ(ParseTimestamp(u"2024-02-29", static_cast<Conversions::Enumeration>(9)), 0u);
  // One microsecond past the largest time value.
  StringBuffer largest = FormatTimestamp(UINT64_MAX, Styles::Iso8601);
  largest.findAndReplace(u"551615Z", u"551616Z");
  EXPECT_EQ(ParseTimestamp(largest, Conversions::Iso8601), 0u);
}

// Mangled time stamps: whatever the parser accepts must be a time value it reads back exactly.
TEST(ParseTimestampTest, MangledTextNeverReadsAsAnotherTime) {
  std::mt19937 random(20240229);
  const std::u16string alphabet = u"0123456789-:+.,TZ GMTUhFeb\t";
  const std::u16string seeds[] = {u"2024-02-29T13:45:07.000123+01:00",
                                  u"Thu, 29 Feb 2024 13:45:07.000123 +0100"};
  int accepted = 0;
  for (int round = 0; round < 4000; ++round) {
    std::u16string text = seeds[round % 2];
    for (int edits = 1 + static_cast<int>(random() % 3); edits > 0; --edits) {
      const std::size_t at = random() % (text.size() + 1);
      const char16_t unit = alphabet[random() % alphabet.size()];
      switch (random() % 3) {
        case 0:
          text.insert(at, 1, unit);
          break;
        case 1:
          if (at < text.size()) text.erase(at, 1);
          break;
        default:
          if (at < text.size()) text[at] = unit;
      }
    }
    const auto conversion = round % 2 ? Conversions::Rfc1123 : Conversions::Iso8601;
    const std::uint64_t time = ParseTimestamp(text.c_str(), conversion);
    if (time == 0) continue;
    ++accepted;
    SCOPED_TRACE(StringBuffer(text.c_str()));
    ASSERT_EQ(ParseTimestamp(FormatTimestamp(time, round % 2), conversion), time);
  }
  EXPECT_GT(accepted, 100);  // the edits must leave enough texts readable to check anything
}

}  // namespace
}  // namespace Veskan
