// The performance counters every daemon reports to, when the host attached them.
#ifndef VESKAN_NET_ENGINECOUNTERS_H
#define VESKAN_NET_ENGINECOUNTERS_H

#include <veskan/NetworkPerformanceMonitor.h>

namespace Veskan {
namespace Detail {

// Adds `amount` to `counter` of the attached monitor; nothing when none is attached. Any thread.
void CountEvent(NetworkPerformanceMonitor::Counters::Enumeration counter, int amount);

}  // namespace Detail
}  // namespace Veskan

#endif
