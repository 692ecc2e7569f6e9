// The XML Schema date, time and duration values of the XPath engine.
//
// Dates are worked on as day numbers: days since 0001-01-01 in the proleptic Gregorian calendar,
// with "astronomical" years internally (the year before 1 is 0), converted from and to the
// lexical years, which skip 0. The supported range is exactly the dates whose day number fits
// an int64, checked wherever a result is formed.
#include "xml/xpath/XPathCalendar.h"

#include "xml/xpath/XPathValue.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kNanosPerSecond = 1000000000;
constexpr std::int64_t kSecondsPerDay = 86400;
constexpr int kMaxTimezone = 14 * 60;

[[noreturn]] void ThrowDateOverflow() {
  ThrowTypeError(u"FODT0001", u"date/time value out of the supported range");
}

[[noreturn]] void ThrowDurationOverflow() {
  ThrowTypeError(u"FODT0002", u"duration value out of the supported range");
}

// ---- Checked and floored integer arithmetic

bool CheckedAdd(std::int64_t a, std::int64_t b, std::int64_t& out) {
  if (b > 0 ? a > kMax - b : a < kMin - b) return false;
  out = a + b;
  return true;
}

bool CheckedSubtract(std::int64_t a, std::int64_t b, std::int64_t& out) {
  if (b < 0 ? a > kMax + b : a < kMin + b) return false;
  out = a - b;
  return true;
}

bool CheckedMultiply(std::int64_t a, std::int64_t b, std::int64_t& out) {
  if (a > 0) {
    if (b > 0 ? a > kMax / b : b < kMin / a) return false;
  } else if (a < 0) {
    if (b > 0 ? a < kMin / b : b < kMax / a) return false;
  }
  out = a * b;
  return true;
}

std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  if (a % b != 0 && (a < 0) != (b < 0)) --q;
  return q;
}

std::int64_t FloorMod(std::int64_t a, std::int64_t b) {
  const std::int64_t r = a % b;
  return r != 0 && (r < 0) != (b < 0) ? r + b : r;
}

std::uint64_t Magnitude(std::int64_t value) {
  return value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
}

// ---- The calendar

std::int64_t ToAstronomical(std::int64_t year) {
  return year > 0 ? year : year + 1;
}

std::int64_t FromAstronomical(std::int64_t year) {
  return year > 0 ? year : year - 1;
}

bool IsLeap(std::int64_t astronomicalYear) {
  return astronomicalYear % 4 == 0 && (astronomicalYear % 100 != 0 || astronomicalYear % 400 == 0);
}

int MonthLength(std::int64_t astronomicalYear, int month) {
  static constexpr std::array<int, 12> kLengths = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(astronomicalYear) ? 29 : kLengths[month - 1];
}

