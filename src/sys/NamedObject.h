// Named objects shared between processes: regions of shared memory whose life ends with their
// last handle, and the waits and locks built inside them.
#ifndef VESKAN_SYS_NAMEDOBJECT_H
#define VESKAN_SYS_NAMEDOBJECT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Veskan {
namespace Sys {

// Who may open an object: the processes of the user who made it, or of every user (the object
// is then readable and writable by all).
enum class NameScope { CurrentUser, AllUsers };

// The name of the operating system's object for the kernel-object name `utf8Name`, by one rule:
// "/veskan-", the letters and digits of $VESKAN_NAMESPACE and "-" when it is set (a set of
// processes kept apart, such as tests), the scope ("all", or "u" and the user's id), "-", then
// the name with
// every byte outside A-Z a-z 0-9 . _ - written as %XX. A name starting with "Global\" is in the
// AllUsers scope whatever `scope` says; "Global\" and "Local\" are dropped. Names that would pass
// 200 characters keep their first 180 and end in a hash of the whole.
std::string KernelObjectName(const std::string& utf8Name, NameScope scope);
// The scope a name asks for: AllUsers for "Global\...", else `scope`.
NameScope ScopeOf(const std::string& utf8Name, NameScope scope);

// A named region of shared memory that, like a kernel object, lives as long as some process has
// it open: each handle holds a shared lock on the region, which the kernel drops when the process
// ends however it ends, and the first opener after the last handle has gone makes the region anew
// (zeroed) even when a crashed process left its file behind.
class NamedRegion {
 public:
  // Opens the region of the kernel-object name `objectName` (UTF-8: its system name and scope as
  // KernelObjectName and ScopeOf give them) of `size` bytes. With `create` it is made when no
  // process has it, else only a live region is opened. Null with the system's error
  // number in `error` on failure (ENOENT: no live region; EINVAL: a live region smaller than
  // `size`).
  static std::unique_ptr<NamedRegion> Open(const std::string& objectName, std::size_t size,
                                           bool create, bool readOnly, NameScope scope, int& error);
  // Runs `initialize(address)` on a region this call made, before any other process can open it.
  template <typename Initialize>
  static std::unique_ptr<NamedRegion> Open(const std::string& objectName, std::size_t size,
                                           bool create, bool readOnly, NameScope scope, int& error,
                                           Initialize&& initialize);
  NamedRegion(const NamedRegion&) = delete;
  NamedRegion& operator=(const NamedRegion&) = delete;
  ~NamedRegion();

  bool Created() const { return created_; }
  void* Address() const { return address_; }
  int Descriptor() const { return descriptor_; }
  std::size_t Size() const { return size_; }

 private:
  NamedRegion() = default;
  // The steps of Open; `initialize` runs while the name's guard is held.
  static std::unique_ptr<NamedRegion> OpenGuarded(const std::string& objectName, std::size_t size,
                                                  bool create, bool readOnly, NameScope scope,
                                                  int& error, void (*initialize)(void*, void*),
                                                  void* context);

  std::string name_;
  int descriptor_ = -1;
  void* address_ = nullptr;
  std::size_t size_ = 0;
  bool created_ = false;
};

template <typename Initialize>
std::unique_ptr<NamedRegion> NamedRegion::Open(const std::string& objectName, std::size_t size,
                                               bool create, bool readOnly, NameScope scope,
                                               int& error, Initialize&& initialize) {
  return OpenGuarded(
      objectName, size, create, readOnly, scope, error,
      [](void* address, void* context) { (*static_cast<Initialize*>(context))(address); },
      &initialize);
}

// Waits while `*word` holds `expected`, up to `timeoutMs` (negative: no limit), across processes
// when the word lives in shared memory. Returns early on a wake-up or a signal; the caller
// checks its condition again.
void WaitWhileEqual(std::atomic<std::uint32_t>& word, std::uint32_t expected, int timeoutMs);
// Wakes every thread of every process waiting on `word`.
void WakeAll(std::atomic<std::uint32_t>& word);

// A mutex in shared memory that survives its holder's death: the next locker gets it, told that
// its previous owner died. Recursive within a thread, as a Windows mutex is.
struct SharedMutex {
  alignas(std::max_align_t) unsigned char storage[64];
};
static_assert(sizeof(SharedMutex) >= 40, "room for a pthread mutex");
// Makes the mutex in a zeroed region.
bool InitializeSharedMutex(SharedMutex& mutex);
enum class LockResult { Locked, LockedOwnerDied, Busy, Failed };
// Waits up to `timeoutMs` (0: not at all; negative: no limit).
LockResult LockSharedMutex(SharedMutex& mutex, int timeoutMs);
// False when the calling thread does not hold it.
bool UnlockSharedMutex(SharedMutex& mutex);

}  // namespace Sys
}  // namespace Veskan

#endif
