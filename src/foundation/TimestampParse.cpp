// Reading time values back from the ISO 8601 and RFC 1123 forms. A pure function of the text:
// every form carries its own offset, so no time zone of the system is consulted.
#include <veskan/Timepoint.h>

#include "foundation/Calendar.h"

#include <cstdint>

namespace Veskan {

namespace {

// The fields read from a text; the offset is local time minus UTC.
struct Moment {
  std::int64_t year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int microsecond = 0;
  int offsetSeconds = 0;
};

char16_t LowerAscii(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
}

bool IsDigit(char16_t unit) {
  return unit >= u'0' && unit <= u'9';
}

// A cursor over a terminated text. Reading past the end sees the terminator, which matches
// nothing, so no step can run off the text.
class Scanner {
 public:
  explicit Scanner(const char16_t* text) : next_(text) {}

  char16_t Peek(int ahead = 0) const {
    for (int i = 0; i < ahead; ++i) {
      if (!next_[i]) return 0;
    }
    return next_[ahead];
  }
  bool AtEnd() const { return *next_ == 0; }

  bool Take(char16_t unit) {
    if (*next_ != unit || unit == 0) return false;
    ++next_;
    return true;
  }

  // One of the units in `units`.
  bool TakeAny(const char16_t* units) {
    for (; *units; ++units) {
      if (Take(*units)) return true;
    }
    return false;
  }

  // The ASCII `word` in any letter case, not followed by another letter.
  bool TakeWord(const char* word) {
    int i = 0;
    for (; word[i]; ++i) {
      if (LowerAscii(next_[i]) != LowerAscii(static_cast<char16_t>(word[i]))) return false;
    }
    const char16_t after = LowerAscii(next_[i]);
    if (after >= u'a' && after <= u'z') return false;
    next_ += i;
    return true;
  }

  // Exactly `count` decimal digits.
  bool TakeDigits(int count, int& value) {
    value = 0;
    for (int i = 0; i < count; ++i) {
      if (!IsDigit(next_[i])) return false;
      value = value * 10 + (next_[i] - u'0');
    }
    next_ += count;
    return true;
  }

  // Between `minimum` and `maximum` decimal digits, not followed by another digit.
  template <typename Integer>
  bool TakeNumber(int minimum, int maximum, Integer& value) {
    value = 0;
    int count = 0;
    while (count < maximum && IsDigit(*next_)) {
      value = value * 10 + (*next_++ - u'0');
      ++count;
    }
    return count >= minimum && !IsDigit(*next_);
  }

  // One or more decimal digits after a point, as microseconds; digits past the sixth are cut.
  bool TakeFraction(int& microseconds) {
    if (!IsDigit(*next_)) return false;
    microseconds = 0;
    int count = 0;
    for (; IsDigit(*next_); ++next_, ++count) {
      if (count < 6) microseconds = microseconds * 10 + (*next_ - u'0');
    }
    for (; count < 6; ++count)
      microseconds *= 10;
    return true;
  }

  // Spaces and tabs; true when there was at least one.
  bool SkipSpaces() {
    const char16_t* start = next_;
    while (*next_ == u' ' || *next_ == u'\t')
      ++next_;
    return next_ != start;
  }