// Days since 0001-01-01, or nullopt beyond int64. The year is split into 400-year eras of
// 146097 days, counted from March so that the leap day ends the year.
std::optional<std::int64_t> DayNumber(std::int64_t astronomicalYear, int month, int day) {
  const std::int64_t y = astronomicalYear - (month <= 2 ? 1 : 0);
  std::int64_t era = FloorDiv(y, 400);
  const std::int64_t yearOfEra = y - era * 400;
  const std::int64_t dayOfYear = (153 * ((month + 9) % 12) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  // Day 0 is the 306th day of the era's year 0 (March-based).
  std::int64_t rest = dayOfEra - 306;
  std::int64_t base = 0;
  if (!CheckedMultiply(era, 146097, base)) {
    // Near the ends of the range the era alone may overflow while the day does not: move one
    // era's days into the remainder.
    rest += era < 0 ? -146097 : 146097;
    era += era < 0 ? 1 : -1;
    if (!CheckedMultiply(era, 146097, base)) return std::nullopt;
  }
  std::int64_t days = 0;
  if (!CheckedAdd(base, rest, days)) return std::nullopt;
  return days;
}

struct CivilDate {
  std::int64_t astronomicalYear;
  int month;
  int day;
};

CivilDate FromDayNumber(std::int64_t days) {
  std::int64_t era = days / 146097;
  std::int64_t dayOfEra = days % 146097;
  if (dayOfEra < 0) {
    dayOfEra += 146097;
    --era;
  }
  dayOfEra += 306;
  if (dayOfEra >= 146097) {
    dayOfEra -= 146097;
    ++era;
  }
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
  CivilDate date{};
  date.day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
  date.month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
  date.astronomicalYear = era * 400 + yearOfEra + (date.month <= 2 ? 1 : 0);
  return date;
}

std::int64_t LocalDayNumber(const Calendar& value) {
  const std::optional<std::int64_t> days =
      DayNumber(ToAstronomical(value.year), value.month, value.day);
  if (!days) ThrowDateOverflow();
  return *days;
}

void SetDate(Calendar& value, std::int64_t days) {
  const CivilDate date = FromDayNumber(days);
  value.year = FromAstronomical(date.astronomicalYear);
  value.month = date.month;
  value.day = date.day;
}

std::int64_t SecondOfDay(const Calendar& value) {
  return value.hour * 3600 + value.minute * 60 + value.second;
}

void SetTimeOfDay(Calendar& value, std::int64_t secondOfDay) {
  value.hour = static_cast<int>(secondOfDay / 3600);
  value.minute = static_cast<int>(secondOfDay / 60 % 60);
  value.second = static_cast<int>(secondOfDay % 60);
}

// The fields a kind has; the others keep the values Reference gives them.
struct KindFields {
  bool year, month, day, time;
};

KindFields FieldsOf(CalendarKind kind) {
  switch (kind) {
    case CalendarKind::DateTime:
      return {true, true, true, true};
    case CalendarKind::Date:
      return {true, true, true, false};
    case CalendarKind::Time:
      return {false, false, false, true};
    case CalendarKind::GYearMonth:
      return {true, true, false, false};
    case CalendarKind::GYear:
      return {true, false, false, false};
    case CalendarKind::GMonthDay:
      return {false, true, true, false};
    case CalendarKind::GDay:
      return {false, false, true, false};
    case CalendarKind::GMonth:
      return {false, true, false, false};
  }
  return {true, true, true, true};
}

Calendar Reference(CalendarKind kind) {
  Calendar value;
  value.kind = kind;
  value.year = 1972;
  value.month = kind == CalendarKind::Time || kind == CalendarKind::GDay ? 12 : 1;
  value.day = kind == CalendarKind::Time ? 31 : 1;
  return value;
}

// A point on the time line: a day number and the seconds from its start, which a time zone
// may push below 0 or past a day.
struct Instant {
  std::int64_t day;
  std::int64_t second;
  std::int32_t nanosecond;
};

Instant UtcInstant(const Calendar& value, int implicitTimezone) {
  const int timezone = value.timezone.value_or(implicitTimezone);
  return {LocalDayNumber(value), SecondOfDay(value) - timezone * 60, value.nanosecond};
}

int CompareInstants(const Instant& a, const Instant& b) {
  if (a.day != b.day) {
    // The seconds stay within a day and a zone of the day's start, so days three or more apart
    // decide alone; their unsigned difference is exact where the signed one could overflow.
    const bool later = a.day > b.day;
    const std::uint64_t gap =
        later ? static_cast<std::uint64_t>(a.day) - static_cast<std::uint64_t>(b.day)
              : static_cast<std::uint64_t>(b.day) - static_cast<std::uint64_t>(a.day);
    if (gap > 2) return later ? 1 : -1;
    const std::int64_t seconds = (a.day - b.day) * kSecondsPerDay + (a.second - b.second);
    if (seconds != 0) return seconds < 0 ? -1 : 1;
  } else if (a.second != b.second) {
    return a.second < b.second ? -1 : 1;
  }
  return a.nanosecond < b.nanosecond ? -1 : (a.nanosecond > b.nanosecond ? 1 : 0);
}

void RequireArithmeticKind(const Calendar& value) {
  if (value.kind != CalendarKind::DateTime && value.kind != CalendarKind::Date &&
      value.kind != CalendarKind::Time)
    ThrowTypeError(u"XPTY0004", u"only dateTime, date and time values take durations");
}

void AddMonths(Calendar& value, std::int64_t months) {
  std::int64_t total = 0;
  if (!CheckedMultiply(ToAstronomical(value.year), 12, total) ||
      !CheckedAdd(total, value.month - 1, total) || !CheckedAdd(total, months, total))
    ThrowDateOverflow();
  const std::int64_t year = FloorDiv(total, 12);
  const int month = static_cast<int>(FloorMod(total, 12)) + 1;
  const int day = std::min(value.day, MonthLength(year, month));
  if (!DayNumber(year, month, day)) ThrowDateOverflow();
  value.year = FromAstronomical(year);
  value.month = month;
  value.day = day;
}

// Adds seconds and nanoseconds of any signs; a time wraps around its day.
void AddSeconds(Calendar& value, std::int64_t seconds, std::int64_t nanoseconds) {
  const std::int64_t nanos = value.nanosecond + nanoseconds;
  value.nanosecond = static_cast<std::int32_t>(FloorMod(nanos, kNanosPerSecond));
  // Split before adding so that no sum overflows: whole days, then what is left within two days.
  const std::int64_t within =
      FloorMod(seconds, kSecondsPerDay) + SecondOfDay(value) + FloorDiv(nanos, kNanosPerSecond);
  SetTimeOfDay(value, FloorMod(within, kSecondsPerDay));
  if (value.kind == CalendarKind::Time) return;
  const std::int64_t dayShift =
      FloorDiv(seconds, kSecondsPerDay) + FloorDiv(within, kSecondsPerDay);
  std::int64_t day = 0;
  if (!CheckedAdd(LocalDayNumber(value), dayShift, day)) ThrowDateOverflow();
  SetDate(value, day);
}

// Gives nanoseconds (any value below two seconds' worth) the sign of the seconds; false when
// the seconds overflow or reach INT64_MIN, which has no negation.
bool NormalizeSeconds(std::int64_t& seconds, std::int64_t& nanoseconds) {
  if (!CheckedAdd(seconds, nanoseconds / kNanosPerSecond, seconds)) return false;
  nanoseconds %= kNanosPerSecond;
  if (seconds > 0 && nanoseconds < 0) {
    --seconds;
    nanoseconds += kNanosPerSecond;
  } else if (seconds < 0 && nanoseconds > 0) {
    ++seconds;
    nanoseconds -= kNanosPerSecond;
  }
  return seconds != kMin;
}

Duration Negate(const Duration& value) {
  Duration result = value;
  result.months = -value.months;
  result.seconds = -value.seconds;
  result.nanoseconds = -value.nanoseconds;
  return result;
}

ScaledDecimal Trimmed(std::int64_t unscaled, int scale) {
  while (scale > 0 && unscaled % 10 == 0) {
    unscaled /= 10;
    --scale;
  }
  return {unscaled, scale};
}

// ---- Reading

class Reader {
 public:
  explicit Reader(std::u16string_view text) : text_(text) {}

  bool AtEnd() const { return pos_ == text_.size(); }
  char16_t Peek() const { return AtEnd() ? u'\0' : text_[pos_]; }

  bool Take(char16_t c) {
    if (Peek() != c) return false;
    ++pos_;
    return true;
  }

  // The number of digits from the current position on.
  std::size_t DigitRun() const {
    std::size_t end = pos_;
    while (end < text_.size() && IsDigit(text_[end]))
      ++end;
    return end - pos_;
  }

  // Exactly `count` digits.
  bool Fixed(std::size_t count, int& value) {
    if (DigitRun() < count) return false;
    value = 0;
    for (std::size_t i = 0; i < count; ++i)
      value = value * 10 + (text_[pos_++] - u'0');
    return true;
  }

  // `count` digits as an int64; `overflow` is set, not cleared, when they exceed it.
  std::int64_t Number(std::size_t count, bool& overflow) {
    std::int64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const int digit = text_[pos_++] - u'0';
      if (value > (kMax - digit) / 10) overflow = true;
      if (!overflow) value = value * 10 + digit;
    }
    return value;
  }

  // `count` fractional digits as nanoseconds (those past the ninth truncated); `nonZero` tells
  // whether any of them is not 0.
  std::int32_t Fraction(std::size_t count, bool& nonZero) {
    std::int32_t nanos = 0;
    nonZero = false;
    for (std::size_t i = 0; i < count; ++i) {
      const int digit = text_[pos_++] - u'0';
      if (digit != 0) nonZero = true;
      if (i < 9) nanos = nanos * 10 + digit;
    }
    for (std::size_t i = count; i < 9; ++i)
      nanos *= 10;
    return nanos;
  }

  static bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

 private:
  std::u16string_view text_;
  std::size_t pos_ = 0;
};

