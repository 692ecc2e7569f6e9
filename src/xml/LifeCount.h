// The counts of living Globals and RDF objects: the first count starts a library, the last one
// stops it. Counting up from a count already held and down to a count still held is lock-free;
// every change between 0 and 1 is made under the owner's lifecycle mutex, together with the
// start-up or shutdown it brings, so a count above 0 always means "fully started".
#ifndef VESKAN_XML_LIFECOUNT_H
#define VESKAN_XML_LIFECOUNT_H

#include <atomic>
#include <cstdint>

namespace Veskan {
namespace Detail {

// Takes one more count when at least one is held, and then only: true when it took one. The
// libraries are up, and stay up while the caller holds the count it took.
inline bool CountUpWhileHeld(std::atomic<std::int32_t>& count) {
  std::int32_t held = count.load();
  while (held > 0)
    if (count.compare_exchange_weak(held, held + 1)) return true;
  return false;
}

// Gives one count back when others still hold one, and then only: true when it gave one back.
inline bool CountDownWhileOthersHold(std::atomic<std::int32_t>& count) {
  std::int32_t held = count.load();
  while (held > 1)
    if (count.compare_exchange_weak(held, held - 1)) return true;
  return false;
}

// Gives one count back; the caller holds the lifecycle mutex. True when it was the last one and
// the count went from 1 to 0: the caller then stops what the first count started, still under
// the mutex. With `keepLast` the last count is never given back and the result is false. A count
// below 1 (objects copied without counting, then destroyed) just goes down.
inline bool CountDownLocked(std::atomic<std::int32_t>& count, bool keepLast) {
  std::int32_t held = count.load();
  for (;;) {
    if (held > 1) {
      if (count.compare_exchange_weak(held, held - 1)) return false;
    } else if (held < 1) {
      // Only changed under the mutex while it is below 1: nothing races this.
      count.fetch_sub(1);
      return false;
    } else if (keepLast) {
      return false;
    } else if (count.compare_exchange_weak(held, 0)) {
      return true;
    }
  }
}

}  // namespace Detail
}  // namespace Veskan

#endif
