// The workers' turn gate: turns go to waiters first come, first served, those returning from
// having had nothing to do first; a waiter out of patience leaves the line; a thread waiting on
// others gives its turn away meanwhile.
#include "sys/Turns.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

constexpr auto Long = std::chrono::seconds(10);

// Waits until `count` threads wait at `gate`; false when they did not in time.
bool LineReaches(const Sys::TurnGate& gate, int count) {
  const auto deadline = std::chrono::steady_clock::now() + Long;
  while (gate.Waiting() != count) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(TurnGateTest, TurnsGoToWaitersInTheOrderTheyCame) {
  Sys::TurnGate gate(1);
  ASSERT_TRUE(gate.Take(Long));
  EXPECT_TRUE(gate.Take(Long)) << "a holder asking again keeps its turn";
  std::mutex mutex;
  std::vector<int> order;
  std::vector<std::thread> threads;
  // 0 to 3 come to wait after their turns, 4 and 5 come back from having had nothing to do.
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] {
      bool taken = gate.Take(Long, i >= 4);
      {
        std::lock_guard<std::mutex> lock(mutex);
        order.push_back(taken ? i : -1);
      }
      EXPECT_TRUE(gate.Held());
      gate.Give();
    });
    ASSERT_TRUE(LineReaches(gate, i + 1));
  }
  EXPECT_TRUE(gate.Give()) << "handed to the first in line";
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(order, (std::vector<int>{4, 5, 0, 1, 2, 3}));
  EXPECT_FALSE(gate.Held());
  EXPECT_FALSE(gate.Give()) << "nothing to give without a turn";
  EXPECT_TRUE(gate.Take(std::chrono::milliseconds(0))) << "the turn came back to the gate";
  gate.Give();
}

TEST(TurnGateTest, AWaiterOutOfPatienceLeavesTheLineWithoutATurn) {
  Sys::TurnGate gate(2);
  ASSERT_TRUE(gate.Take(Long));
  std::thread second([&] {
    EXPECT_TRUE(gate.Take(Long)) << "two turns for two threads";
    std::thread third([&] {
      EXPECT_FALSE(gate.Take(std::chrono::milliseconds(5), true));
      EXPECT_FALSE(gate.Held());
      gate.Give();  // holds none: changes nothing
    });
    third.join();
    EXPECT_EQ(gate.Waiting(), 0);
    gate.Give();
  });
  second.join();
  std::thread fourth([&] {
    EXPECT_TRUE(gate.Take(std::chrono::milliseconds(0))) << "the second turn is free again";
    gate.Give();
  });
  fourth.join();
  gate.Give();
}

TEST(TurnGateTest, AThreadWaitingOnOthersLetsThemHaveItsTurn) {
  // The gate of the workers, as the library's own waits use it.
  Sys::TurnGate& gate = Sys::TurnGate::Workers();
  ASSERT_GE(Sys::UsableProcessors(), 1);
  std::vector<std::thread> holders;
  // Every turn held, then one more thread that must wait until a holder turns away.
  std::mutex mutex;
  std::condition_variable changed;
  bool release = false;
  int holding = 0;
  for (int i = 0; i < Sys::UsableProcessors(); ++i) {
    holders.emplace_back([&] {
      ASSERT_TRUE(gate.Take(Long));
      std::unique_lock<std::mutex> lock(mutex);
      ++holding;
      changed.notify_all();
      {
        Sys::TurnAway away;  // gives the turn back while waiting
        changed.wait(lock, [&] { return release; });
      }
      EXPECT_TRUE(gate.Held()) << "taken again after the wait";
      lock.unlock();
      gate.Give();
    });
  }
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, Long, [&] { return holding == Sys::UsableProcessors(); }));
  }
  std::thread newcomer([&] {
    EXPECT_TRUE(gate.Take(Long)) << "a turn given away is free for others";
    gate.Give();
  });
  newcomer.join();
  {
    std::lock_guard<std::mutex> lock(mutex);
    release = true;
  }
  changed.notify_all();
  for (std::thread& holder : holders)
    holder.join();
}

}  // namespace
}  // namespace Veskan