// '-'? yyyy+, four digits or more without a leading zero; 0000 names no year.
bool ReadYear(Reader& reader, Calendar& value, bool& overflow) {
  const bool negative = reader.Take(u'-');
  const std::size_t count = reader.DigitRun();
  if (count < 4 || (count > 4 && reader.Peek() == u'0')) return false;
  const std::int64_t year = reader.Number(count, overflow);
  if (!overflow && year == 0) return false;
  value.year = negative ? -year : year;
  return true;
}

bool ReadMonth(Reader& reader, Calendar& value) {
  return reader.Fixed(2, value.month) && value.month >= 1 && value.month <= 12;
}

bool ReadDay(Reader& reader, Calendar& value) {
  return reader.Fixed(2, value.day) && value.day >= 1 && value.day <= 31;
}

// hh:mm:ss(.s+)?, with 24:00:00 as the only time in hour 24.
bool ReadTime(Reader& reader, Calendar& value) {
  if (!reader.Fixed(2, value.hour) || !reader.Take(u':') || !reader.Fixed(2, value.minute) ||
      !reader.Take(u':') || !reader.Fixed(2, value.second))
    return false;
  bool fractionNonZero = false;
  if (reader.Take(u'.')) {
    const std::size_t count = reader.DigitRun();
    if (count == 0) return false;
    value.nanosecond = reader.Fraction(count, fractionNonZero);
  }
  if (value.minute > 59 || value.second > 59 || value.hour > 24) return false;
  return value.hour < 24 || (value.minute == 0 && value.second == 0 && !fractionNonZero);
}

// Z or (+|-)hh:mm within 14:00.
bool ReadTimezone(Reader& reader, Calendar& value) {
  if (reader.Take(u'Z')) {
    value.timezone = 0;
    return true;
  }
  const bool negative = reader.Take(u'-');
  if (!negative && !reader.Take(u'+')) return false;
  int hours = 0;
  int minutes = 0;
  if (!reader.Fixed(2, hours) || !reader.Take(u':') || !reader.Fixed(2, minutes)) return false;
  if (minutes > 59 || hours * 60 + minutes > kMaxTimezone) return false;
  value.timezone = (negative ? -1 : 1) * (hours * 60 + minutes);
  return true;
}