 private:
  const char16_t* next_;
};

// "hh:mm", then optionally ":ss" and a fraction after '.' or ','.
bool ReadTimeOfDay(Scanner& scan, Moment& moment) {
  if (!scan.TakeDigits(2, moment.hour) || !scan.Take(u':') || !scan.TakeDigits(2, moment.minute)) {
    return false;
  }
  if (!scan.Take(u':')) return true;
  if (!scan.TakeDigits(2, moment.second)) return false;
  if (scan.TakeAny(u".,")) return scan.TakeFraction(moment.microsecond);
  return true;
}

// A sign followed by "hh:mm", "hhmm" or "hh".
bool ReadNumericOffset(Scanner& scan, int& offsetSeconds) {
  const bool negative = scan.Peek() == u'-';
  int hours = 0;
  int minutes = 0;
  if (!scan.TakeAny(u"+-") || !scan.TakeDigits(2, hours)) return false;
  if ((scan.Take(u':') || IsDigit(scan.Peek())) && !scan.TakeDigits(2, minutes)) return false;
  if (hours > 23 || minutes > 59) return false;
  offsetSeconds = (negative ? -1 : 1) * (hours * 3600 + minutes * 60);
  return true;
}

// 1970-01-01, 1970-01-01T00:00:01.500000Z, 1970-01-01T01:00:01.5+01:00 ...
bool ReadIso8601(Scanner& scan, Moment& moment) {
  if (!scan.TakeNumber(4, 6, moment.year) || !scan.Take(u'-') ||
      !scan.TakeDigits(2, moment.month) || !scan.Take(u'-') || !scan.TakeDigits(2, moment.day)) {
    return false;
  }
  const bool timeFollows =
      scan.TakeAny(u"Tt") || (scan.Peek() == u' ' && IsDigit(scan.Peek(1)) && scan.Take(u' '));
  if (!timeFollows) return true;
  if (!ReadTimeOfDay(scan, moment)) return false;
  if (scan.TakeAny(u"Zz")) return true;
  if (scan.Peek() == u'+' || scan.Peek() == u'-')
    return ReadNumericOffset(scan, moment.offsetSeconds);
  return true;
}

// Thu, 01 Jan 1970; Thu, 1 Jan 1970 00:00:00.000000 GMT; Thu, 1 Jan 1970 01:00:00 +0100 ...
bool ReadRfc1123(Scanner& scan, Moment& moment) {
  for (const char* name : Detail::DayNames) {
    if (scan.TakeWord(name)) {
      if (!scan.Take(u',')) return false;
      scan.SkipSpaces();
      break;
    }
  }
  if (!scan.TakeNumber(1, 2, moment.day) || !scan.SkipSpaces()) return false;
  for (int month = 0; month < 12 && moment.month == 0; ++month) {
    if (scan.TakeWord(Detail::MonthNames[month])) moment.month = month + 1;
  }
  if (moment.month == 0 || !scan.SkipSpaces() || !scan.TakeNumber(4, 6, moment.year)) return false;
  if (!scan.SkipSpaces() || scan.AtEnd()) return true;
  if (!ReadTimeOfDay(scan, moment)) return false;
  if (!scan.SkipSpaces() || scan.AtEnd()) return true;
  if (scan.TakeWord("GMT") || scan.TakeWord("UTC") || scan.TakeWord("UT") || scan.TakeWord("Z")) {
    return true;
  }
  return ReadNumericOffset(scan, moment.offsetSeconds);
}

// The time value of a complete, valid moment, or 0.
std::uint64_t ToTimeValue(const Moment& moment) {
  if (moment.month < 1 || moment.month > 12 || moment.day < 1 ||
      moment.day > Detail::DaysInMonth(moment.year, moment.month) || moment.hour > 23 ||
      moment.minute > 59 || moment.second > 59) {
    return 0;
  }
  const std::int64_t seconds =
      Detail::DaysFromCivil(moment.year, moment.month, moment.day) * 86400 + moment.hour * 3600 +
      moment.minute * 60 + moment.second - moment.offsetSeconds;
  if (seconds < 0) return 0;
  const std::uint64_t whole = static_cast<std::uint64_t>(seconds);
  const std::uint64_t fraction = static_cast<std::uint64_t>(moment.microsecond);
  if (whole > (UINT64_MAX - fraction) / 1000000) return 0;
  return whole * 1000000 + fraction;
}

}  // namespace

const char16_t* DateTimeConversions::ToString(Enumeration value) {
  switch (value) {
    case Iso8601:
      return u"Iso8601";
    case Rfc1123:
      return u"Rfc1123";
  }
  return u"##invalid value##";
}

std::uint64_t ParseTimestamp(const char16_t* text, DateTimeConversions::Enumeration conversion) {
  if (!text) return 0;
  Scanner scan(text);
  scan.SkipSpaces();
  Moment moment;
  bool read = false;
  switch (conversion) {
    case DateTimeConversions::Iso8601:
      read = ReadIso8601(scan, moment);
      break;
    case DateTimeConversions::Rfc1123:
      read = ReadRfc1123(scan, moment);
      break;
  }
  scan.SkipSpaces();
  if (!read || !scan.AtEnd()) return 0;
  return ToTimeValue(moment);
}

}  // namespace Veskan
