// A pool of objects that are costly to build and are made and dropped once per request or per
// connection: a message with its URL and bodies, the signal set of a connection. A busy server
// then builds them once and renews them, instead of allocating and constructing their strings,
// vectors and signals for every request.
#ifndef VESKAN_HTTP_OBJECTPOOL_H
#define VESKAN_HTTP_OBJECTPOOL_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace Veskan {
namespace Detail {

// Objects given back must be renewed by the giver: the pool hands them out again as they are.
// Each thread keeps up to `Local` objects of its own, taken and given without a lock (a worker
// makes and drops a message per request, usually on its own thread). Objects made on one thread
// and dropped on another (a window-mode host drops what the workers made) pass through a list
// shared by all threads of at most `Kept`, half a thread's share at a time, so that the lock is
// taken once per batch rather than once per object; more are destroyed. A thread's own objects
// are destroyed when it ends.
//
// Thread safety: Take and Give may be called from any thread, also while the calling thread's
// own objects are being destroyed.
template <typename T, std::size_t Local = 16, std::size_t Kept = 256>
class ObjectPool {
  static_assert(Local >= 2, "a batch is half of a thread's share");
  static constexpr std::size_t Batch = Local / 2;

 public:
  // A pooled object, or null when there is none: the caller then makes a new one.
  static T* Take() {
    std::vector<T*>* local = Cache();
    if (local == nullptr) {  // the thread is ending: straight from the shared list
      std::lock_guard<std::mutex> lock(Mutex());
      std::vector<T*>& shared = Shared();
      if (shared.empty()) return nullptr;
      T* object = shared.back();
      shared.pop_back();
      return object;
    }
    if (local->empty()) Refill(*local);
    if (local->empty()) return nullptr;
    T* object = local->back();
    local->pop_back();
    return object;
  }

  // A pooled object, or else the one `make()` returns, owned by a shared pointer whose last
  // owner passes it to `recycle`, which renews it and gives it back. Weak pointers to it expire
  // as usual.
  template <typename Make>
  static std::shared_ptr<T> TakeShared(Make make, void (*recycle)(T*));

  // Takes `object`, renewed, back; destroys it when the pool is full.
  static void Give(T* object) {
    if (object == nullptr) return;
    std::vector<T*>* local = Cache();
    if (local == nullptr) {
      {
        std::lock_guard<std::mutex> lock(Mutex());
        std::vector<T*>& shared = Shared();
        if (shared.size() < Kept) {
          shared.push_back(object);
          return;
        }
      }
      delete object;
      return;
    }
    if (local->size() >= Local) Spill(*local);
    local->push_back(object);
  }

 private:
  // Moves up to a batch from the shared list to an empty thread's list.
  static void Refill(std::vector<T*>& local) {
    std::lock_guard<std::mutex> lock(Mutex());
    std::vector<T*>& shared = Shared();
    const std::size_t count = shared.size() < Batch ? shared.size() : Batch;
    local.insert(local.end(), shared.end() - static_cast<std::ptrdiff_t>(count), shared.end());
    shared.resize(shared.size() - count);
  }

  // Moves a batch from a full thread's list to the shared list; what does not fit there is
  // destroyed, outside the lock (a destructor may give objects of other pools back).
  static void Spill(std::vector<T*>& local) {
    T* excess[Batch];
    std::size_t excessCount = 0;
    {
      std::lock_guard<std::mutex> lock(Mutex());
      std::vector<T*>& shared = Shared();
      for (std::size_t moved = 0; moved < Batch; ++moved) {
        T* object = local.back();
        local.pop_back();
        if (shared.size() < Kept) {
          shared.push_back(object);
        } else {
          excess[excessCount++] = object;
        }
      }
    }
    for (std::size_t i = 0; i < excessCount; ++i)
      delete excess[i];
  }

  // Owns the thread's objects; while it lives, `cache` points at them. The pointer and the flag
  // are trivially destructible, so a Give from a destructor that runs after the owner's sees
  // null rather than a destroyed vector.
  struct ThreadObjects {
    ThreadObjects() {
      objects.reserve(Local);
      cache = &objects;
    }
    ~ThreadObjects() {
      cache = nullptr;
      ended = true;
      for (T* object : objects)
        delete object;
    }
    std::vector<T*> objects;
  };

  static std::vector<T*>* Cache() {
    if (cache == nullptr && !ended) {
      thread_local ThreadObjects owner;  // made on the thread's first use only
    }
    return cache;
  }

  // Leaked on purpose, like the shared list: objects may come back from static destructors.
  static std::mutex& Mutex() {
    static std::mutex* const mutex = new std::mutex;
    return *mutex;
  }
  // Its room is made at once, so that giving back never allocates.
  static std::vector<T*>& Shared() {
    static std::vector<T*>* const shared = [] {
      auto* list = new std::vector<T*>();
      list->reserve(Kept);
      return list;
    }();
    return *shared;
  }

  // The fast model, without a look-up call at every use; a library loaded by dlopen still finds
  // room for these few bytes in the static reserve the loader keeps.
  [[gnu::tls_model("initial-exec")]] static thread_local std::vector<T*>* cache;
  [[gnu::tls_model("initial-exec")]] static thread_local bool ended;
};

// Allocates the control blocks of pooled objects' shared pointers from a pool of their own, one
// pool per block type: handing out a pooled object then allocates nothing either.
template <typename U>
class BlockAllocator {
 public:
  using value_type = U;

  BlockAllocator() = default;
  template <typename V>
  BlockAllocator(const BlockAllocator<V>&) noexcept {}

  U* allocate(std::size_t count) {
    if (count != 1) return std::allocator<U>().allocate(count);
    Block* block = ObjectPool<Block>::Take();
    return reinterpret_cast<U*>(block != nullptr ? block : new Block);
  }
  void deallocate(U* pointer, std::size_t count) noexcept {
    if (count != 1) return std::allocator<U>().deallocate(pointer, count);
    ObjectPool<Block>::Give(reinterpret_cast<Block*>(pointer));
  }

  template <typename V>
  bool operator==(const BlockAllocator<V>&) const noexcept {
    return true;
  }
  template <typename V>
  bool operator!=(const BlockAllocator<V>&) const noexcept {
    return false;
  }

 private:
  struct Block {
    alignas(U) unsigned char bytes[sizeof(U)];
  };
};

template <typename T, std::size_t Local, std::size_t Kept>
template <typename Make>
std::shared_ptr<T> ObjectPool<T, Local, Kept>::TakeShared(Make make, void (*recycle)(T*)) {
  T* object = Take();
  return std::shared_ptr<T>(object != nullptr ? object : make(), recycle, BlockAllocator<T>());
}

template <typename T, std::size_t Local, std::size_t Kept>
thread_local std::vector<T*>* ObjectPool<T, Local, Kept>::cache = nullptr;
template <typename T, std::size_t Local, std::size_t Kept>
thread_local bool ObjectPool<T, Local, Kept>::ended = false;

}  // namespace Detail
}  // namespace Veskan

#endif