bool ReadFields(CalendarKind kind, Reader& reader, Calendar& value, bool& overflow) {
  switch (kind) {
    case CalendarKind::DateTime:
      return ReadYear(reader, value, overflow) && reader.Take(u'-') && ReadMonth(reader, value) &&
             reader.Take(u'-') && ReadDay(reader, value) && reader.Take(u'T') &&
             ReadTime(reader, value);
    case CalendarKind::Date:
      return ReadYear(reader, value, overflow) && reader.Take(u'-') && ReadMonth(reader, value) &&
             reader.Take(u'-') && ReadDay(reader, value);
    case CalendarKind::Time:
      return ReadTime(reader, value);
    case CalendarKind::GYearMonth:
      return ReadYear(reader, value, overflow) && reader.Take(u'-') && ReadMonth(reader, value);
    case CalendarKind::GYear:
      return ReadYear(reader, value, overflow);
    case CalendarKind::GMonthDay:
      return reader.Take(u'-') && reader.Take(u'-') && ReadMonth(reader, value) &&
             reader.Take(u'-') && ReadDay(reader, value);
    case CalendarKind::GDay:
      return reader.Take(u'-') && reader.Take(u'-') && reader.Take(u'-') && ReadDay(reader, value);
    case CalendarKind::GMonth:
      return reader.Take(u'-') && reader.Take(u'-') && ReadMonth(reader, value);
  }
  return false;
}

// ---- Writing

void AppendPadded(std::string& out, std::uint64_t value, std::size_t width) {
  const std::string digits = std::to_string(value);
  if (digits.size() < width) out.append(width - digits.size(), '0');
  out += digits;
}

// ".5", ".000001"; nothing for zero.
void AppendFraction(std::string& out, std::int64_t nanoseconds) {
  if (nanoseconds == 0) return;
  std::string digits;
  AppendPadded(digits, static_cast<std::uint64_t>(nanoseconds), 9);
  digits.erase(digits.find_last_not_of('0') + 1);
  out += '.';
  out += digits;
}

std::u16string Widen(const std::string& text) {
  return std::u16string(text.begin(), text.end());
}

// ---- Exact scaling of durations
//
// Durations are multiplied and divided through unsigned integers of any length, held as
// decimal digits (most significant first): the products of nanosecond counts and a double's
// seventeen digits reach far past 64 bits, and only the rounded result has to fit.

using BigDigits = std::vector<std::uint8_t>;

BigDigits ToDigits(std::uint64_t value) {
  BigDigits digits;
  for (const char c : std::to_string(value))
    digits.push_back(static_cast<std::uint8_t>(c - '0'));
  return digits;
}

BigDigits MultiplyDigits(const BigDigits& a, const BigDigits& b) {
  std::vector<std::uint64_t> sums(a.size() + b.size(), 0);
  for (std::size_t i = 0; i < a.size(); ++i) {
    for (std::size_t j = 0; j < b.size(); ++j)
      sums[i + j + 1] += static_cast<std::uint64_t>(a[i]) * b[j];
  }
  BigDigits product(sums.size(), 0);
  std::uint64_t carry = 0;
  for (std::size_t i = sums.size(); i-- > 0;) {
    const std::uint64_t total = sums[i] + carry;
    product[i] = static_cast<std::uint8_t>(total % 10);
    carry = total / 10;
  }
  return product;
}

// Floor division by `divisor` (below 10^18 so that no step overflows); `inexact` is set when a
// remainder is left.
BigDigits DivideDigits(const BigDigits& digits, std::uint64_t divisor, bool& inexact) {
  BigDigits quotient;
  std::uint64_t remainder = 0;
  for (const std::uint8_t digit : digits) {
    remainder = remainder * 10 + digit;
    quotient.push_back(static_cast<std::uint8_t>(remainder / divisor));
    remainder %= divisor;
  }
  if (remainder != 0) inexact = true;
  return quotient;
}

// Nullopt beyond INT64_MAX.
std::optional<std::int64_t> DigitsToInt(BigDigits::const_iterator begin,
                                        BigDigits::const_iterator end) {
  std::int64_t value = 0;
  for (auto it = begin; it != end; ++it) {
    if (value > (kMax - *it) / 10) return std::nullopt;
    value = value * 10 + *it;
  }
  return value;
}

