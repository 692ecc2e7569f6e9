// LimitSingleInstance and SingleInstanceCLI: one running copy of a program, and the command
// lines of later copies handed to it.
#include <veskan/IPC.h>

#include "host/NamedState.h"
#include "sys/NamedObject.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace Veskan {

namespace Detail {

// A thread that waits on a named event and, each time it is set, runs `onEvent` with the
// marshaller that carries calls to the thread that made the worker.
class EventWorker {
 public:
  EventWorker(IPC& event, std::function<void(DaemonMarshaller&)> onEvent)
      : event_(event), onEvent_(std::move(onEvent)), marshaller_(false) {
    thread_ = std::thread([this] { Run(); });
    while (!running_.load())
      std::this_thread::yield();
  }
  EventWorker(const EventWorker&) = delete;
  EventWorker& operator=(const EventWorker&) = delete;
  // On the thread that made it: runs the hand-overs still waiting while the worker ends.
  ~EventWorker() {
    stop_.store(true);
    event_.WakeWaiters();
    marshaller_.Join(thread_);
  }

 private:
  void Run() {
    running_.store(true);
    while (event_.WaitOrStop(stop_) && !stop_.load())
      onEvent_(marshaller_);
  }

  IPC& event_;
  std::function<void(DaemonMarshaller&)> onEvent_;
  DaemonMarshaller marshaller_;
  std::atomic<bool> running_{false};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace Detail

namespace {

// The command-line region, as every copy lays it out.
struct CommandLineRegion {
  std::atomic<std::int32_t> spin;  // 0 free, 1 held
  std::uint8_t reserved[12];
  char16_t text[1000];  // at most 999 units and a NUL, the rest zero
};
static_assert(sizeof(CommandLineRegion) == 2016, "the region's layout is shared by every copy");

// What the copies add beside the region: a lock that outlives a killed holder (the spin lock
// alone would stay held forever), and whether a command line waits to be read.
struct DeliveryState {
  Sys::SharedMutex mutex;
  std::atomic<std::uint32_t> ready{0};
  std::atomic<std::uint32_t> pending{0};  // a later copy's command line is unread
  std::atomic<std::uint32_t> taken{0};    // counts the command lines read
};

constexpr int DeliveryTimeoutMs = 10000;

}  // namespace

struct SingleInstanceCLI::Shared {
  std::unique_ptr<Sys::NamedRegion> delivery;

  DeliveryState& State() { return *static_cast<DeliveryState*>(delivery->Address()); }
};

// Holds the delivery lock and the region's spin lock together.
class RegionLock {
 public:
  RegionLock(DeliveryState& state, CommandLineRegion& region) : state_(state), region_(region) {
    Sys::LockSharedMutex(state_.mutex, -1);
    // Only a holder of the mutex takes the spin lock: found held, its holder died copying.
    region_.spin.store(0);
    std::int32_t free = 0;
    while (!region_.spin.compare_exchange_weak(free, 1)) {
      free = 0;
      std::this_thread::yield();
    }
  }
  RegionLock(const RegionLock&) = delete;
  RegionLock& operator=(const RegionLock&) = delete;
  ~RegionLock() {
    region_.spin.store(0);
    Sys::UnlockSharedMutex(state_.mutex);
  }

