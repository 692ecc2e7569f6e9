// The turn gate: a counter of free turns and a line of waiters, each with its own condition
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

const std::shared_ptr<TurnGate::Waiter>& TurnGate::WaiterOfThisThread() {
  thread_local const std::shared_ptr<Waiter> waiter = std::make_shared<Waiter>();
  return waiter;
}

bool TurnGate::Take(std::chrono::steady_clock::duration patience, bool returning) {
  if (heldGate == this) return true;
  const std::shared_ptr<Waiter>& waiter = WaiterOfThisThread();
  std::unique_lock<std::mutex> lock(mutex_);
  if (free_ > 0 && line_.empty()) {
    --free_;
    heldGate = this;
    return true;
  }
  waiter->turn = false;
  if (returning) {
    line_.insert(line_.begin() + static_cast<std::ptrdiff_t>(returning_), waiter);
    ++returning_;
  } else {
    line_.push_back(waiter);
  }
  if (!waiter->granted.wait_for(lock, patience, [&waiter] { return waiter->turn; })) {
    // Out of patience: off the line, without a turn.
    for (auto at = line_.begin(); at != line_.end(); ++at) {
      if (*at != waiter) continue;
      if (static_cast<std::size_t>(at - line_.begin()) < returning_) --returning_;
      line_.erase(at);
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
  std::shared_ptr<Waiter> next;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (line_.empty()) {
      ++free_;
      return false;
    }
    next = std::move(line_.front());
    line_.pop_front();
    if (returning_ > 0) --returning_;
    next->turn = true;
  }
  next->granted.notify_one();
  return true;
}

bool TurnGate::Held() const {
  return heldGate == this;
}

int TurnGate::Waiting() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(line_.size());
}

TurnAway::TurnAway() : gate_(heldGate) {
  if (gate_ != nullptr) gate_->Give();
}

TurnAway::~TurnAway() {
  if (gate_ != nullptr) gate_->Take(ReturnPatience);
}

}  // namespace Sys
}  // namespace Veskan
