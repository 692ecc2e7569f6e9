// What the named mutexes and events keep in their shared regions.
#ifndef VESKAN_HOST_NAMEDSTATE_H
#define VESKAN_HOST_NAMEDSTATE_H

#include <veskan/StringBuffer.h>

#include "sys/NamedObject.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace Veskan {
namespace Detail {

// An event without a lock: setting it bumps `sequence`, which waiters sleep on, so a process
// killed at any point leaves nothing held.
struct EventState {
  std::atomic<std::uint32_t> signalled{0};
  std::atomic<std::uint32_t> sequence{0};
  std::uint32_t manualReset = 0;
};

struct ObjectState {
  static constexpr std::uint32_t MutexKind = 0x5854554d;  // "MUTX"
  static constexpr std::uint32_t EventKind = 0x544e5645;  // "EVNT"
  std::uint32_t kind = 0;
  std::atomic<std::uint32_t> ready{0};
  EventState event;
  Sys::SharedMutex mutex;
};

// Waits up to `timeoutMs` (negative: no limit) for the event, resetting it when auto-reset; gives
// up, false, once `stop` (when given) is set and the waiter is woken.
bool WaitForEvent(EventState& state, int timeoutMs, const std::atomic<bool>* stop);
void SetEvent(EventState& state);

}  // namespace Detail
}  // namespace Veskan

#endif