// `magnitude` times `factor`, or divided by it, rounded to an integer the way fn:round rounds
// a value of sign `negative`. The factor comes as its decimal digits (at most seventeen) and the
// power of ten of the first: "21" and 0 for 2.1.
BigDigits ScaleMagnitude(const BigDigits& magnitude, const std::string& factor, int factorExponent,
                         bool divide, bool negative) {
  BigDigits f;
  std::uint64_t fValue = 0;
  for (const char c : factor) {
    f.push_back(static_cast<std::uint8_t>(c - '0'));
    fValue = fValue * 10 + static_cast<std::uint64_t>(c - '0');
  }
  const int e = factorExponent - static_cast<int>(factor.size()) + 1;
  // Twice the result, floored: its last bit tells whether the fraction reaches a half, and
  // `inexact` whether it passes it.
  BigDigits x = MultiplyDigits(magnitude, ToDigits(2));
  if (!divide) x = MultiplyDigits(x, f);
  const int up = divide ? -e : e;
  bool inexact = false;
  if (up > 0) {
    x.insert(x.end(), static_cast<std::size_t>(up), 0);
  } else if (up < 0) {
    const std::size_t drop = std::min(x.size(), static_cast<std::size_t>(-up));
    inexact = std::any_of(x.end() - static_cast<std::ptrdiff_t>(drop), x.end(),
                          [](std::uint8_t d) { return d != 0; });
    x.resize(x.size() - drop);
  }
  if (divide) x = DivideDigits(x, fValue, inexact);
  const bool atLeastHalf = !x.empty() && x.back() % 2 == 1;
  bool ignored = false;
  x = DivideDigits(x, 2, ignored);
  // Halves go toward positive infinity: up for positive values, toward zero for negative ones.
  if (atLeastHalf && (!negative || inexact)) {
    std::size_t i = x.size();
    while (i > 0 && x[i - 1] == 9)
      x[--i] = 0;
    if (i == 0) {
      x.insert(x.begin(), 1);
    } else {
      ++x[i - 1];
    }
  }
  return x;
}

Duration Scale(const Duration& value, double factor, bool divide) {
  if (std::isnan(factor)) ThrowTypeError(u"FOCA0005", u"NaN cannot multiply or divide a duration");
  if (!divide && std::isinf(factor)) ThrowDurationOverflow();
  if (divide && factor == 0) ThrowDurationOverflow();
  Duration result;
  result.kind = value.kind;
  if (value.IsZero() || (divide && std::isinf(factor)) || (!divide && factor == 0)) return result;
  // The shortest decimal digits that read back as the factor, and the power of ten of the
  // first: 2.1 gives "21" and 0.
  std::array<char, 64> buffer{};
  const auto written = std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                                     std::fabs(factor), std::chars_format::scientific);
  const std::string_view text(buffer.data(), static_cast<std::size_t>(written.ptr - buffer.data()));
  const std::size_t e = text.find('e');
  std::string digits;
  for (std::size_t i = 0; i < e; ++i) {
    if (text[i] != '.') digits += text[i];
  }
  int exponent = 0;
  std::from_chars(text.data() + e + 1 + (text[e + 1] == '+' ? 1 : 0), text.data() + text.size(),
                  exponent);

  const bool negative =
      (value.months < 0 || value.seconds < 0 || value.nanoseconds < 0) != (factor < 0);
  if (value.months != 0) {
    const BigDigits months =
        ScaleMagnitude(ToDigits(Magnitude(value.months)), digits, exponent, divide, negative);
    const std::optional<std::int64_t> count = DigitsToInt(months.begin(), months.end());
    if (!count) ThrowDurationOverflow();
    result.months = negative ? -*count : *count;
  }
  if (value.seconds != 0 || value.nanoseconds != 0) {
    // The nanosecond count: the seconds' digits and nine more.
    BigDigits nanos = ToDigits(Magnitude(value.seconds));
    std::string fraction;
    AppendPadded(fraction, Magnitude(value.nanoseconds), 9);
    for (const char c : fraction)
      nanos.push_back(static_cast<std::uint8_t>(c - '0'));
    BigDigits total = ScaleMagnitude(nanos, digits, exponent, divide, negative);
    if (total.size() < 9) total.insert(total.begin(), 9 - total.size(), 0);
    const auto split = total.end() - 9;
    const std::optional<std::int64_t> seconds = DigitsToInt(total.begin(), split);
    if (!seconds) ThrowDurationOverflow();
    const auto fractionNanos = static_cast<std::int32_t>(*DigitsToInt(split, total.end()));
    result.seconds = negative ? -*seconds : *seconds;
    result.nanoseconds = negative ? -fractionNanos : fractionNanos;
  }
  return result;
}

void HashCombine(std::size_t& seed, std::uint64_t value) {
  seed ^= std::hash<std::uint64_t>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

}  // namespace

// ---- Members

ScaledDecimal Calendar::Seconds() const {
  return Trimmed(second * kNanosPerSecond + nanosecond, 9);
}

ScaledDecimal Duration::SecondsPart() const {
  return Trimmed(seconds % 60 * kNanosPerSecond + nanoseconds, 9);
}

// ---- Lexical forms

std::optional<Calendar> ParseCalendar(CalendarKind kind, std::u16string_view text) {
  Reader reader(text);
  Calendar value = Reference(kind);
  bool overflow = false;
  if (!ReadFields(kind, reader, value, overflow)) return std::nullopt;
  if (!reader.AtEnd() && !ReadTimezone(reader, value)) return std::nullopt;
  if (!reader.AtEnd()) return std::nullopt;
  if (overflow) ThrowDateOverflow();
  const std::int64_t year = ToAstronomical(value.year);
  if (value.day > MonthLength(year, value.month)) return std::nullopt;
  const std::optional<std::int64_t> day = DayNumber(year, value.month, value.day);
  if (!day) ThrowDateOverflow();
  if (value.hour == 24) {
    value.hour = 0;
    if (kind != CalendarKind::Time) {
      if (*day == kMax) ThrowDateOverflow();
      SetDate(value, *day + 1);
    }
  }
  return value;
}

