// The XML Schema date, time and duration values of the XPath engine: their lexical forms and
// canonical strings, comparison, arithmetic, casting between them and time-zone adjustment.
//
// Years follow XML Schema 1.0: there is no year 0, "-0001" is the year before "0001", and the
// calendar is the proleptic Gregorian one (so "-0001" is a leap year, like 1 BCE). A value holds
// every field of a date and time; the fields its kind does not have are fixed so that values of
// one kind compare as points on the time line: a time lies on 1972-12-31, a gMonthDay in 1972 (a
// leap year), a gDay in December 1972, a gMonth on the first of its month in 1972, a gYear on its
// first of January, a gYearMonth on the first of its month, every date at 00:00:00.
//
// Supported range: dates whose day count from 0001-01-01 fits a signed 64-bit integer, that is
// from -25252734927766555-06-07 to 25252734927766555-07-28, and durations whose total months
// and whole seconds each fit a signed 64-bit integer (about 292 billion years of seconds).
// Results beyond it raise FODT0001 (dates and times) or FODT0002 (durations).
//
// Fractional seconds are kept to the nanosecond: an int32 count beside the whole seconds, so that
// neither precision nor range is lost when durations span millions of years. Lexical forms with
// more than nine fractional digits are truncated to nine.
//
// Errors are the engine's XPathError (TYPE_ERR) whose message starts with the standard code and
// ": ". All functions are pure and thread-safe: they touch nothing but their arguments.
#ifndef VESKAN_XML_XPATH_XPATHCALENDAR_H
#define VESKAN_XML_XPATH_XPATHCALENDAR_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Veskan {
namespace Detail {
namespace XPath {

enum class CalendarKind : unsigned char {
  DateTime,
  Date,
  Time,
  GYearMonth,
  GYear,
  GMonthDay,
  GDay,
  GMonth
};

enum class DurationKind : unsigned char { Duration, YearMonth, DayTime };

// A decimal number as `unscaled / 10^scale`, scale >= 0 and as small as the value allows (no
// trailing zeros in the fraction): 12.5 is {125, 1}, 7 is {7, 0}.
struct ScaledDecimal {
  std::int64_t unscaled = 0;
  int scale = 0;
};

// A date, a time, a date and time or one of the g* values. Values made by this module are valid
// and normalised: month 1..12, day within the month, hour 0..23 ("24:00:00" reads as 00:00:00 of
// the next day), minute 0..59, second 0..59, nanosecond 0..999999999, the fields the kind does
// not have at their fixed values (see the file comment). Code that fills one in itself must keep
// these invariants; the functions below assume them.
struct Calendar {
  CalendarKind kind = CalendarKind::DateTime;
  std::int64_t year = 1972;  // never 0; negative before the common era
  int month = 12;
  int day = 31;
  int hour = 0;
  int minute = 0;
  int second = 0;
  std::int32_t nanosecond = 0;
  std::optional<int> timezone;  // minutes east of UTC, -840..840; none when the value has none

  // The seconds with their fraction, for fn:seconds-from-*: 0 to 59.999999999.
  ScaledDecimal Seconds() const;
};

// A duration: total months and total seconds, never of opposite signs. `nanoseconds` has the
// sign of `seconds` (or of the whole value when `seconds` is 0) and |nanoseconds| < 10^9. A
// yearMonthDuration has no seconds and a dayTimeDuration no months. Neither total is ever
// INT64_MIN, so every value can be negated.
struct Duration {
  DurationKind kind = DurationKind::Duration;
  std::int64_t months = 0;
  std::int64_t seconds = 0;
  std::int32_t nanoseconds = 0;

  // The components fn:years-from-duration and the others return, each with the sign of the
  // whole value: -P1Y13M gives -2 years and -1 month; -PT90.5S gives -1 minute, -30.5 seconds.
  std::int64_t YearsPart() const { return months / 12; }
  int MonthsPart() const { return static_cast<int>(months % 12); }
  std::int64_t DaysPart() const { return seconds / 86400; }
  int HoursPart() const { return static_cast<int>(seconds / 3600 % 24); }
  int MinutesPart() const { return static_cast<int>(seconds / 60 % 60); }
  ScaledDecimal SecondsPart() const;

