// Time values as text: the RFC 1123 and ISO 8601 forms, and ICU's date formats of the user's
// locale.
#include <veskan/Timepoint.h>

#include "foundation/Calendar.h"
#include "sys/Clock.h"

#include <unicode/datefmt.h>
#include <unicode/locid.h>
#include <unicode/simpletz.h>
#include <unicode/smpdtfmt.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace Veskan {

namespace {

// The printf forms are written into a buffer of this many characters (and a terminator).
constexpr std::size_t MaxPrintedLength = 60;

// The seconds with their microseconds, as "%2.6f" prints them from 10 seconds on and "0%1.6f"
// below: always two integer digits and six decimals. They are printed from integers because
// printf takes the decimal point from the C locale, which the host may have changed.
struct SecondsField {
  char text[32];
  SecondsField(int seconds, int microseconds) {
    std::snprintf(text, sizeof text, "%02d.%06d", seconds, microseconds);
  }
};

// The offset from UTC as a sign and hours and minutes.
struct Offset {
  char sign;
  int hours;
  int minutes;
  explicit Offset(int seconds)
      : sign(seconds < 0 ? '-' : '+'),
        hours(std::abs(seconds) / 3600),
        minutes(std::abs(seconds) % 3600 / 60) {}
};

// The printed text, which is ASCII (so its UTF-8 reading is exact), or empty when printf failed.
StringBuffer Printed(const char* text, int length) {
  return length < 0 ? StringBuffer() : StringBuffer(text);
}

// The system's RFC 1123 patterns, with the seconds field passed in as text.
StringBuffer PrintRfc1123(const Sys::CalendarTime& time, int microseconds, int style) {
  const char* day = Detail::DayNames[time.weekday];
  const char* month = Detail::MonthNames[time.month - 1];
  char text[MaxPrintedLength + 1];
  if (style & TimestampStyles::DateOnly) {
    return Printed(
        text, std::snprintf(text, sizeof text, "%s, %02d %s %d", day, time.day, month, time.year));
  }
  const SecondsField seconds(time.second, microseconds);
  if (style & TimestampStyles::Local) {
    const Offset offset(time.utcOffsetSeconds);
    return Printed(text, std::snprintf(text, sizeof text, "%s, %0d %s %d %02d:%02d:%s %c%02d%02d",
                                       day, time.day, month, time.year, time.hour, time.minute,
                                       seconds.text, offset.sign, offset.hours, offset.minutes));
  }
  return Printed(
      text, std::snprintf(text, sizeof text, "%s, %0d %s %d %02d:%02d:%s GMT", day, time.day, month,
                          time.year, time.hour, time.minute, seconds.text));
}

// The system's ISO 8601 patterns, with the seconds field passed in as text.
StringBuffer PrintIso8601(const Sys::CalendarTime& time, int microseconds, int style) {
  char text[MaxPrintedLength + 1];
  if (style & TimestampStyles::DateOnly) {
    return Printed(
        text, std::snprintf(text, sizeof text, "%04d-%02d-%02d", time.year, time.month, time.day));
  }
  const SecondsField seconds(time.second, microseconds);
  if (style & TimestampStyles::Local) {
    const Offset offset(time.utcOffsetSeconds);
    return Printed(text, std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%s%c%02d:%02d",
                                       time.year, time.month, time.day, time.hour, time.minute,
                                       seconds.text, offset.sign, offset.hours, offset.minutes));
  }
  return Printed(text, std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%sZ", time.year,
                                     time.month, time.day, time.hour, time.minute, seconds.text));
}

// ICU's formatter for a locale style, or for "MMM d"; null when ICU cannot make it.
std::unique_ptr<icu::DateFormat> CreateLocaleFormat(int style) {
  const icu::Locale& locale = icu::Locale::getDefault();
  if (style == TimestampStyles::MonthDay) {
    UErrorCode status = U_ZERO_ERROR;
    auto format = std::make_unique<icu::SimpleDateFormat>(u"MMM d", locale, status);
    return U_SUCCESS(status) ? std::move(format) : nullptr;
  }
  const icu::DateFormat::EStyle chosen =
      (style & TimestampStyles::LocaleMedium) ? icu::DateFormat::kMedium : icu::DateFormat::kShort;
  if (style & TimestampStyles::DateOnly) {
    return std::unique_ptr<icu::DateFormat>(icu::DateFormat::createDateInstance(chosen, locale));
  }
  if (style & TimestampStyles::TimeOnly) {
    return std::unique_ptr<icu::DateFormat>(icu::DateFormat::createTimeInstance(chosen, locale));
  }
  return std::unique_ptr<icu::DateFormat>(
      icu::DateFormat::createDateTimeInstance(chosen, chosen, locale));
}

StringBuffer PrintLocale(std::uint64_t time, const Sys::CalendarTime& broken, int style) {
  std::unique_ptr<icu::DateFormat> format = CreateLocaleFormat(style);
  if (!format) return StringBuffer();
  // ICU reads the host's zone once per process; a zone of the offset the system gives for this
  // very moment keeps the locale forms in step with TZ and with the printf forms.
  const int offsetMilliseconds =
      (style & TimestampStyles::Local) ? broken.utcOffsetSeconds * 1000 : 0;
  format->adoptTimeZone(new icu::SimpleTimeZone(offsetMilliseconds, u"Veskan"));
  const UDate milliseconds = static_cast<UDate>(time / 1000);
  StringBuffer text;
  format->format(milliseconds, text);
  text.getTerminatedBuffer();
  return text;
}

}  // namespace

StringBuffer TimestampStyles::ToString(int value) {
  if (value == Iso8601) return StringBuffer(u"Iso8601");
  if (value == MonthDay) return StringBuffer(u"MonthDay");
  constexpr int Flags = Rfc1123 | DateOnly | Local | TimeOnly | LocaleMedium | LocaleShort;
  if (value & ~Flags) return StringBuffer(u"##invalid value##");
  StringBuffer names;
  for (auto [flag, name] : {std::pair<int, const char16_t*>{Rfc1123, u"Rfc1123"},
                            {DateOnly, u"DateOnly"},
                            {Local, u"Local"},
                            {TimeOnly, u"TimeOnly"},
                            {LocaleMedium, u"LocaleMedium"},
                            {LocaleShort, u"LocaleShort"}}) {
    if (!(value & flag)) continue;
    if (!names.isEmpty()) names += u'|';
    names += name;
  }
  return names;
}

StringBuffer FormatTimestamp(std::uint64_t time, int style) {
  const std::int64_t seconds = static_cast<std::int64_t>(time / 1000000);
  const int microseconds = static_cast<int>(time % 1000000);
  Sys::CalendarTime broken;
  const bool local = (style & TimestampStyles::Local) != 0;
  if (!(local ? Sys::BreakDownLocal(seconds, broken) : Sys::BreakDownUtc(seconds, broken))) {
    return StringBuffer();
  }
  if (style & TimestampStyles::Rfc1123) return PrintRfc1123(broken, microseconds, style);
  if (style & (TimestampStyles::LocaleMedium | TimestampStyles::LocaleShort) ||
      style == TimestampStyles::MonthDay) {
    return PrintLocale(time, broken, style);
  }
  return PrintIso8601(broken, microseconds, style);
}

}  // namespace Veskan
