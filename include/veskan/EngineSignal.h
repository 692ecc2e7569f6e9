// EngineSignal: the signal type through which the network engine and its messages report to the
// host.
#ifndef VESKAN_ENGINESIGNAL_H
#define VESKAN_ENGINESIGNAL_H

#include <boost/signals2/signal.hpp>

#include <atomic>
#include <utility>

namespace Veskan {

// A Boost.Signals2 signal (no result, slots ordered by int groups, arguments by reference) that
// also knows, without taking its lock, whether a slot was ever connected. Most of a server's
// signals have no slots, and the engine asks each request whether they do: Boost's empty() takes
// the signal's mutex for that answer, Heard() reads one flag.
//
// Slots are connected through this type: one connected through a reference to the Boost base
// is not seen by Heard(), and the engine may then skip its emissions.
//
// Thread safety: as a Boost.Signals2 signal. Heard() may be called from any thread; a slot being
// connected while it is called may be missed, as by an emission made just before the connection.
template <typename... Arguments>
class EngineSignal
    : public boost::signals2::signal<void(Arguments...), boost::signals2::optional_last_value<void>,
                                     int> {
  using Base =
      boost::signals2::signal<void(Arguments...), boost::signals2::optional_last_value<void>, int>;

 public:
  EngineSignal() = default;
  EngineSignal(const EngineSignal&) = delete;
  EngineSignal& operator=(const EngineSignal&) = delete;

  // Boost's connect and connect_extended, every overload; they mark the signal heard first.
  template <typename... Slot>
  boost::signals2::connection connect(Slot&&... slot) {
    heard_.store(true, std::memory_order_relaxed);
    return Base::connect(std::forward<Slot>(slot)...);
  }
  template <typename... Slot>
  boost::signals2::connection connect_extended(Slot&&... slot) {
    heard_.store(true, std::memory_order_relaxed);
    return Base::connect_extended(std::forward<Slot>(slot)...);
  }

  // False while no slot has ever been connected (since the last Forget): then an emission has
  // nothing to call. True does not mean a slot is still connected.
  bool Heard() const { return heard_.load(std::memory_order_relaxed); }
  // Boost's exact answer, without its lock when nothing was ever connected.
  bool empty() const { return !Heard() || Base::empty(); }
  // Disconnects every slot and forgets they were ever connected. Only while no other thread can
  // connect or emit: it serves objects that are reused for a new owner.
  void Forget() {
    if (!Heard()) return;
    Base::disconnect_all_slots();
    heard_.store(false, std::memory_order_relaxed);
  }

 private:
  std::atomic<bool> heard_{false};
};

}  // namespace Veskan

#endif
