// The monitor the engine counts to.
#include "net/EngineCounters.h"

#include <atomic>

namespace Veskan {
namespace Detail {

namespace {

// Read without a lock on every count: most hosts attach no monitor.
std::atomic<bool> attached{false};
// Read and replaced with the atomic shared-pointer functions, so that a monitor replaced while a
// worker counts to it lives until that count is done.
std::shared_ptr<NetworkPerformanceMonitor> current;

}  // namespace

void CountEvent(NetworkPerformanceMonitor::Counters::Enumeration counter, int amount) {
  if (!attached.load(std::memory_order_acquire)) return;
  std::shared_ptr<NetworkPerformanceMonitor> monitor = std::atomic_load(&current);
  if (monitor) monitor->Increment(counter, amount);
}

void AttachMonitor(const std::shared_ptr<NetworkPerformanceMonitor>& monitor) {
  std::atomic_store(&current, monitor);
  attached.store(monitor != nullptr, std::memory_order_release);
}

}  // namespace Detail
}  // namespace Veskan
