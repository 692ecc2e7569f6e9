// The performance counters every daemon reports to, when the host attached them.
#ifndef VESKAN_NET_ENGINECOUNTERS_H
#define VESKAN_NET_ENGINECOUNTERS_H

#include <veskan/NetworkPerformanceMonitor.h>

#include <memory>

namespace Veskan {
namespace Detail {

// Adds `amount` to `counter` of the attached monitor; nothing when none is attached. Any thread.
void CountEvent(NetworkPerformanceMonitor::Counters::Enumeration counter, int amount);

// Makes `monitor` the one counted to (null: none). The one it replaces is released once no
// thread is counting to it. Any thread.
void AttachMonitor(const std::shared_ptr<NetworkPerformanceMonitor>& monitor);

}  // namespace Detail
}  // namespace Veskan

#endif
