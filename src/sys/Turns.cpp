// The turn gate: a counter of free turns and a list of waiters, each with its own condition
// variable, so that a turn goes to exactly the longest waiter.
#include "sys/Turns.h"

namespace Veskan {
namespace Sys {

namespace {

// The gate whose turn the current thread holds.
thread_local TurnGate* heldGate = nullptr;

// Patience of a thread taking its turn back after a wait on others.
constexpr auto ReturnPatience = std::chrono::milliseconds(100);

}  // namespace

TurnGate::TurnGate(int turns) : free_(turns < 1 ? 1 : turns) {}

TurnGate& TurnGate::Workers() {
  static TurnGate gate(UsableProcessors());
  return gate;
}

bool TurnGate::Take(std::chrono::steady_clock::duration patience) {
  if (heldGate == this) return true;
  std::unique_lock<std::mutex> lock(mutex_);
  if (free_ > 0 && first_ == nullptr) {
    --free_;
    heldGate = this;
    return true;
  }
  Waiter waiter;
  if (last_ == nullptr) {
    first_ = &waiter;
  } else {
    last_->next = &waiter;
  }
  last_ = &waiter;
  if (!waiter.granted.wait_for(lock, patience, [&waiter] { return waiter.turn; })) {
    // Out of patience: off the list, without a turn.
    Waiter* previous = nullptr;
    for (Waiter* at = first_; at != nullptr; previous = at, at = at->next) {
      if (at != &waiter) continue;
      (previous == nullptr ? first_ : previous->next) = waiter.next;
      if (last_ == &waiter) last_ = previous;
      break;
    }
    return false;
  }
  heldGate = this;
  return true;
}

bool TurnGate::Give() {
  if (heldGate != this) return false;
  heldGate = nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  Waiter* next = first_;
  if (next == nullptr) {
    ++free_;
    return false;
  }
  first_ = next->next;
  if (first_ == nullptr) last_ = nullptr;
  next->turn = true;
  next->granted.notify_one();  // under the lock: the waiter's stack frame lives until it sees it
  return true;
}

bool TurnGate::Held() const {
  return heldGate == this;
}

int TurnGate::Waiting() const {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const Waiter* at = first_; at != nullptr; at = at->next)
    ++count;
  return count;
}

TurnAway::TurnAway() : gate_(heldGate) {
  if (gate_ != nullptr) gate_->Give();
}

TurnAway::~TurnAway() {
  if (gate_ != nullptr) gate_->Take(ReturnPatience);
}

}  // namespace Sys
}  // namespace Veskan