std::optional<Duration> ParseDuration(DurationKind kind, std::u16string_view text) {
  Reader reader(text);
  const bool negative = reader.Take(u'-');
  if (!reader.Take(u'P')) return std::nullopt;
  // Each designator at most once and in this order; minutes are 'M' after the 'T'.
  static constexpr std::array<char16_t, 6> kDesignators = {u'Y', u'M', u'D', u'H', u'M', u'S'};
  std::array<std::int64_t, 6> parts{};
  std::array<bool, 6> present{};
  std::int32_t nanos = 0;
  bool overflow = false;
  bool timeSeen = false;
  std::size_t next = 0;
  while (!reader.AtEnd()) {
    if (!timeSeen && reader.Take(u'T')) {
      timeSeen = true;
      next = 3;
      continue;
    }
    const std::size_t count = reader.DigitRun();
    if (count == 0) return std::nullopt;
    const std::int64_t number = reader.Number(count, overflow);
    bool fraction = false;
    if (reader.Take(u'.')) {
      const std::size_t fractionCount = reader.DigitRun();
      if (fractionCount == 0) return std::nullopt;
      bool nonZero = false;
      nanos = reader.Fraction(fractionCount, nonZero);
      fraction = true;
    }
    const std::size_t end = timeSeen ? 6 : 3;
    std::size_t slot = next;
    while (slot < end && kDesignators[slot] != reader.Peek())
      ++slot;
    if (slot == end || (fraction && slot != 5)) return std::nullopt;
    reader.Take(kDesignators[slot]);
    parts[slot] = number;
    present[slot] = true;
    next = slot + 1;
  }
  const bool anyDate = present[0] || present[1] || present[2];
  const bool anyTime = present[3] || present[4] || present[5];
  if ((!anyDate && !anyTime) || (timeSeen && !anyTime)) return std::nullopt;
  if (kind == DurationKind::YearMonth && (present[2] || timeSeen)) return std::nullopt;
  if (kind == DurationKind::DayTime && (present[0] || present[1])) return std::nullopt;
  if (overflow) ThrowDurationOverflow();

  Duration value;
  value.kind = kind;
  std::int64_t months = 0;
  if (!CheckedMultiply(parts[0], 12, months) || !CheckedAdd(months, parts[1], months))
    ThrowDurationOverflow();
  std::int64_t seconds = 0;
  static constexpr std::array<std::int64_t, 4> kUnits = {kSecondsPerDay, 3600, 60, 1};
  for (std::size_t i = 0; i < 4; ++i) {
    std::int64_t partSeconds = 0;
    if (!CheckedMultiply(parts[2 + i], kUnits[i], partSeconds) ||
        !CheckedAdd(seconds, partSeconds, seconds))
      ThrowDurationOverflow();
  }
  value.months = negative ? -months : months;
  value.seconds = negative ? -seconds : seconds;
  value.nanoseconds = negative ? -nanos : nanos;
  return value;
}

std::u16string ToString(const Calendar& value) {
  const KindFields fields = FieldsOf(value.kind);
  std::string out;
  if (fields.year) {
    if (value.year < 0) out += '-';
    AppendPadded(out, Magnitude(value.year), 4);
  } else if (fields.month || fields.day) {
    out += '-';
  }
  if (fields.month) {
    out += '-';
    AppendPadded(out, static_cast<std::uint64_t>(value.month), 2);
  } else if (fields.day && !fields.year) {
    out += '-';
  }
  if (fields.day) {
    out += '-';
    AppendPadded(out, static_cast<std::uint64_t>(value.day), 2);
  }
  if (fields.time) {
    if (fields.day) out += 'T';
    AppendPadded(out, static_cast<std::uint64_t>(value.hour), 2);
    out += ':';
    AppendPadded(out, static_cast<std::uint64_t>(value.minute), 2);
    out += ':';
    AppendPadded(out, static_cast<std::uint64_t>(value.second), 2);
    AppendFraction(out, value.nanosecond);
  }
  if (value.timezone) {
    const int zone = *value.timezone;
    if (zone == 0) {
      out += 'Z';
    } else {
      out += zone < 0 ? '-' : '+';
      AppendPadded(out, static_cast<std::uint64_t>(std::abs(zone) / 60), 2);
      out += ':';
      AppendPadded(out, static_cast<std::uint64_t>(std::abs(zone) % 60), 2);
    }
  }
  return Widen(out);
}

