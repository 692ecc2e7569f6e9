// Clocks and calendar on POSIX: clock_gettime, gmtime_r, localtime_r with tm_gmtoff.
#include "sys/Clock.h"

#include <time.h>

#include <limits>

namespace Veskan {
namespace Sys {

namespace {

constexpr std::int64_t NanosecondsPerSecond = 1000000000;

void FromTm(const struct tm& broken, long utcOffsetSeconds, CalendarTime& time) {
  time.year = broken.tm_year + 1900;
  time.month = broken.tm_mon + 1;
  time.day = broken.tm_mday;
  time.hour = broken.tm_hour;
  time.minute = broken.tm_min;
  // POSIX time has no leap seconds, but tm_sec admits 60: keep the field within a minute.
  time.second = broken.tm_sec > 59 ? 59 : broken.tm_sec;
  time.weekday = broken.tm_wday;
  time.utcOffsetSeconds = static_cast<int>(utcOffsetSeconds);
}

bool ToTimeT(std::int64_t seconds, time_t& value) {
  if (seconds < std::numeric_limits<time_t>::min() ||
      seconds > std::numeric_limits<time_t>::max()) {
    return false;
  }
  value = static_cast<time_t>(seconds);
  return true;
}

}  // namespace

std::int64_t MonotonicTicks() {
  struct timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * NanosecondsPerSecond + now.tv_nsec;
}

std::int64_t CoarseMonotonicNanoseconds() {
  struct timespec now;
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<std::int64_t>(now.tv_sec) * NanosecondsPerSecond + now.tv_nsec;
}

std::int64_t MonotonicTicksPerSecond() {
  return NanosecondsPerSecond;
}

std::uint64_t RealTimeMicroseconds() {
  struct timespec now;
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0 || now.tv_sec < 0) return 0;
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
         static_cast<std::uint64_t>(now.tv_nsec / 1000);
}

bool BreakDownUtc(std::int64_t seconds, CalendarTime& time) {
  time_t value;
  struct tm broken;
  if (!ToTimeT(seconds, value) || !::gmtime_r(&value, &broken)) return false;
  FromTm(broken, 0, time);
  return true;
}

bool BreakDownLocal(std::int64_t seconds, CalendarTime& time) {
  time_t value;
  if (!ToTimeT(seconds, value)) return false;
  // localtime_r, unlike localtime, need not look at TZ again; tzset makes a changed TZ count.
  ::tzset();
  struct tm broken;
  if (!::localtime_r(&value, &broken)) return false;
  FromTm(broken, broken.tm_gmtoff, time);
  return true;
}

}  // namespace Sys
}  // namespace Veskan