  bool IsZero() const { return months == 0 && seconds == 0 && nanoseconds == 0; }
};

// ---- Lexical forms

// Reads the XML Schema lexical form of `kind` (the caller trims whitespace). Returns nullopt when
// the text is not of that form or names no such date (2001-02-29, 24:00:01, +14:01, a year 0000
// or a year with a leading zero beyond four digits). Throws FODT0001 for a well-formed value
// outside the supported range.
std::optional<Calendar> ParseCalendar(CalendarKind kind, std::u16string_view text);

// Reads "-?PnYnMnDTnHnMn.nS" with at least one component and no "T" without a time component;
// a yearMonthDuration allows only Y and M, a dayTimeDuration only D, H, M and S. Returns nullopt
// for any other text. Throws FODT0002 when the total months or seconds overflow.
std::optional<Duration> ParseDuration(DurationKind kind, std::u16string_view text);

// The canonical forms casting to xs:string gives: "2002-10-10T12:00:00.5Z", "-0044-03-15",
// "12:00:00+05:30", "--12-25", "---05", "--11"; "Z" for a zero zone; the fraction without trailing
// zeros and left out when zero.
std::u16string ToString(const Calendar& value);

// "P1Y2M", "P1DT2H", "-PT0.5S"; zero is "P0M" for a yearMonthDuration and "PT0S" otherwise.
std::u16string ToString(const Duration& value);

// ---- Casting

// Whether XPath casts a `from` value to `to`: any kind to itself; a dateTime to every other kind;
// a date to a dateTime and to the g* kinds.
bool CanCast(CalendarKind from, CalendarKind to);

// The value cast to `kind`, keeping its time zone: the fields `kind` has are kept and the others
// take their fixed values (a date becomes a dateTime at 00:00:00). Throws XPTY0004 when CanCast
// says no.
Calendar Cast(const Calendar& value, CalendarKind kind);

// The duration cast to `kind`: casting to yearMonthDuration drops the seconds, to dayTimeDuration
// the months.
Duration Cast(const Duration& value, DurationKind kind);

// ---- Comparison

// -1, 0 or 1 as `a` is before, at or after `b` on the time line; both of one kind. A value without
// a time zone is taken in `implicitTimezone` (minutes east of UTC). Never overflows, even for
// the range's extremes.
int Compare(const Calendar& a, const Calendar& b, int implicitTimezone);

// Equal months and equal seconds (any kinds: P0M equals PT0S).
bool Equal(const Duration& a, const Duration& b);

// -1, 0 or 1 comparing two yearMonthDurations or two dayTimeDurations (months first, then
// seconds; xs:duration values have no order of their own).
int Compare(const Duration& a, const Duration& b);

// Hashes consistent with Compare(...) == 0 for a fixed `implicitTimezone`, and with Equal.
std::size_t Hash(const Calendar& value, int implicitTimezone);
std::size_t Hash(const Duration& value);

// ---- Arithmetic

// A dateTime, date or time plus a duration: the months first, clamping the day to the length of
// the month reached (2001-01-31 plus one month is 2001-02-28), then the seconds. A date takes the
// date part of the result at 00:00:00 and its zone; a time ignores the months and wraps around
// midnight. The zone is kept. Throws FODT0001 when the result leaves the supported range,
// XPTY0004 for a g* value.
Calendar Add(const Calendar& value, const Duration& duration);
Calendar Subtract(const Calendar& value, const Duration& duration);

// The dayTimeDuration from `b` to `a` (two dateTimes, two dates or two times), each taken in
// `implicitTimezone` when it has no zone. Throws FODT0001 when it exceeds the supported range.
Duration Subtract(const Calendar& a, const Calendar& b, int implicitTimezone);

// Sum and difference, of the kind of `a`. Throws FODT0002 on overflow.
Duration Add(const Duration& a, const Duration& b);
Duration Subtract(const Duration& a, const Duration& b);

// The duration times or divided by a double. The exact product of the duration and the
// multiplier's shortest decimal form (2.1, not the binary fraction nearest it) is rounded to a
// whole month or nanosecond, halves toward positive infinity as fn:round does (P1M * -0.5 is P0M,
// P1M * 0.5 is P1M). Throws FOCA0005 for NaN; FODT0002 for an infinite multiplier, a zero
// divisor or a result out of range. Dividing by an infinity gives zero.
Duration Multiply(const Duration& value, double factor);
Duration Divide(const Duration& value, double divisor);

// The exact quotient of two yearMonthDurations or two dayTimeDurations as a reduced fraction,
// denominator > 0, for the caller to turn into an xs:decimal. Throws FOAR0001 when `b` is zero;
// FODT0002 when numerator or denominator do not fit 64 bits (only for seconds with nanosecond
// fractions over centuries).
struct Ratio {
  std::int64_t numerator = 0;
  std::int64_t denominator = 1;
};
Ratio Divide(const Duration& a, const Duration& b);

// ---- Time zones

// The time zone a dayTimeDuration names, in minutes, for fn:adjust-*-to-timezone. Throws
// FODT0003 unless it lies within -PT14H..PT14H and is a whole number of minutes.
int TimezoneFromDuration(const Duration& duration);

// The dayTimeDuration of a zone, for fn:timezone-from-* and fn:implicit-timezone.
Duration TimezoneToDuration(int minutes);

// fn:adjust-dateTime-to-timezone and its date and time forms. With no `timezone`, the zone is
// removed and the local fields kept. Otherwise a value without a zone gets `timezone` and a value
// with one is moved to the same instant in `timezone` (a date as its 00:00:00; a time wraps
// around the day). The one-argument functions pass the implicit time zone. Throws FODT0003 for a
// zone beyond 14 hours, FODT0001 when the result leaves the supported range, XPTY0004 for a g*
// value.
Calendar AdjustToTimezone(const Calendar& value, std::optional<int> timezone);

// fn:dateTime: the date's fields and the time's, with the zone either has. Throws FORG0008 when
// both have zones and they differ.
Calendar CombineDateTime(const Calendar& date, const Calendar& time);

// ---- Calendar facts, for formatting

// 28 to 31 (a year as in Calendar::year, never 0).
int DaysInMonth(std::int64_t year, int month);

// 1 (Monday) to 7 (Sunday), and 1 to 366 for the day of the year, of the value's local date.
int DayOfWeek(const Calendar& value);
int DayOfYear(const Calendar& value);

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
