// SPDX-License-Identifier: Apache-2.0
// Semaphores and groups, and the main loop.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/Queues.h"
#include "tests/linux/runtime/Observation.h"

namespace kelvane {
namespace {

using namespace std::chrono_literals;

constexpr auto longest = std::chrono::nanoseconds::max();

TEST(ASemaphore, GivesOutAsManyCountsAsItHas) {
  const Semaphore semaphore(2);
  EXPECT_TRUE(semaphore.wait(0ns));
  EXPECT_TRUE(semaphore.wait(0ns));
  EXPECT_FALSE(semaphore.wait(0ns));
  semaphore.signal();
  semaphore.wait();
  EXPECT_FALSE(semaphore.wait(-1s));
}

TEST(ASemaphore, TakesNothingWhenTheTimePasses) {
  const Semaphore semaphore(0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(semaphore.wait(30ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
  semaphore.signal();
  EXPECT_TRUE(semaphore.wait(0ns));
}

TEST(ASemaphore, EndsALongWaitAtTheSignal) {
  for (const std::chrono::nanoseconds timeout : {std::chrono::nanoseconds(300s), longest, longest - 1ns}) {
    const Semaphore semaphore(0), waiting(0);
    std::atomic<bool> taken = false;
    std::thread waiter([&] {
      waiting.signal();
      taken = semaphore.wait(timeout);
    });
    waiting.wait();
    semaphore.signal();
    waiter.join();
    EXPECT_TRUE(taken);
  }
}

TEST(ASemaphore, MayBeDestroyedByTheWaiterAtOnce) {
  for (int i = 0; i < 2000; ++i) {
    Semaphore semaphore(0);
    globalQueue::async([&semaphore] { semaphore.signal(); });
    semaphore.wait();
  }
}

TEST(ASemaphore, WakesOneWaiterForEachSignal) {
  const Semaphore semaphore(0);
  const Group group;
  std::atomic<int> through = 0;
  for (int i = 0; i < 20; ++i)
    group.asyncGlobal([&] {
      semaphore.wait();
      ++through;
    });
  for (int i = 0; i < 19; ++i)
    semaphore.signal();
  EXPECT_TRUE(test::eventually([&] { return through == 19; }));
  EXPECT_FALSE(group.wait(20ms));
  semaphore.signal();
  group.wait();
  EXPECT_EQ(through, 20);
}

TEST(AGroup, IsEmptyAtFirst) {
  const Group group;
  group.wait();
  EXPECT_TRUE(group.wait(0ns));
}

TEST(AGroup, WaitsForAllItsWork) {
  const Group group;
  const SerialQueue queue("member");
  std::atomic<int> done = 0;
  for (int i = 0; i < 100; ++i) {
    group.async(queue, [&] { ++done; });
    group.asyncGlobal([&] { ++done; });
  }
  group.wait();
  EXPECT_EQ(done, 200);
}

TEST(AGroup, WaitsForWhatHasEnteredUntilItLeaves) {
  const Group group;
  group.enter();
  group.enter();
  group.leave();
  EXPECT_FALSE(group.wait(0ns));
  EXPECT_FALSE(group.wait(-1ns));
  EXPECT_FALSE(group.wait(20ms));
  globalQueue::async([group] { group.leave(); });
  EXPECT_TRUE(group.wait(longest));
}

TEST(AGroup, LetsAllWaitersGo) {
  const Group group, waiters;
  group.enter();
  for (int i = 0; i < 10; ++i)
    waiters.asyncGlobal([group] { group.wait(); });
  group.leave();
  waiters.wait();
}

TEST(AGroup, CanBeUsedAgain) {
  const Group group;
  for (int i = 0; i < 100; ++i) {
    int done = 0;
    group.asyncGlobal([&] { ++done; });
    group.wait();
    EXPECT_EQ(done, 1);
  }
}

TEST(AGroup, LetsGoOfWhatItsItemsHoldBeforeItIsEmpty) {
  const Group group;
  std::atomic<bool> emptyTooSoon = false, gone = false;
  std::shared_ptr<int> held(new int(0), [&](const int* number) {
    emptyTooSoon = group.wait(0ns);
    delete number;
    gone = true;
  });
  group.asyncGlobal([held = std::move(held)] {});
  group.wait();
  EXPECT_TRUE(gone);
  EXPECT_FALSE(emptyTooSoon);
}

TEST(AGroup, MayBeDestroyedByTheWaiterAtOnce) {
  for (int i = 0; i < 2000; ++i) {
    Group group;
    group.enter();
    globalQueue::async([&group] { group.leave(); });
    group.wait();
  }
}

TEST(AGroupDeathTest, StopsTheProcessWhenItIsLeftTooOften) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(Group().leave(), testing::KilledBySignal(SIGABRT), "left more often than entered");
}

TEST(TheGlobalQueue, HasFinishedASynchronousItemOnReturn) {
  bool ran = false;
  globalQueue::sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(TheGlobalQueue, RunsAnItemThatMeetsAnotherAtTheSameTime) {
  const Semaphore first(0), second(0);
  const Group group;
  group.asyncGlobal([&] {
    first.signal();
    second.wait();
  });
  group.asyncGlobal([&] {
    first.wait();
    second.signal();
  });
  group.wait();
}

TEST(TheMainLoopDeathTest, LeavesTheProcessToItsQueues) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        SerialQueue("exit").async([] { _exit(7); });
        enterMainLoop();
      },
      testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace kelvane
