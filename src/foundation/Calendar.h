// The English day and month names of the RFC 1123 date forms, and calendar arithmetic, shared by
// the formatting and the parsing of time stamps.
#ifndef VESKAN_FOUNDATION_CALENDAR_H
#define VESKAN_FOUNDATION_CALENDAR_H

#include <cstdint>

namespace Veskan {
namespace Detail {

// Indexed by the weekday, 0 being Sunday.
constexpr const char* DayNames[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
// Indexed by the month minus 1.
constexpr const char* MonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

constexpr bool IsLeapYear(std::int64_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// The number of days of `month` (1 to 12) in `year`.
constexpr int DaysInMonth(std::int64_t year, int month) {
  constexpr int Days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : Days[month - 1];
}

// The days from 1970-01-01 to the given date of the proleptic Gregorian calendar (negative
// before it), counted in whole 400-year eras so that it holds for any year (Howard Hinnant's
// days_from_civil).
constexpr std::int64_t DaysFromCivil(std::int64_t year, int month, int day) {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

}  // namespace Detail
}  // namespace Veskan

#endif
