// Named objects shared between processes: mutexes and events (IPC), regions of shared memory
// (SharedMemory), one running copy of a program (LimitSingleInstance), and the first copy
// receiving the command lines of later ones (SingleInstanceCLI).
#ifndef VESKAN_IPC_H
#define VESKAN_IPC_H

#include <veskan/DaemonMarshaller.h>
#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace Veskan {

namespace Sys {
class NamedRegion;
}
namespace Detail {
class EventWorker;
}

// Names. An object's name is turned into a name of the operating system by one rule: the user's
// own objects unless the name starts with "Global\" (then every user's processes may open, wait
// on and signal it); characters outside A-Z a-z 0-9 . _ - are escaped. Like a Windows kernel
// object, a named object lives while some process has it open: when the last handle goes, even
// with a process killed outright, the next process to create the name gets a new object.

// A named mutex or auto-reset event.
//
// Thread safety: an object may be used from several threads. A mutex is owned by a thread and
// recursive within it; when its owner dies holding it, the next Wait gets it (and returns true).
class VESKAN_API IPC {
 public:
  enum ObjectType { Mutex = 0, Event = 1 };

  // Creates the named object, or opens it when it exists. A mutex this call creates is owned by
  // the calling thread unless `signalled`; an event is made set when `signalled`. With
  // `mustCreate`, an object that already existed is left alone and this one stays invalid.
  IPC(const StringBuffer& name, ObjectType type, bool mustCreate, bool signalled);
  virtual ~IPC();
  IPC(const IPC&) = delete;
  IPC& operator=(const IPC&) = delete;

  bool Created() const { return created_; }
  bool IsValid() const;
  // The descriptor of the object's shared region; -1 when invalid.
  int OSHandle() const;
  ObjectType Type() const { return type_; }
  const StringBuffer& Name() const { return name_; }

  // Takes the mutex, or waits for the event to be set and resets it. False for an invalid object.
  bool Wait();
  // Wait without waiting.
  bool TryWait();
  // The same, up to `milliseconds`.
  bool TimedWait(int milliseconds);
  // Releases the mutex (when the calling thread owns it) or sets the event.
  void Signal();

  // Full-barrier atomic operations on a 32-bit integer, as the interlocked operations give them:
  // the new value (increment, decrement) or the old one (exchanges).
  static int AtomicIncrement(int* value);
  static int AtomicDecrement(int* value);
  static int AtomicExchange(int* value, int exchange);
  static int AtomicCompareExchange(int* value, int exchange, int comparand);

 private:
  friend class Shutdowner;
  friend class SingleInstanceCLI;
  friend class LimitSingleInstance;
  friend class Detail::EventWorker;
  // A manual-reset event visible to every user's processes (the shutdown request).
  struct AllUsersManualReset {};
  IPC(const StringBuffer& name, AllUsersManualReset);
  // Wakes this process's waiters on the event without setting it; they see their own reasons.
  void WakeWaiters();
  // Whether the event is set, without resetting it.
  bool IsSet() const;
  // Wait, given up when `stop` is set and WakeWaiters is called.
  bool WaitOrStop(const std::atomic<bool>& stop);
  void Open(bool mustCreate, bool signalled, bool manualReset, bool allUsers);

  StringBuffer name_;
  ObjectType type_;
  bool created_ = false;
  std::unique_ptr<Sys::NamedRegion> region_;
};

// A named region of shared memory.
class VESKAN_API SharedMemory {
 public:
  // With `create`, makes the region of `size` bytes (zeroed) unless a live one exists, which is
  // opened; else opens a live region of at least `size` bytes. Mapped read-only when `readOnly`.
  SharedMemory(const StringBuffer& name, std::uint32_t size, bool readOnly, bool create);
  virtual ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  bool IsValid() const { return region_ != nullptr; }
  bool Created() const;
  std::uint32_t Size() const { return size_; }
  // The mapped view; null when invalid.
  operator const void*() const;
  operator void*();

