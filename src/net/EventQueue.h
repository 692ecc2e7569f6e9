// The per-thread event queue behind the window mode of DaemonMarshaller: synchronous calls that
// other threads hand to the thread owning the queue.
#ifndef VESKAN_NET_EVENTQUEUE_H
#define VESKAN_NET_EVENTQUEUE_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace Veskan {
namespace Detail {

// A queue of calls that run on the thread owning it. A thread gets its queue from ForCurrentThread
// and keeps it for as long as somebody holds the shared pointer; every window-mode marshaller made
// on that thread shares it.
//
// A call is posted with Call, which blocks the posting thread until the owner thread has run it
// (in Run) or until the posting marshaller has given it up (Release); such a call allocates
// nothing, as it lives on the stack of the thread that waits for it. Post queues a call without
// waiting for it, in a record the queue keeps for reuse once the call has run. Calls run in the
// order of posting, whichever way they came.
//
// Thread safety: Call may be used from any thread but the owner's (the owner would wait for
// itself); Run and Release belong to the owner thread; SetAndWakeOwner and Pending may be used
// from any thread. The static members act on the calling thread's own queue and quit request.
class EventQueue {
 public:
  // One pending call, on the stack of the thread that waits in Call.
  struct Record {
    void (*run)(void* context) = nullptr;  // must not throw
    // Posted without waiting: the queue owns the record, and calls `work(context, true)` to run
    // it or `work(context, false)` when it is given up. Must not throw.
    void (*work)(void* context, bool run) = nullptr;
    void* context = nullptr;
    const void* source = nullptr;  // the poster, for Release
    std::uint64_t sequence = 0;    // position in the order of posting
    Record* next = nullptr;
    // Run or given up, and which of the two; read and written under the queue's lock.
    bool finished = false;
    bool ran = false;
    std::condition_variable finishedChanged;
  };

  EventQueue() = default;
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;
  // Gives up the posted calls still queued.
  ~EventQueue();

  // The current thread's queue; made when the thread has none alive.
  static std::shared_ptr<EventQueue> ForCurrentThread();
  // The current thread's queue, or null when it has none alive.
  static std::shared_ptr<EventQueue> OfCurrentThread();

  // The current thread's quit request. It belongs to the thread, not to its queue, so that it
  // outlives the marshallers that come and go on the thread.
  static void PostQuit();
  static void ResetQuit();
  static bool QuitRequested();

  // Posts `run(context)` from `source` and waits until the owner thread has run it or the source
  // released it. Returns true when it was run.
  bool Call(void (*run)(void* context), void* context, const void* source);

  // Queues `work(context, true)` from `source` and returns at once. When the call is given up
  // instead (Release, or the queue goes first), `work(context, false)` runs on the releasing
  // thread, so that the context is freed either way. The owner thread is not woken for it: a
  // poster that queues a batch wakes it once with WakeOwner, so that the owner runs the batch in
  // one turn (a waiting owner runs it at the end of its turn's time-out otherwise).
  void Post(void (*work)(void* context, bool run), void* context, const void* source);
  // Wakes the owner thread for the calls posted since the last wake-up, if any; true when there
  // were some.
  bool WakeOwner();

  // On the owner thread: waits up to `timeout` for a call to be posted, or for `*stop` (read under
  // the queue's lock; may be null) to become true, or for WakeOwner; then runs, one at a time and
  // without the lock held, every call that was posted before the running began. Calls posted
  // while they run wait for the next turn, so a steady stream of posts cannot keep the owner
  // here. A call may itself run the queue (a slot that pumps while it blocks). Returns `*stop` as
  // read at the end (false when `stop` is null).
  bool Run(std::chrono::steady_clock::duration timeout, const bool* stop);

  // Sets `flag` under the queue's lock and wakes the owner thread waiting in Run.
  void SetAndWakeOwner(bool& flag);

  // Gives up every call of `source` that has not begun to run: its waiting thread returns without
  // the call being run, a posted call has its `work(context, false)`. Returns the number given up.
  std::size_t Release(const void* source);

  // The number of calls posted and not yet begun.
  std::size_t Pending() const;

 private:
  void Append(Record& record);  // under the lock
  // Gives up a record made by Post (`work(context, false)`) and frees it.
  static void GiveUpPosted(Record* posted);
  // Keeps a record made by Post, once run, for the next Post, or frees it; under the lock.
  void Recycle(Record* posted);

  // Records kept for reuse: a busy host runs a posted call per request.
  static constexpr std::size_t MaxSpare = 256;

  mutable std::mutex mutex_;
  std::condition_variable posted_;  // the owner waits here in Run
  Record* head_ = nullptr;          // oldest pending call
  Record* tail_ = nullptr;
  std::size_t pending_ = 0;
  bool unannounced_ = false;  // calls were posted since the owner was last woken
  std::uint64_t nextSequence_ = 0;
  std::vector<std::unique_ptr<Record>> spare_;  // run records of Post
};

}  // namespace Detail
}  // namespace Veskan

#endif
