// The per-thread event queue: an intrusive list of calls under one mutex, a condition variable on
// which the owner waits for posts, and one on each call on which its poster waits.
#include "net/EventQueue.h"

#include "sys/Turns.h"

#include <memory>
#include <vector>

namespace Veskan {
namespace Detail {

namespace {

// Weak, so that the queue goes with the last marshaller that uses it.
thread_local std::weak_ptr<EventQueue> currentQueue;
thread_local bool quitRequested = false;

}  // namespace

std::shared_ptr<EventQueue> EventQueue::ForCurrentThread() {
  std::shared_ptr<EventQueue> queue = currentQueue.lock();
  if (!queue) {
    queue = std::make_shared<EventQueue>();
    currentQueue = queue;
  }
  return queue;
}

std::shared_ptr<EventQueue> EventQueue::OfCurrentThread() {
  return currentQueue.lock();
}

void EventQueue::PostQuit() {
  quitRequested = true;
}

void EventQueue::ResetQuit() {
  quitRequested = false;
}

bool EventQueue::QuitRequested() {
  return quitRequested;
}

EventQueue::~EventQueue() {
  while (head_ != nullptr) {
    Record* record = head_;
    head_ = record->next;
    // A waiting caller holds the queue alive, so only posted calls can be left here.
    if (record->work != nullptr) GiveUpPosted(record);
  }
}

void EventQueue::Append(Record& record) {
  record.sequence = nextSequence_++;
  if (tail_ == nullptr) {
    head_ = &record;
  } else {
    tail_->next = &record;
  }
  tail_ = &record;
  ++pending_;
}

void EventQueue::GiveUpPosted(Record* posted) {
  std::unique_ptr<Record> owned(posted);  // the queue's own record, made by Post
  owned->work(owned->context, false);
}

void EventQueue::Recycle(Record* posted) {
  std::unique_ptr<Record> owned(posted);
  if (spare_.size() < MaxSpare) spare_.push_back(std::move(owned));
}

bool EventQueue::Call(void (*run)(void* context), void* context, const void* source) {
  Record record;
  record.run = run;
  record.context = context;
  record.source = source;

  // The owner may be waiting for another worker, which must be able to go on meanwhile.
  Sys::TurnAway away;
  std::unique_lock<std::mutex> lock(mutex_);
  Append(record);
  unannounced_ = false;
  // Notified under the lock: one lock round per hand-over on this side; the owner finds the lock
  // free again as soon as this thread waits.
  posted_.notify_one();
  record.finishedChanged.wait(lock, [&record] { return record.finished; });
  return record.ran;
}

void EventQueue::Post(void (*work)(void* context, bool run), void* context, const void* source) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::unique_ptr<Record> record;
  if (spare_.empty()) {
    record = std::make_unique<Record>();
  } else {
    record = std::move(spare_.back());
    spare_.pop_back();
    record->next = nullptr;
  }
  record->work = work;
  record->context = context;
  record->source = source;
  Append(*record.release());
  unannounced_ = true;
}

bool EventQueue::WakeOwner() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!unannounced_) return false;
    unannounced_ = false;
  }
  // Outside the lock: woken under it, the owner would run at once only to wait for the lock,
  // which costs two more thread switches on a busy processor.
  posted_.notify_one();
  return true;
}

bool EventQueue::Run(std::chrono::steady_clock::duration timeout, const bool* stop) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (timeout > std::chrono::steady_clock::duration::zero()) {
    posted_.wait_for(lock, timeout,
                     [this, stop] { return head_ != nullptr || (stop != nullptr && *stop); });
  }
  const std::uint64_t end = nextSequence_;
  while (head_ != nullptr && head_->sequence < end) {
    Record* record = head_;
    head_ = record->next;
    if (head_ == nullptr) tail_ = nullptr;
    --pending_;

    lock.unlock();
    if (record->work != nullptr) {
      record->work(record->context, true);
      lock.lock();
      Recycle(record);
      continue;
    }
    record->run(record->context);
    lock.lock();

    // The poster may return and free the record as soon as the lock is released.
    record->ran = true;
    record->finished = true;
    record->finishedChanged.notify_one();
  }
  return stop != nullptr && *stop;
}

void EventQueue::SetAndWakeOwner(bool& flag) {
  std::lock_guard<std::mutex> lock(mutex_);
  flag = true;
  posted_.notify_one();
}

std::size_t EventQueue::Release(const void* source) {
  std::vector<Record*> posted;  // given up once the lock is released: their work may take locks
  std::unique_lock<std::mutex> lock(mutex_);
  std::size_t released = 0;
  Record* previous = nullptr;
  Record** link = &head_;
  while (*link != nullptr) {
    Record* record = *link;
    if (record->source != source) {
      previous = record;
      link = &record->next;
      continue;
    }
    *link = record->next;
    if (tail_ == record) tail_ = previous;
    --pending_;
    ++released;
    if (record->work != nullptr) {
      posted.push_back(record);
      continue;
    }
    // Last touch of the record: its poster may free it once the lock is released.
    record->finished = true;
    record->finishedChanged.notify_one();
  }
  lock.unlock();
  for (Record* record : posted)
    GiveUpPosted(record);
  return released;
}

std::size_t EventQueue::Pending() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pending_;
}

}  // namespace Detail
}  // namespace Veskan
