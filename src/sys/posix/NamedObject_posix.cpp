#include "sys/NamedObject.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>

namespace Veskan {
namespace Sys {

namespace {

constexpr const char* GlobalPrefix = "Global\\";
constexpr const char* LocalPrefix = "Local\\";

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// Closes a descriptor when it goes.
class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int descriptor = -1) : descriptor_(descriptor) {}
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
  ~OwnedDescriptor() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  int Get() const { return descriptor_; }
  int Release() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
  }

 private:
  int descriptor_;
};

// Opens (creating when asked) a shared-memory file readable and writable as the scope allows.
int OpenShared(const std::string& name, bool create, bool readOnly, NameScope scope) {
  const mode_t mode = scope == NameScope::AllUsers ? 0666 : 0600;
  const int descriptor =
      shm_open(name.c_str(), (readOnly ? O_RDONLY : O_RDWR) | (create ? O_CREAT : 0), mode);
  // The process's umask must not take other users' access away.
  if (descriptor >= 0 && create && scope == NameScope::AllUsers) {
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && status.st_uid == geteuid()) fchmod(descriptor, mode);
  }
  return descriptor;
}

int FlockRetrying(int descriptor, int operation) {
  int result;
  do {
    result = flock(descriptor, operation);
  } while (result != 0 && errno == EINTR);
  return result;
}

}  // namespace

NameScope ScopeOf(const std::string& utf8Name, NameScope scope) {
  return StartsWith(utf8Name, GlobalPrefix) ? NameScope::AllUsers : scope;
}

std::string KernelObjectName(const std::string& utf8Name, NameScope scope) {
  std::string name = utf8Name;
  if (StartsWith(name, GlobalPrefix))
    name.erase(0, std::char_traits<char>::length(GlobalPrefix));
  else if (StartsWith(name, LocalPrefix))
    name.erase(0, std::char_traits<char>::length(LocalPrefix));
  std::string path = "/veskan-";
  // A namespace of their own for a set of processes (the tests), kept apart from everyone's.
  if (const char* space = std::getenv("VESKAN_NAMESPACE"); space && *space) {
    for (const char* at = space; *at; ++at)
      if ((*at >= 'a' && *at <= 'z') || (*at >= '0' && *at <= '9')) path += *at;
    path += '-';
  }
  path += ScopeOf(utf8Name, scope) == NameScope::AllUsers
              ? std::string("all")
              : "u" + std::to_string(static_cast<unsigned long>(geteuid()));
  path += '-';
  for (const unsigned char c : name) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
        c == '_' || c == '-') {
      path += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      path += escaped;
    }
  }
  if (path.size() > 200) {
    // FNV-1a of the whole name keeps long names apart.
    std::uint64_t hash = 14695981039346656037ull;
    for (const unsigned char c : utf8Name)
      hash = (hash ^ c) * 1099511628211ull;
    char tail[20];
    std::snprintf(tail, sizeof tail, "~%016llx", static_cast<unsigned long long>(hash));
    path.resize(180);
    path += tail;
  }
  return path;
}

std::unique_ptr<NamedRegion> NamedRegion::OpenGuarded(const std::string& objectName,
                                                      std::size_t size, bool create, bool readOnly,
                                                      NameScope requested, int& error,
                                                      void (*initialize)(void*, void*),
                                                      void* context) {
  error = 0;
  const std::string posixName = KernelObjectName(objectName, requested);
  const NameScope scope = ScopeOf(objectName, requested);
  // The guard orders openers of one name: whether the region is live, and making it anew, are
  // decided by one process at a time. Its lock goes with the process, like every lock here.
  // A reader that may not write the guard still opens live regions.
  OwnedDescriptor guard(OpenShared(posixName + ".guard", true, false, scope));
  if (guard.Get() < 0 && (create || errno != EACCES)) {
    error = errno;
    return nullptr;
  }
  if (guard.Get() >= 0 && FlockRetrying(guard.Get(), LOCK_EX) != 0) {
    error = errno;
    return nullptr;
  }
  OwnedDescriptor region(OpenShared(posixName, create, readOnly, scope));
  if (region.Get() < 0) {
    error = errno;
    return nullptr;
  }
  std::unique_ptr<NamedRegion> opened(new NamedRegion);
  if (FlockRetrying(region.Get(), LOCK_EX | LOCK_NB) == 0) {
    // No process holds it: a new name, or the file of processes that have all ended.
    if (!create || readOnly) {
      error = ENOENT;
      return nullptr;
    }
    if (ftruncate(region.Get(), 0) != 0 || ftruncate(region.Get(), static_cast<off_t>(size)) != 0) {
      error = errno;
      return nullptr;
    }
    opened->created_ = true;
  } else {
    struct stat status {};
    if (fstat(region.Get(), &status) != 0) {
      error = errno;
      return nullptr;
    }
    if (static_cast<std::size_t>(status.st_size) < size) {
      error = EINVAL;
      return nullptr;
    }
  }
  void* address = mmap(nullptr, size, readOnly ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED,
                       region.Get(), 0);
  if (address == MAP_FAILED) {
    error = errno;
    return nullptr;
  }
  opened->address_ = address;
  opened->size_ = size;
  opened->name_ = posixName;
  opened->descriptor_ = region.Release();
  if (opened->created_ && initialize) initialize(address, context);
  // The handle: a shared lock, taken while the guard keeps every other opener out.
  if (FlockRetrying(opened->descriptor_, LOCK_SH) != 0) {
    error = errno;
    return nullptr;
  }
  return opened;
}

