// The arithmetic of Timepoint and CurrentTimeValue, apart from the clocks.
#ifndef VESKAN_FOUNDATION_TIMEARITHMETIC_H
#define VESKAN_FOUNDATION_TIMEARITHMETIC_H

#include <cstdint>

namespace Veskan {
namespace Detail {

// `ticks` of a counter running at `frequency` ticks per second, in microseconds: the product
// with 1,000,000 divided by the frequency, truncated toward zero, for any 64-bit tick count.
std::int64_t TicksToMicroseconds(std::int64_t ticks, std::int64_t frequency);

// The time value `time` moved by `offsetSeconds`, rounded to the microsecond and clamped to
// [0, UINT64_MAX]; a NaN offset moves nothing.
std::uint64_t MoveTimeValue(std::uint64_t time, double offsetSeconds);

}  // namespace Detail
}  // namespace Veskan

#endif