std::u16string ToString(const Duration& value) {
  if (value.IsZero()) return value.kind == DurationKind::YearMonth ? u"P0M" : u"PT0S";
  const bool negative = value.months < 0 || value.seconds < 0 || value.nanoseconds < 0;
  const std::uint64_t months = Magnitude(value.months);
  const std::uint64_t seconds = Magnitude(value.seconds);
  const std::uint64_t nanos = Magnitude(value.nanoseconds);
  std::string out = negative ? "-P" : "P";
  const auto part = [&out](std::uint64_t number, char designator) {
    if (number == 0) return;
    out += std::to_string(number);
    out += designator;
  };
  part(months / 12, 'Y');
  part(months % 12, 'M');
  part(seconds / kSecondsPerDay, 'D');
  if (seconds % kSecondsPerDay != 0 || nanos != 0) {
    out += 'T';
    part(seconds / 3600 % 24, 'H');
    part(seconds / 60 % 60, 'M');
    if (seconds % 60 != 0 || nanos != 0) {
      out += std::to_string(seconds % 60);
      AppendFraction(out, static_cast<std::int64_t>(nanos));
      out += 'S';
    }
  }
  return Widen(out);
}

// ---- Casting

bool CanCast(CalendarKind from, CalendarKind to) {
  return from == to || from == CalendarKind::DateTime ||
         (from == CalendarKind::Date && to != CalendarKind::Time);
}

Calendar Cast(const Calendar& value, CalendarKind kind) {
  if (!CanCast(value.kind, kind))
    ThrowTypeError(u"XPTY0004", u"no cast between these date/time types");
  const KindFields fields = FieldsOf(kind);
  Calendar result = Reference(kind);
  result.timezone = value.timezone;
  if (fields.year) result.year = value.year;
  if (fields.month) result.month = value.month;
  if (fields.day) result.day = value.day;
  if (fields.time) {
    result.hour = value.hour;
    result.minute = value.minute;
    result.second = value.second;
    result.nanosecond = value.nanosecond;
  }
  return result;
}

Duration Cast(const Duration& value, DurationKind kind) {
  Duration result = value;
  result.kind = kind;
  if (kind == DurationKind::YearMonth) {
    result.seconds = 0;
    result.nanoseconds = 0;
  } else if (kind == DurationKind::DayTime) {
    result.months = 0;
  }
  return result;
}

// ---- Comparison

int Compare(const Calendar& a, const Calendar& b, int implicitTimezone) {
  return CompareInstants(UtcInstant(a, implicitTimezone), UtcInstant(b, implicitTimezone));
}

bool Equal(const Duration& a, const Duration& b) {
  return a.months == b.months && a.seconds == b.seconds && a.nanoseconds == b.nanoseconds;
}

int Compare(const Duration& a, const Duration& b) {
  if (a.months != b.months) return a.months < b.months ? -1 : 1;
  if (a.seconds != b.seconds) return a.seconds < b.seconds ? -1 : 1;
  if (a.nanoseconds != b.nanoseconds) return a.nanoseconds < b.nanoseconds ? -1 : 1;
  return 0;
}

std::size_t Hash(const Calendar& value, int implicitTimezone) {
  const Instant instant = UtcInstant(value, implicitTimezone);
  // Wrapping arithmetic: equal instants meet on the same words even where the day overflows.
  const std::uint64_t day = static_cast<std::uint64_t>(instant.day) +
                            static_cast<std::uint64_t>(FloorDiv(instant.second, kSecondsPerDay));
  std::size_t seed = static_cast<std::size_t>(value.kind);
  HashCombine(seed, day);
  HashCombine(seed, static_cast<std::uint64_t>(FloorMod(instant.second, kSecondsPerDay)));
  HashCombine(seed, static_cast<std::uint64_t>(instant.nanosecond));
  return seed;
}

std::size_t Hash(const Duration& value) {
  std::size_t seed = 0;
  HashCombine(seed, static_cast<std::uint64_t>(value.months));
  HashCombine(seed, static_cast<std::uint64_t>(value.seconds));
  HashCombine(seed, static_cast<std::uint64_t>(value.nanoseconds));
  return seed;
}

// ---- Arithmetic

Calendar Add(const Calendar& value, const Duration& duration) {
  RequireArithmeticKind(value);
  Calendar result = value;
  if (duration.months != 0 && value.kind != CalendarKind::Time) AddMonths(result, duration.months);
  if (duration.seconds != 0 || duration.nanoseconds != 0)
    AddSeconds(result, duration.seconds, duration.nanoseconds);
  if (value.kind == CalendarKind::Date) {
    SetTimeOfDay(result, 0);
    result.nanosecond = 0;
  }
  return result;
}

Calendar Subtract(const Calendar& value, const Duration& duration) {
  return Add(value, Negate(duration));
}

