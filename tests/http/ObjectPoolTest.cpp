// The object pool: objects made on one thread and dropped on another come back in batches,
// what the shared list cannot keep is destroyed, and nothing is lost or destroyed twice.
#include "http/ObjectPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

namespace Veskan {
namespace Detail {
namespace {

std::atomic<int> alive{0};

struct Pooled {
  Pooled() { ++alive; }
  ~Pooled() { --alive; }
};

// A pool of its own for this test: 4 per thread, 8 shared.
using Pool = ObjectPool<Pooled, 4, 8>;

TEST(ObjectPoolTest, ObjectsDroppedOnAnotherThreadAreReusedAndTheRestDestroyed) {
  // A producer thread makes 20 objects and a consumer thread drops them all: its own share (4)
  // stays with it until it ends, the shared list keeps 8, the other 8 are destroyed at once.
  std::vector<Pooled*> made;
  std::thread producer([&made] {
    for (int i = 0; i < 20; ++i) {
      Pooled* object = Pool::Take();
      made.push_back(object != nullptr ? object : new Pooled);
    }
  });
  producer.join();
  EXPECT_EQ(alive.load(), 20);

  std::thread consumer([&made] {
    for (Pooled* object : made)
      Pool::Give(object);
    EXPECT_EQ(alive.load(), 4 + 8);  // its own share and the shared list's
  });
  consumer.join();  // its own share is destroyed with the thread
  EXPECT_EQ(alive.load(), 8);

  // Another thread takes the shared ones back, a batch at a time, each exactly once.
  std::thread taker([&made] {
    std::set<Pooled*> taken;
    for (Pooled* object = Pool::Take(); object != nullptr; object = Pool::Take())
      taken.insert(object);
    EXPECT_EQ(taken.size(), 8u);
    for (Pooled* object : taken)
      EXPECT_EQ(std::count(made.begin(), made.end(), object), 1);
    for (Pooled* object : taken)
      delete object;
  });
  taker.join();
  EXPECT_EQ(alive.load(), 0);
}

}  // namespace
}  // namespace Detail
}  // namespace Veskan
