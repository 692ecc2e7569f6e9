// Taking turns at the processors. The engine runs a worker thread per 30 connections, so a busy
// server has many more runnable workers than processors; left to the kernel's scheduler, some
// workers wait several rounds while others run twice, and the requests of the ones left waiting
// get the slowest replies. A first-come, first-served gate with one turn per usable processor
// makes the workers take strict turns, so that every ready connection is served once a round.
#ifndef VESKAN_SYS_TURNS_H
#define VESKAN_SYS_TURNS_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

namespace Veskan {
namespace Sys {

// The number of processors this process may run on (its affinity), at least 1.
int UsableProcessors();

// A fixed number of turns, handed to waiting threads in the order they came.
//
// Thread safety: all members may be used from any thread. A thread holds at most one turn, of
// at most one gate.
class TurnGate {
 public:
  explicit TurnGate(int turns);
  TurnGate(const TurnGate&) = delete;
  TurnGate& operator=(const TurnGate&) = delete;

  // The gate of the network engine's workers: a turn per usable processor.
  static TurnGate& Workers();

  // Waits for a turn at most `patience`: a thread holding a turn that blocks on something else
  // must not stop the others for longer. False when the patience ran out; the caller then goes
  // on without a turn. True at once when the current thread holds a turn already.
  //
  // `returning`: the thread gave its last turn back early, having had nothing to do, and now
  // has work. It waits ahead of the threads that used their turns in full, behind others
  // returning like it; at the end of the line it would wait a whole round for the turn it left.
  bool Take(std::chrono::steady_clock::duration patience, bool returning = false);
  // Gives the current thread's turn to the thread that has waited longest, or back to the gate.
  // Nothing when the thread holds none. True when a waiting thread got it.
  bool Give();
  // Whether the current thread holds a turn of this gate.
  bool Held() const;
  // The number of threads waiting for a turn.
  int Waiting() const;

 private:
  // A thread's place in the line, made once per thread. The giver keeps it alive while it wakes
  // the waiter outside the gate's lock: woken under it, the waiter would run only to wait for the
  // lock, two more thread switches per turn on a busy processor.
  struct Waiter {
    std::condition_variable granted;
    bool turn = false;
  };
  static const std::shared_ptr<Waiter>& WaiterOfThisThread();

  mutable std::mutex mutex_;
  int free_;
  // The returning waiters first, each part the longest waiting first.
  std::deque<std::shared_ptr<Waiter>> line_;
  std::size_t returning_ = 0;  // how many of the line are returning
};

// While alive, the current thread's turn, if it holds one, is given back; it is taken again at
// the end. For waits on the progress of other threads that may need the turn.
class TurnAway {
 public:
  TurnAway();
  ~TurnAway();
  TurnAway(const TurnAway&) = delete;
  TurnAway& operator=(const TurnAway&) = delete;

 private:
  TurnGate* gate_;
};

}  // namespace Sys
}  // namespace Veskan

#endif
