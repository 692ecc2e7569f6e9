// The XPath engine's date, time and duration values: lexical forms, canonical strings,
// comparison, arithmetic and time zones.
#include "xml/xpath/XPathCalendar.h"

#include "xml/xpath/XPathValue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {
namespace {

constexpr CalendarKind kDateTime = CalendarKind::DateTime;
constexpr CalendarKind kDate = CalendarKind::Date;
constexpr CalendarKind kTime = CalendarKind::Time;
constexpr DurationKind kDuration = DurationKind::Duration;
constexpr DurationKind kYearMonth = DurationKind::YearMonth;
constexpr DurationKind kDayTime = DurationKind::DayTime;

std::string Ascii(std::u16string_view text) {
  std::string out;
  for (const char16_t c : text)
    out += c < 0x80 ? static_cast<char>(c) : '?';
  return out;
}

Calendar Cal(CalendarKind kind, std::u16string_view text) {
  const std::optional<Calendar> value = ParseCalendar(kind, text);
  EXPECT_TRUE(value) << Ascii(text);
  return value.value_or(Calendar{});
}

Duration Dur(DurationKind kind, std::u16string_view text) {
  const std::optional<Duration> value = ParseDuration(kind, text);
  EXPECT_TRUE(value) << Ascii(text);
  return value.value_or(Duration{});
}

std::string Str(const Calendar& value) {
  return Ascii(ToString(value));
}

std::string Str(const Duration& value) {
  return Ascii(ToString(value));
}

// The code leading the error `action` throws, or "none".
std::string ErrorCode(const std::function<void()>& action) {
  try {
    action();
  } catch (const XPathError& error) {
    return Ascii(std::u16string(error.getMessage())).substr(0, 8);
  }
  return "none";
}

TEST(XPathCalendar, RejectsEveryKindOfLexicalFault) {
  const std::vector<std::pair<CalendarKind, std::u16string>> calendars = {
      {kDate, u"2001-02-29"},
      {kDate, u"1900-02-29"},
      {kDate, u"2004-04-31"},
      {kDate, u"0000-01-01"},
      {kDate, u"-0000-01-01"},
      {kDate, u"02004-01-01"},
      {kDate, u"204-01-01"},
      {kDate, u"2004-1-01"},
      {kDate, u"2004-13-01"},
      {kDate, u"2004-01-01T"},
      {kTime, u"24:00:01"},
      {kTime, u"24:00:00.5"},
      {kTime, u"12:60:00"},
      {kTime, u"12:00:60"},
      {kTime, u"12:00:00."},
      {kTime, u"12:00"},
      {kTime, u"12:00:00+14:01"},
      {kTime, u"12:00:00+15:00"},
      {kTime, u"12:00:00+05:60"},
      {kTime, u"12:00:00+5:00"},
      {kTime, u"11:11:11.+11"},
      {kDateTime, u"2004-01-01 10:00:00"},
      {kDateTime, u"2004-01-01T10:00"},
      {CalendarKind::GMonthDay, u"--02-30"},
      {CalendarKind::GMonth, u"--02--"},
      {CalendarKind::GDay, u"---32"},
      {CalendarKind::GYear, u"+2004"},
      {CalendarKind::GYearMonth, u"2004"}};
  for (const auto& [kind, text] : calendars)
    EXPECT_FALSE(ParseCalendar(kind, text)) << Ascii(text);

  const std::vector<std::pair<DurationKind, std::u16string>> durations = {
      {kDuration, u"P"},       {kDuration, u"PT"},      {kDuration, u"P1YT"},
      {kDuration, u"-P"},      {kDuration, u"+P1Y"},    {kDuration, u"P1Y1Y"},
      {kDuration, u"P1M1Y"},   {kDuration, u"PT1S1M"},  {kDuration, u"P1.5Y"},
      {kDuration, u"PT1.5M"},  {kDuration, u"PT.5S"},   {kDuration, u"PT30.S"},
      {kDuration, u"P-1D"},    {kDuration, u"PT1HT1M"}, {kYearMonth, u"P1D"},
      {kYearMonth, u"P1YT1H"}, {kDayTime, u"P1Y"},      {kDayTime, u"P1M1D"}};
  for (const auto& [kind, text] : durations)
    EXPECT_FALSE(ParseDuration(kind, text)) << Ascii(text);

  // The leap days that do exist, including 1 BCE's ("-0001") in the proleptic calendar.
  for (const std::u16string_view text : {u"2000-02-29", u"2004-02-29", u"-0001-02-29"})
    EXPECT_TRUE(ParseCalendar(kDate, text)) << Ascii(text);
  EXPECT_TRUE(ParseCalendar(CalendarKind::GMonthDay, u"--02-29"));
}

TEST(XPathCalendar, ValuesBeyondTheRangeOverflow) {
  EXPECT_EQ(Str(Cal(kDate, u"25252734927766555-07-28")), "25252734927766555-07-28");
  EXPECT_EQ(Str(Cal(kDate, u"-25252734927766555-06-07")), "-25252734927766555-06-07");
  EXPECT_EQ(ErrorCode([] { ParseCalendar(kDate, u"25252734927766555-07-29"); }), "FODT0001");
  EXPECT_EQ(ErrorCode([] { ParseCalendar(kDate, u"-25252734927766555-06-06"); }), "FODT0001");
  EXPECT_EQ(ErrorCode([] { ParseCalendar(kDateTime, u"25252734927766555-07-28T24:00:00"); }),
            "FODT0001");
  EXPECT_EQ(
      ErrorCode([] { ParseCalendar(CalendarKind::GYearMonth, u"99999999999999999999999-01"); }),
      "FODT0001");

  EXPECT_EQ(Dur(kYearMonth, u"P768614336404564650Y").months, 9223372036854775800);
  EXPECT_EQ(ErrorCode([] { ParseDuration(kDuration, u"-P768614336404564651Y"); }), "FODT0002");
  EXPECT_EQ(ErrorCode([] { ParseDuration(kDayTime, u"P106751991167301D"); }), "FODT0002");
  EXPECT_EQ(ErrorCode([] { ParseDuration(kDayTime, u"PT99999999999999999999S"); }), "FODT0002");
}

TEST(XPathCalendar, DurationArithmetic) {
  EXPECT_EQ(Str(Add(Dur(kDayTime, u"PT0.75S"), Dur(kDayTime, u"-PT1.5S"))), "-PT0.75S");
  EXPECT_EQ(Str(Subtract(Dur(kYearMonth, u"P1Y"), Dur(kYearMonth, u"P13M"))), "-P1M");
  EXPECT_EQ(
      ErrorCode([] { Add(Dur(kYearMonth, u"P768614336404564650Y"), Dur(kYearMonth, u"P8M")); }),
      "FODT0002");
  EXPECT_EQ(ErrorCode([] {
              Subtract(Dur(kDayTime, u"-PT9223372036854775807S"), Dur(kDayTime, u"PT1S"));
            }),
            "FODT0002");

  // Months round halves toward positive infinity.
  const std::vector<std::pair<double, std::string>> rounding = {
      {-3.5, "-P3M"}, {-0.5, "P0M"}, {-0.1, "P0M"}, {0.5, "P1M"}, {3.5, "P4M"}, {3.9, "P4M"}};
  for (const auto& [factor, expected] : rounding)
    EXPECT_EQ(Str(Multiply(Dur(kYearMonth, u"P1M"), factor)), expected) << factor;
  // The factor's decimal value counts, not its nearest binary fraction: 35 * 2.3 is 80.5.
  EXPECT_EQ(Str(Multiply(Dur(kYearMonth, u"P2Y11M"), 2.3)), "P6Y9M");
  EXPECT_EQ(Str(Multiply(Dur(kDayTime, u"PT2H10M"), 2.1)), "PT4H33M");
  EXPECT_EQ(Str(Multiply(Dur(kDayTime, u"P3DT4H3M3.100S"), 3)), "P9DT12H9M9.3S");
  EXPECT_EQ(Str(Multiply(Dur(kDayTime, u"P36500D"), 1.1)), "P40150D");
  EXPECT_EQ(Str(Multiply(Dur(kDayTime, u"PT1S"), 1.0 / 3)), "PT0.333333333S");
  EXPECT_EQ(Str(Divide(Dur(kDayTime, u"P10DT01H01M"), -2.0)), "-P5DT30M30S");
  EXPECT_EQ(Str(Divide(Dur(kYearMonth, u"P5M"), -2)), "-P2M");
  EXPECT_EQ(Str(Divide(Dur(kDayTime, u"P3D"), -std::numeric_limits<double>::infinity())), "PT0S");
  EXPECT_EQ(Str(Divide(Dur(kDayTime, u"P31DT23H59M59S"), -1.7976931348623157e308)), "PT0S");
  EXPECT_EQ(Str(Multiply(Dur(kYearMonth, u"P0M"), 1.7976931348623157e308)), "P0M");

  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(ErrorCode([&] { Multiply(Dur(kYearMonth, u"P1M"), nan); }), "FOCA0005");
  EXPECT_EQ(ErrorCode([&] { Divide(Dur(kDayTime, u"P1D"), nan); }), "FOCA0005");
  EXPECT_EQ(ErrorCode([&] { Multiply(Dur(kDayTime, u"P1D"), -inf); }), "FODT0002");
  EXPECT_EQ(ErrorCode([] { Divide(Dur(kDayTime, u"P1D"), -0.0); }), "FODT0002");
  EXPECT_EQ(ErrorCode([] { Multiply(Dur(kDayTime, u"P1D"), 1e300); }), "FODT0002");
  EXPECT_EQ(ErrorCode([] { Multiply(Dur(kYearMonth, u"P1000Y"), 1e18); }), "FODT0002");

  const auto ratio = [](DurationKind kind, std::u16string_view a, std::u16string_view b) {
    const Ratio r = Divide(Dur(kind, a), Dur(kind, b));
    return std::to_string(r.numerator) + "/" + std::to_string(r.denominator);
  };
  EXPECT_EQ(ratio(kYearMonth, u"P3Y4M", u"-P1Y4M"), "-5/2");
  EXPECT_EQ(ratio(kDayTime, u"P2DT53M11S", u"P1DT10H"), "175991/122400");
  EXPECT_EQ(ratio(kDayTime, u"PT1.5S", u"PT0.000000002S"), "750000000/1");
  EXPECT_EQ(ErrorCode([] { Divide(Dur(kDayTime, u"P1D"), Dur(kDayTime, u"PT0S")); }), "FOAR0001");
}

TEST(XPathCalendar, CalendarFacts) {
  EXPECT_EQ(DaysInMonth(1900, 2), 28);
  EXPECT_EQ(DaysInMonth(2000, 2), 29);
  EXPECT_EQ(DaysInMonth(-1, 2), 29);
  EXPECT_EQ(DaysInMonth(-2, 2), 28);
  EXPECT_EQ(DayOfWeek(Cal(kDate, u"2024-02-29")), 4);  // a Thursday
  EXPECT_EQ(DayOfWeek(Cal(kDate, u"-0001-12-31")), 7);
  EXPECT_EQ(DayOfYear(Cal(kDate, u"2024-12-31")), 366);
  EXPECT_EQ(DayOfYear(Cal(kDateTime, u"2023-03-01T00:00:00")), 60);
}

}  // namespace
}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
