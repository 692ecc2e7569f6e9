// A pool of signal sets. Constructing a Boost.Signals2 signal costs several allocations; objects
// made once per request or per connection (messages, connections) take theirs from here and give
// them back with every slot disconnected, so that a busy server does not pay for them each time.
#ifndef VESKAN_HTTP_SIGNALPOOL_H
#define VESKAN_HTTP_SIGNALPOOL_H

#include <cstddef>
#include <mutex>
#include <vector>

namespace Veskan {
namespace Detail {

// `Set` is default-constructible and has `void DisconnectAll()`. At most `Kept` released sets
// are kept; more are destroyed.
//
// Thread safety: Take and Give may be called from any thread.
template <typename Set, std::size_t Kept = 512>
class SignalPool {
 public:
  static Set* Take() {
    {
      std::lock_guard<std::mutex> lock(Mutex());
      std::vector<Set*>& free = Free();
      if (!free.empty()) {
        Set* set = free.back();
        free.pop_back();
        return set;
      }
    }
    return new Set();
  }

  // Takes `set` back; no slot of it is called after this returns.
  static void Give(Set* set) {
    if (set == nullptr) return;
    set->DisconnectAll();
    {
      std::lock_guard<std::mutex> lock(Mutex());
      std::vector<Set*>& free = Free();
      if (free.size() < Kept) {
        free.push_back(set);
        return;
      }
    }
    delete set;
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  // Sets kept for reuse; the pool lives as long as the process (a few KiB at most).
  static std::vector<Set*>& Free() {
    static std::vector<Set*>* free = new std::vector<Set*>();
    return *free;
  }
};

}  // namespace Detail
}  // namespace Veskan

#endif
