// Time: Timepoint, a monotonic reading for measuring intervals, and time values, unsigned 64-bit
// microseconds since 1970-01-01 00:00:00 UTC, with the functions that obtain, format and parse
// them. The functions may be called from any thread.
#ifndef VESKAN_TIMEPOINT_H
#define VESKAN_TIMEPOINT_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <cstdint>

namespace Veskan {

// One reading of the system's monotonic high-resolution counter. The counter does not follow
// changes of the wall-clock time, so differences measure elapsed time only.
//
// Thread safety: a plain value; Now() may be called from any thread.
class VESKAN_API Timepoint {
 public:
  // A reading of 0, earlier than every Now().
  Timepoint() = default;

  // The current reading. The first call in the process also reads the counter's frequency.
  static Timepoint Now();

  // The elapsed time from `earlier` to this reading in microseconds: the counter difference times
  // 1,000,000 divided by the frequency, truncated toward zero. It cannot overflow for any two
  // readings. Negative when `earlier` is in fact the later one.
  std::int64_t operator-(const Timepoint& earlier) const;

 private:
  explicit Timepoint(std::int64_t ticks) : ticks_(ticks) {}

  std::int64_t ticks_ = 0;
};

// Bit flags of FormatTimestamp's style; an int holding any combination of them.
class VESKAN_API TimestampStyles {
 public:
  enum Enumeration : int {
    Iso8601 = 0,        // no flag: ISO 8601, "1970-01-01T00:00:01.500000Z"
    Rfc1123 = 1,        // the RFC 1123 family, "Thu, 1 Jan 1970 00:00:00.000000 GMT"
    DateOnly = 2,       // the date without the time of day
    Local = 4,          // the process's local time zone with its offset, instead of UTC
    TimeOnly = 8,       // the time of day without the date (the locale styles only)
    LocaleMedium = 16,  // ICU's medium date and time style of the default locale
    LocaleShort = 32,   // ICU's short date and time style of the default locale
    MonthDay = 70,      // exactly this value: abbreviated month and day ("Jan 1"), local time
  };
  // "MonthDay" for 70; otherwise the names of the flags set, joined by "|" ("Iso8601" for none);
  // "##invalid value##" for other bits.
  static StringBuffer ToString(int value);
};

// The textual forms that ParseTimestamp reads.
class VESKAN_API DateTimeConversions {
 public:
  enum Enumeration : int {
    // "1970-01-01T00:00:01.500000Z", "...+01:00", "1970-01-01": FormatTimestamp's ISO forms.
    Iso8601 = 0,
    // "Thu, 1 Jan 1970 00:00:00.000000 GMT", "... +0100", "Thu, 01 Jan 1970": the RFC 1123 forms,
    // which include HTTP dates.
    Rfc1123 = 1,
  };
  static const char16_t* ToString(Enumeration value);
};

// The current wall-clock time as a time value, moved by `offsetSeconds` (negative or fractional
// allowed, rounded to the microsecond). The result is clamped to the range of a time value: a
// move before 1970 gives 0. A NaN offset counts as 0.
VESKAN_API std::uint64_t CurrentTimeValue(double offsetSeconds = 0);

// FormatTimestamp(CurrentTimeValue(offsetSeconds), style).
VESKAN_API StringBuffer CurrentTimestamp(double offsetSeconds = 0,
                                         int style = TimestampStyles::Iso8601);

// The time value `time` as text in `style`, a combination of TimestampStyles flags:
//
//   Rfc1123               "Thu, 1 Jan 1970 00:00:09.000001 GMT"
//   Rfc1123|Local         "Thu, 1 Jan 1970 01:00:09.000001 +0100"
//   Rfc1123|DateOnly      "Thu, 01 Jan 1970" (UTC, or local with Local)
//   Iso8601               "1970-01-01T00:00:09.000001Z"
//   Local                 "1970-01-01T01:00:09.000001+01:00"
//   DateOnly              "1970-01-01" (UTC, or local with Local)
//   LocaleMedium, LocaleShort   ICU's date and time formats of the default locale, the date
//                               alone with DateOnly, the time alone with TimeOnly
//   MonthDay (exactly 70) ICU's "MMM d" in the default locale
//
// Seconds always have two integer digits and six decimals, and the point is '.' whatever the C
// locale. Local time is the process's time zone (TZ) at that moment, daylight saving included;
// the locale styles follow the Local flag in the same way. A time the system cannot break down
// gives the empty string.
VESKAN_API StringBuffer FormatTimestamp(std::uint64_t time, int style = TimestampStyles::Iso8601);

// The time value that `text` in the form `conversion` denotes. It reads back every printf form
// of FormatTimestamp and tolerates: white space around the text; a 'T' in either case or a space
// between ISO date and time; a fraction after '.' or ',' of any length (digits past the sixth
// are cut), or none; no seconds; any offset, as a sign with "hh:mm", "hhmm" or "hh", or "Z" (and
// in the RFC form "GMT", "UT" or "UTC"); no day name; names in any letter case. Text without an
// offset is read as UTC. Text in no known form, an impossible date or a moment outside the range
// of time values gives 0; it never throws.
VESKAN_API std::uint64_t ParseTimestamp(const char16_t* text,
                                        DateTimeConversions::Enumeration conversion);

}  // namespace Veskan

#endif