std::unique_ptr<NamedRegion> NamedRegion::Open(const std::string& objectName, std::size_t size,
                                               bool create, bool readOnly, NameScope scope,
                                               int& error) {
  return OpenGuarded(objectName, size, create, readOnly, scope, error, nullptr, nullptr);
}

NamedRegion::~NamedRegion() {
  if (address_) munmap(address_, size_);
  if (descriptor_ < 0) return;
  // The last handle removes the file, under the guard so that no opener is half-way in. The
  // guard itself stays: a process may have it open, waiting for its lock.
  OwnedDescriptor guard(shm_open((name_ + ".guard").c_str(), O_RDWR, 0));
  if (guard.Get() >= 0 && FlockRetrying(guard.Get(), LOCK_EX) == 0 &&
      flock(descriptor_, LOCK_EX | LOCK_NB) == 0)
    shm_unlink(name_.c_str());
  close(descriptor_);  // drops this handle's lock
}

void WaitWhileEqual(std::atomic<std::uint32_t>& word, std::uint32_t expected, int timeoutMs) {
  static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t),
                "a futex is a plain 32-bit word");
  timespec timeout{};
  if (timeoutMs >= 0) {
    timeout.tv_sec = timeoutMs / 1000;
    timeout.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1000000L;
  }
  // Not FUTEX_PRIVATE_FLAG: the word is shared with other processes.
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT, expected,
          timeoutMs >= 0 ? &timeout : nullptr, nullptr, 0);
}

void WakeAll(std::atomic<std::uint32_t>& word) {
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE, INT_MAX, nullptr, nullptr,
          0);
}

namespace {

pthread_mutex_t* NativeMutex(SharedMutex& mutex) {
  static_assert(sizeof(pthread_mutex_t) <= sizeof(SharedMutex::storage), "room for the mutex");
  return reinterpret_cast<pthread_mutex_t*>(mutex.storage);
}

}  // namespace

bool InitializeSharedMutex(SharedMutex& mutex) {
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) != 0) return false;
  const bool set = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                   pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                   pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0;
  const bool made =
      set && pthread_mutex_init(new (mutex.storage) pthread_mutex_t, &attributes) == 0;
  pthread_mutexattr_destroy(&attributes);
  return made;
}

LockResult LockSharedMutex(SharedMutex& mutex, int timeoutMs) {
  pthread_mutex_t* native = NativeMutex(mutex);
  int result;
  if (timeoutMs == 0) {
    result = pthread_mutex_trylock(native);
  } else if (timeoutMs < 0) {
    result = pthread_mutex_lock(native);
  } else {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      ++deadline.tv_sec;
      deadline.tv_nsec -= 1000000000L;
    }
    result = pthread_mutex_clocklock(native, CLOCK_MONOTONIC, &deadline);
  }
  switch (result) {
    case 0:
      return LockResult::Locked;
    case EOWNERDEAD:
      // Its holder died holding it: the mutex is ours, and usable again.
      pthread_mutex_consistent(native);
      return LockResult::LockedOwnerDied;
    case EBUSY:
    case ETIMEDOUT:
      return LockResult::Busy;
    default:
      return LockResult::Failed;
  }
}

bool UnlockSharedMutex(SharedMutex& mutex) {
  return pthread_mutex_unlock(NativeMutex(mutex)) == 0;
}

}  // namespace Sys
}  // namespace Veskan
