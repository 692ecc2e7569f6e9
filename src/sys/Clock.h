// The system's clocks and its calendar: the operating system's side of Timepoint and of the
// time-value functions.
#ifndef VESKAN_SYS_CLOCK_H
#define VESKAN_SYS_CLOCK_H

#include <cstdint>

namespace Veskan {
namespace Sys {

// A reading of the monotonic clock, in ticks from an unspecified start. It never goes back and
// does not follow changes of the wall-clock time.
std::int64_t MonotonicTicks();

// The number of MonotonicTicks per second; constant for the life of the process.
std::int64_t MonotonicTicksPerSecond();

// The monotonic clock in nanoseconds, on the same scale as MonotonicTicks turned into
// nanoseconds, read more cheaply and lagging it by up to a few milliseconds (a scheduler tick):
// for time-outs counted in seconds that are read on every event.
std::int64_t CoarseMonotonicNanoseconds();

// The wall-clock time in microseconds since 1970-01-01 00:00:00 UTC; 0 when the clock is set
// before that.
std::uint64_t RealTimeMicroseconds();

// One moment broken down into the fields of the Gregorian calendar.
struct CalendarTime {
  int year = 0;              // e.g. 1970
  int month = 0;             // 1 to 12
  int day = 0;               // 1 to 31
  int hour = 0;              // 0 to 23
  int minute = 0;            // 0 to 59
  int second = 0;            // 0 to 59
  int weekday = 0;           // 0 is Sunday
  int utcOffsetSeconds = 0;  // east of UTC: local time minus UTC
};

// Breaks `seconds` since the epoch down in UTC; false when the system cannot represent it.
bool BreakDownUtc(std::int64_t seconds, CalendarTime& time);

// Breaks `seconds` since the epoch down in the process's local time zone (the TZ environment
// variable as it is now, daylight saving included); false when the system cannot.
bool BreakDownLocal(std::int64_t seconds, CalendarTime& time);

}  // namespace Sys
}  // namespace Veskan

#endif