Duration Subtract(const Calendar& a, const Calendar& b, int implicitTimezone) {
  const Instant from = UtcInstant(a, implicitTimezone);
  const Instant to = UtcInstant(b, implicitTimezone);
  std::int64_t days = 0;
  std::int64_t seconds = 0;
  std::int64_t nanos = from.nanosecond - to.nanosecond;
  if (!CheckedSubtract(from.day, to.day, days) || !CheckedMultiply(days, kSecondsPerDay, seconds) ||
      !CheckedAdd(seconds, from.second - to.second, seconds) || !NormalizeSeconds(seconds, nanos))
    ThrowDateOverflow();
  Duration result;
  result.kind = DurationKind::DayTime;
  result.seconds = seconds;
  result.nanoseconds = static_cast<std::int32_t>(nanos);
  return result;
}

Duration Add(const Duration& a, const Duration& b) {
  Duration result;
  result.kind = a.kind;
  std::int64_t nanos = std::int64_t{a.nanoseconds} + b.nanoseconds;
  if (!CheckedAdd(a.months, b.months, result.months) || result.months == kMin ||
      !CheckedAdd(a.seconds, b.seconds, result.seconds) || !NormalizeSeconds(result.seconds, nanos))
    ThrowDurationOverflow();
  result.nanoseconds = static_cast<std::int32_t>(nanos);
  return result;
}

Duration Subtract(const Duration& a, const Duration& b) {
  return Add(a, Negate(b));
}

Duration Multiply(const Duration& value, double factor) {
  return Scale(value, factor, false);
}

Duration Divide(const Duration& value, double divisor) {
  return Scale(value, divisor, true);
}

Ratio Divide(const Duration& a, const Duration& b) {
  std::int64_t numerator = a.months;
  std::int64_t denominator = b.months;
  if (a.kind != DurationKind::YearMonth) {
    // Both seconds counts in the fewest fractional digits that hold them exactly.
    const auto digitsNeeded = [](std::int32_t nanos) {
      int digits = nanos == 0 ? 0 : 9;
      while (digits > 0 && nanos % 10 == 0) {
        nanos /= 10;
        --digits;
      }
      return digits;
    };
    const int scale = std::max(digitsNeeded(a.nanoseconds), digitsNeeded(b.nanoseconds));
    std::int64_t unit = 1;
    for (int i = 0; i < 9 - scale; ++i)
      unit *= 10;
    const std::int64_t perSecond = kNanosPerSecond / unit;
    if (!CheckedMultiply(a.seconds, perSecond, numerator) ||
        !CheckedAdd(numerator, a.nanoseconds / unit, numerator) ||
        !CheckedMultiply(b.seconds, perSecond, denominator) ||
        !CheckedAdd(denominator, b.nanoseconds / unit, denominator) || numerator == kMin ||
        denominator == kMin)
      ThrowDurationOverflow();
  }
  if (denominator == 0) ThrowTypeError(u"FOAR0001", u"division of a duration by a zero duration");
  if (denominator < 0) {
    numerator = -numerator;
    denominator = -denominator;
  }
  const std::int64_t divisor = std::gcd(numerator, denominator);
  return {numerator / divisor, denominator / divisor};
}

// ---- Time zones

int TimezoneFromDuration(const Duration& duration) {
  if (duration.months != 0 || duration.nanoseconds != 0 || duration.seconds % 60 != 0 ||
      std::abs(duration.seconds) > kMaxTimezone * 60)
    ThrowTypeError(u"FODT0003", u"a time zone must be whole minutes within 14 hours of UTC");
  return static_cast<int>(duration.seconds / 60);
}

Duration TimezoneToDuration(int minutes) {
  Duration result;
  result.kind = DurationKind::DayTime;
  result.seconds = std::int64_t{minutes} * 60;
  return result;
}

Calendar AdjustToTimezone(const Calendar& value, std::optional<int> timezone) {
  RequireArithmeticKind(value);
  if (timezone && std::abs(*timezone) > kMaxTimezone)
    ThrowTypeError(u"FODT0003", u"a time zone must lie within 14 hours of UTC");
  Calendar result = value;
  if (!timezone || !value.timezone) {
    result.timezone = timezone;
    return result;
  }
  result = Add(value, TimezoneToDuration(*timezone - *value.timezone));
  result.timezone = timezone;
  return result;
}

Calendar CombineDateTime(const Calendar& date, const Calendar& time) {
  if (date.timezone && time.timezone && *date.timezone != *time.timezone)
    ThrowTypeError(u"FORG0008", u"the date and the time have different time zones");
  Calendar result = Cast(date, CalendarKind::DateTime);
  result.hour = time.hour;
  result.minute = time.minute;
  result.second = time.second;
  result.nanosecond = time.nanosecond;
  result.timezone = date.timezone ? date.timezone : time.timezone;
  return result;
}

// ---- Calendar facts

int DaysInMonth(std::int64_t year, int month) {
  return MonthLength(ToAstronomical(year), month);
}

int DayOfWeek(const Calendar& value) {
  // 0001-01-01 was a Monday.
  return static_cast<int>(FloorMod(LocalDayNumber(value), 7)) + 1;
}

int DayOfYear(const Calendar& value) {
  int day = value.day;
  for (int month = 1; month < value.month; ++month)
    day += MonthLength(ToAstronomical(value.year), month);
  return day;
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