 private:
  DeliveryState& state_;
  CommandLineRegion& region_;
};

SingleInstanceCLI::SingleInstanceCLI(const StringBuffer& name, const StringBuffer& commandLine) {
  Initialize(name, commandLine);
}

SingleInstanceCLI::SingleInstanceCLI(const StringBuffer& name, int argc, const wchar_t** argv) {
  // wchar_t holds UTF-32 here.
  static_assert(sizeof(wchar_t) == sizeof(UChar32), "wide characters are code points");
  std::vector<StringBuffer> arguments;
  std::vector<const char16_t*> pointers;
  for (int i = 0; i < argc; ++i)
    arguments.emplace_back(
        argv[i] ? icu::UnicodeString::fromUTF32(reinterpret_cast<const UChar32*>(argv[i]), -1)
                : icu::UnicodeString());
  for (const auto& argument : arguments)
    pointers.push_back(argument.c_str());
  Initialize(name, JoinArguments(argc, pointers.data()));
}

SingleInstanceCLI::SingleInstanceCLI(const StringBuffer& name, int argc, char** argv) {
  std::vector<StringBuffer> arguments;
  std::vector<const char16_t*> pointers;
  for (int i = 0; i < argc; ++i)
    arguments.emplace_back(argv[i]);  // UTF-8
  for (const auto& argument : arguments)
    pointers.push_back(argument.c_str());
  Initialize(name, JoinArguments(argc, pointers.data()));
}

SingleInstanceCLI::~SingleInstanceCLI() {
  worker_.reset();  // before the objects it uses
}

void SingleInstanceCLI::Initialize(const StringBuffer& name, const StringBuffer& commandLine) {
  event_ = std::make_unique<IPC>(name + StringBuffer(u"#clievent"), IPC::Event, false, false);
  if (!event_->IsValid()) return;
  first_ = event_->Created();
  region_ = std::make_unique<SharedMemory>(name + StringBuffer(u"#clidata"),
                                           static_cast<std::uint32_t>(sizeof(CommandLineRegion)),
                                           false, true);
  int error = 0;
  shared_ = std::make_unique<Shared>();
  shared_->delivery =
      Sys::NamedRegion::Open((name + StringBuffer(u"#clilock")).ToUTF8(), sizeof(DeliveryState),
                             true, false, Sys::NameScope::CurrentUser, error, [](void* address) {
                               auto* state = new (address) DeliveryState();
                               state->ready.store(Sys::InitializeSharedMutex(state->mutex) ? 1 : 0);
                             });
  if (!region_->IsValid() || !shared_->delivery || shared_->State().ready.load() != 1) {
    region_.reset();
    return;
  }
  if (!first_) {
    Deliver(commandLine);
    return;
  }
  std::memset(static_cast<void*>(*region_), 0, sizeof(CommandLineRegion));
  Write(commandLine);
  worker_ = std::make_unique<Detail::EventWorker>(
      *event_, [this](DaemonMarshaller& marshaller) { Arrived(marshaller); });
}

void SingleInstanceCLI::Write(const StringBuffer& commandLine) {
  auto& region = *static_cast<CommandLineRegion*>(static_cast<void*>(*region_));
  RegionLock lock(shared_->State(), region);
  std::memset(region.text, 0, sizeof region.text);
  const int length = std::min(commandLine.length(), MaxCommandLine);
  std::memcpy(region.text, commandLine.getBuffer(), static_cast<std::size_t>(length) * 2);
}

void SingleInstanceCLI::Deliver(const StringBuffer& commandLine) {
  DeliveryState& state = shared_->State();
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(DeliveryTimeoutMs);
  for (;;) {
    const std::uint32_t seen = state.taken.load();
    {
      // The first copy has read the command line before, or none is waiting: ours goes in.
      Sys::LockSharedMutex(state.mutex, -1);
      const bool free = state.pending.load() == 0;
      if (free) state.pending.store(1);
      Sys::UnlockSharedMutex(state.mutex);
      if (free) {
        Write(commandLine);
        event_->Signal();
        delivered_ = true;
        return;
      }
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return;
    Sys::WaitWhileEqual(state.taken, seen, static_cast<int>(left.count()));
  }
}

void SingleInstanceCLI::Arrived(DaemonMarshaller& marshaller) {
  DeliveryState& state = shared_->State();
  if (state.pending.load() == 0) return;
  marshaller.Marshal_VoidPointer(CommandLineArrived, this);
  state.pending.store(0);
  state.taken.fetch_add(1);
  Sys::WakeAll(state.taken);
}

StringBuffer SingleInstanceCLI::CommandLine() const {
  if (!region_ || !region_->IsValid()) return StringBuffer();
  auto& region =
      *static_cast<CommandLineRegion*>(const_cast<void*>(static_cast<const void*>(*region_)));
  RegionLock lock(shared_->State(), region);
  int length = 0;
  while (length < MaxCommandLine && region.text[length])
    ++length;
  return StringBuffer(region.text, length);
}

StringBuffer SingleInstanceCLI::JoinArguments(int argc, const char16_t* const* argv) {
  StringBuffer line;
  for (int i = 0; i < argc; ++i) {
    const StringBuffer argument(argv[i]);
    if (i > 0) line += StringBuffer(u" ");
    const bool plain = argument.length() > 0 && argument.indexOf(u' ') < 0 &&
                       argument.indexOf(u'\t') < 0 && argument.charAt(0) != u'"' &&
                       argument.charAt(0) != u'\'';
    const char16_t* quote = argument.indexOf(u'"') < 0 ? u"\"" : u"'";
    line += plain ? argument : StringBuffer(quote) + argument + StringBuffer(quote);
  }
  return line;
}

struct LimitSingleInstance::Front {
  struct State {
    std::atomic<std::uint32_t> listening{0};
    std::atomic<std::int64_t> wParam{0};
    std::atomic<std::int64_t> lParam{0};
  };
  std::unique_ptr<Sys::NamedRegion> region;
  std::unique_ptr<IPC> event;
  std::function<void(std::intptr_t, std::intptr_t)> handler;
  DaemonMarshaller::VoidSignal called;
  std::unique_ptr<Detail::EventWorker> worker;

  State& Values() { return *static_cast<State*>(region->Address()); }
  ~Front() {
    if (region) Values().listening.store(0);
    worker.reset();
  }
};

namespace {

StringBuffer FrontName(const StringBuffer& name) {
  return name + StringBuffer(u"#front");
}

}  // namespace

LimitSingleInstance::LimitSingleInstance(const StringBuffer& name) : name_(name) {
  mutex_ = std::make_unique<IPC>(name, IPC::Mutex, false, true);
  if (!mutex_->IsValid())
    lastError_ = 5;  // access denied: the name is another user's or another kind's
  else if (!mutex_->Created())
    lastError_ = AlreadyExists;
}

LimitSingleInstance::~LimitSingleInstance() = default;

bool LimitSingleInstance::BringToFront(std::intptr_t wParam, std::intptr_t lParam) {
  int error = 0;
  auto region = Sys::NamedRegion::Open(FrontName(name_).ToUTF8(), sizeof(Front::State), false,
                                       false, Sys::NameScope::CurrentUser, error);
  if (!region) return false;
  auto& values = *static_cast<Front::State*>(region->Address());
  if (values.listening.load() == 0) return false;
  values.wParam.store(wParam);
  values.lParam.store(lParam);
  IPC event(FrontName(name_) + StringBuffer(u"event"), IPC::Event, false, false);
  event.Signal();
  return event.IsValid();
}

void LimitSingleInstance::OnBringToFront(
    std::function<void(std::intptr_t wParam, std::intptr_t lParam)> handler) {
  front_.reset();
  auto front = std::make_unique<Front>();
  int error = 0;
  front->region = Sys::NamedRegion::Open(FrontName(name_).ToUTF8(), sizeof(Front::State), true,
                                         false, Sys::NameScope::CurrentUser, error,
                                         [](void* address) { new (address) Front::State(); });
  front->event =
      std::make_unique<IPC>(FrontName(name_) + StringBuffer(u"event"), IPC::Event, false, false);
  if (!front->region || !front->event->IsValid()) return;
  front->handler = std::move(handler);
  Front* raw = front.get();
  front->called.connect([raw] {
    raw->handler(static_cast<std::intptr_t>(raw->Values().wParam.load()),
                 static_cast<std::intptr_t>(raw->Values().lParam.load()));
  });
  front->worker = std::make_unique<Detail::EventWorker>(
      *front->event, [raw](DaemonMarshaller& marshaller) { marshaller.Marshal_Void(raw->called); });
  front->Values().listening.store(1);
  front_ = std::move(front);
}

}  // namespace Veskan
