// Timepoint and the current time value.
#include <veskan/Timepoint.h>

#include "foundation/TimeArithmetic.h"
#include "sys/Clock.h"

#include <cmath>
#include <cstdint>

namespace Veskan {

namespace {

// Read once per process, on first use.
std::int64_t TicksPerSecond() {
  static const std::int64_t frequency = Sys::MonotonicTicksPerSecond();
  return frequency;
}

}  // namespace

namespace Detail {

std::int64_t TicksToMicroseconds(std::int64_t ticks, std::int64_t frequency) {
  // Multiplying first would overflow after 2.5 hours of nanosecond ticks. Whole seconds and the
  // remainder apart give exactly the truncated quotient of the product.
  return ticks / frequency * 1000000 + ticks % frequency * 1000000 / frequency;
}

std::uint64_t MoveTimeValue(std::uint64_t time, double offsetSeconds) {
  if (std::isnan(offsetSeconds)) return time;
  const double micro = std::round(offsetSeconds * 1e6);
  // 2^63 is exact in a double; beyond it (infinities included) the result saturates anyway.
  constexpr double Limit = 9223372036854775808.0;
  if (micro >= Limit) return UINT64_MAX;
  if (micro <= -Limit) return 0;
  const std::int64_t shift = static_cast<std::int64_t>(micro);
  if (shift >= 0) {
    const std::uint64_t up = static_cast<std::uint64_t>(shift);
    return up > UINT64_MAX - time ? UINT64_MAX : time + up;
  }
  const std::uint64_t down = 0 - static_cast<std::uint64_t>(shift);
  return down > time ? 0 : time - down;
}

}  // namespace Detail

Timepoint Timepoint::Now() {
  TicksPerSecond();
  return Timepoint(Sys::MonotonicTicks());
}

std::int64_t Timepoint::operator-(const Timepoint& earlier) const {
  return Detail::TicksToMicroseconds(ticks_ - earlier.ticks_, TicksPerSecond());
}

std::uint64_t CurrentTimeValue(double offsetSeconds) {
  return Detail::MoveTimeValue(Sys::RealTimeMicroseconds(), offsetSeconds);
}

StringBuffer CurrentTimestamp(double offsetSeconds, int style) {
  return FormatTimestamp(CurrentTimeValue(offsetSeconds), style);
}

}  // namespace Veskan
