// IPC and SharedMemory: named objects over the system's named regions.
#include <veskan/IPC.h>

#include "host/NamedState.h"
#include "sys/NamedObject.h"

#include <chrono>

namespace Veskan {

namespace Detail {

bool WaitForEvent(EventState& state, int timeoutMs, const std::atomic<bool>* stop) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
  for (;;) {
    const std::uint32_t seen = state.sequence.load();
    const bool set = state.manualReset ? state.signalled.load() == 1
                                       : state.signalled.exchange(0) == 1;  // consumed
    if (set) return true;
    if (stop && stop->load()) return false;
    int remaining = -1;
    if (timeoutMs >= 0) {
      remaining = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
      if (remaining <= 0) return false;
    }
    Sys::WaitWhileEqual(state.sequence, seen, remaining);
  }
}

void SetEvent(EventState& state) {
  state.signalled.store(1);
  state.sequence.fetch_add(1);
  Sys::WakeAll(state.sequence);
}

}  // namespace Detail

using Detail::ObjectState;

namespace {

ObjectState* StateOf(const std::unique_ptr<Sys::NamedRegion>& region) {
  return region ? static_cast<ObjectState*>(region->Address()) : nullptr;
}

}  // namespace

IPC::IPC(const StringBuffer& name, ObjectType type, bool mustCreate, bool signalled)
    : name_(name), type_(type) {
  Open(mustCreate, signalled, false, false);
}

IPC::IPC(const StringBuffer& name, AllUsersManualReset) : name_(name), type_(Event) {
  Open(false, false, true, true);
}

IPC::~IPC() = default;

void IPC::Open(bool mustCreate, bool signalled, bool manualReset, bool allUsers) {
  const std::uint32_t kind = type_ == Mutex ? ObjectState::MutexKind : ObjectState::EventKind;
  int error = 0;
  bool made = true;
  region_ =
      Sys::NamedRegion::Open(name_.ToUTF8(), sizeof(ObjectState), true, false,
                             (allUsers ? Sys::NameScope::AllUsers : Sys::NameScope::CurrentUser),
                             error, [&](void* address) {
                               auto* state = new (address) ObjectState();
                               state->kind = kind;
                               if (kind == ObjectState::MutexKind) {
                                 made = Sys::InitializeSharedMutex(state->mutex);
                               } else {
                                 state->event.manualReset = manualReset ? 1 : 0;
                                 state->event.signalled.store(signalled ? 1 : 0);
                               }
                               state->ready.store(made ? 1 : 0);
                             });
  ObjectState* state = StateOf(region_);
  // An object of another kind under the name, or one that could not be made, is not this one.
  if (!state || state->kind != kind || state->ready.load() != 1) {
    region_.reset();
    return;
  }
  created_ = region_->Created();
  if (mustCreate && !created_) {
    region_.reset();
    return;
  }
  if (created_ && type_ == Mutex && !signalled)
    Sys::LockSharedMutex(state->mutex, -1);  // made owned by its creator
  if (mustCreate && signalled) Signal();
}

bool IPC::IsValid() const {
  return region_ != nullptr;
}

int IPC::OSHandle() const {
  return region_ ? region_->Descriptor() : -1;
}

bool IPC::Wait() {
  return TimedWait(-1);
}

bool IPC::TryWait() {
  return TimedWait(0);
}

bool IPC::TimedWait(int milliseconds) {
  ObjectState* state = StateOf(region_);
  if (!state) return false;
  if (type_ == Mutex) {
    // A mutex whose owner died is taken all the same: its owner cannot release it any more.
    const Sys::LockResult result = Sys::LockSharedMutex(state->mutex, milliseconds);
    return result == Sys::LockResult::Locked || result == Sys::LockResult::LockedOwnerDied;
  }
  return Detail::WaitForEvent(state->event, milliseconds, nullptr);
}

void IPC::Signal() {
  ObjectState* state = StateOf(region_);
  if (!state) return;
  if (type_ == Mutex)
    Sys::UnlockSharedMutex(state->mutex);
  else
    Detail::SetEvent(state->event);
}

void IPC::WakeWaiters() {
  if (ObjectState* state = StateOf(region_); state && type_ == Event) {
    // A new sequence, so that a waiter about to sleep does not miss the wake-up; waiters of
    // other processes wake, see nothing set, and sleep again.
    state->event.sequence.fetch_add(1);
    Sys::WakeAll(state->event.sequence);
  }
}

bool IPC::IsSet() const {
  const ObjectState* state = StateOf(region_);
  return state && type_ == Event && state->event.signalled.load() == 1;
}

bool IPC::WaitOrStop(const std::atomic<bool>& stop) {
  ObjectState* state = StateOf(region_);
  return state && type_ == Event && Detail::WaitForEvent(state->event, -1, &stop);
}

int IPC::AtomicIncrement(int* value) {
  return __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST);
}

int IPC::AtomicDecrement(int* value) {
  return __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST);
}

int IPC::AtomicExchange(int* value, int exchange) {
  return __atomic_exchange_n(value, exchange, __ATOMIC_SEQ_CST);
}

int IPC::AtomicCompareExchange(int* value, int exchange, int comparand) {
  __atomic_compare_exchange_n(value, &comparand, exchange, false, __ATOMIC_SEQ_CST,
                              __ATOMIC_SEQ_CST);
  return comparand;  // the value found, as the interlocked operation gives it
}

SharedMemory::SharedMemory(const StringBuffer& name, std::uint32_t size, bool readOnly, bool create)
    : name_(name), size_(size) {
  int error = 0;
  region_ = Sys::NamedRegion::Open(name.ToUTF8(), size, create, readOnly,
                                   Sys::NameScope::CurrentUser, error);
}

SharedMemory::~SharedMemory() = default;

bool SharedMemory::Created() const {
  return region_ && region_->Created();
}

SharedMemory::operator const void*() const {
  return region_ ? region_->Address() : nullptr;
}

SharedMemory::operator void*() {
  return region_ ? region_->Address() : nullptr;
}

}  // namespace Veskan