 private:
  StringBuffer name_;
  std::uint32_t size_;
  std::unique_ptr<Sys::NamedRegion> region_;
};

// Tells a program whether another copy of it is running, and lets a later copy call the first
// to the front. There are no windows to enumerate here: the first copy installs a handler
// (OnBringToFront), which runs on the thread that installed it, through its marshaller, when a
// later copy calls BringToFront.
class VESKAN_API LimitSingleInstance {
 public:
  static constexpr const char16_t* VeskanManager =
      u"VeskanManager-169a0260-6ea6-11db-9fe1-0800200c9a66";
  // The error code IsAnotherInstanceRunning looks for: the object already existed.
  static constexpr std::uint32_t AlreadyExists = 183;

  explicit LimitSingleInstance(const StringBuffer& name);
  ~LimitSingleInstance();
  LimitSingleInstance(const LimitSingleInstance&) = delete;
  LimitSingleInstance& operator=(const LimitSingleInstance&) = delete;

  bool IsAnotherInstanceRunning() const { return lastError_ == AlreadyExists; }
  std::uint32_t LastError() const { return lastError_; }

  // Asks the first copy to come to the front, handing it the two values: true when a first copy
  // with a handler was told.
  bool BringToFront(std::intptr_t wParam, std::intptr_t lParam);
  // In the first copy: `handler` runs on the calling thread (through RunEventLoopOnce) for each
  // BringToFront of a later copy. Replaces an earlier handler.
  void OnBringToFront(std::function<void(std::intptr_t wParam, std::intptr_t lParam)> handler);

 private:
  struct Front;
  StringBuffer name_;
  std::uint32_t lastError_ = 0;
  std::unique_ptr<IPC> mutex_;
  std::unique_ptr<Front> front_;
};

// The first copy of a program receives the command lines of later copies: each later copy puts
// its command line in a shared region and wakes the first, whose host thread then reads it
// through CommandLine() in a slot of `CommandLineArrived` (run by RunEventLoopOnce on the thread
// that made this object). A later copy waits, up to 10 s, for the first to have read the command
// line before it, so none is lost when many start at once.
class VESKAN_API SingleInstanceCLI {
 public:
  static constexpr int MaxCommandLine = 999;  // UTF-16 units kept of a command line

  SingleInstanceCLI(const StringBuffer& name, const StringBuffer& commandLine);
  SingleInstanceCLI(const StringBuffer& name, int argc, const wchar_t** argv);
  SingleInstanceCLI(const StringBuffer& name, int argc, char** argv);
  ~SingleInstanceCLI();
  SingleInstanceCLI(const SingleInstanceCLI&) = delete;
  SingleInstanceCLI& operator=(const SingleInstanceCLI&) = delete;

  bool IsFirst() const { return first_; }
  // In a later copy: whether the first copy took its command line.
  bool Delivered() const { return delivered_; }
  // The command line now in the shared region.
  StringBuffer CommandLine() const;

  // Fired on the host's thread with this object when a later copy's command line arrived.
  DaemonMarshaller::VoidPointerSignal CommandLineArrived;

  // Joins arguments into one command line that Helpers::CommandLineToArgv splits back: an
  // argument that is empty, holds a space or a tab, or starts with a quote is put in double
  // quotes, or in apostrophes when it holds a double quote.
  static StringBuffer JoinArguments(int argc, const char16_t* const* argv);

 private:
  struct Shared;
  void Initialize(const StringBuffer& name, const StringBuffer& commandLine);
  void Deliver(const StringBuffer& commandLine);
  void Write(const StringBuffer& commandLine);
  void Arrived(DaemonMarshaller& marshaller);

  bool first_ = false;
  bool delivered_ = false;
  std::unique_ptr<IPC> event_;
  std::unique_ptr<SharedMemory> region_;
  std::unique_ptr<Shared> shared_;
  std::unique_ptr<Detail::EventWorker> worker_;
};

}  // namespace Veskan

#endif
