// SPDX-License-Identifier: Apache-2.0
// Serial queues: order, mutual exclusion, synchronous items and identity.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <thread>
#include <vector>

#include "platform/Queues.h"

namespace kelvane {
namespace {

using testing::ElementsAre;

TEST(ASerialQueue, HasTheLabelItWasGiven) {
  EXPECT_EQ(SerialQueue("com.example.queue").label(), "com.example.queue");
}

TEST(ASerialQueue, IsTheSameQueueAsItsCopiesAndNoOther) {
  const SerialQueue queue("one");
  const SerialQueue copy = queue;
  EXPECT_EQ(queue, copy);
  EXPECT_NE(queue, SerialQueue("one"));
}

TEST(ASerialQueue, RunsItemsInTheOrderSubmitted) {
  const SerialQueue queue("order");
  std::vector<int> seen;
  for (int i = 0; i < 1000; ++i)
    queue.async([&seen, i] { seen.push_back(i); });
  queue.sync([] {});
  std::vector<int> expected(1000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seen, expected);
}

TEST(ASerialQueue, RunsASynchronousItemInItsPlaceAmongTheOthers) {
  const SerialQueue queue("mixed");
  const Semaphore started(0), release(0);
  std::vector<int> seen;
  queue.async([&] {
    started.signal();
    release.wait();
    seen.push_back(1);
  });
  started.wait();
  queue.async([&] { seen.push_back(2); });
  queue.async([&] {
    seen.push_back(3);
    queue.async([&] { seen.push_back(5); });
  });
  queue.async([&] { queue.async([&] { seen.push_back(6); }); });
  release.signal();
  queue.sync([&] { seen.push_back(4); });
  queue.sync([] {});
  queue.sync([] {});
  // The items that items submitted may come before or after the 4.
  EXPECT_THAT(std::vector<int>(seen.begin(), seen.begin() + 3), ElementsAre(1, 2, 3));
  EXPECT_THAT(seen, testing::UnorderedElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_LT(std::find(seen.begin(), seen.end(), 5), std::find(seen.begin(), seen.end(), 6));
}

TEST(ASerialQueue, RunsASynchronousItemAfterAllThatWereSubmittedBefore) {
  const SerialQueue queue("waiters");
  std::vector<int> seen;
  queue.suspend();
  for (int i = 0; i < 3; ++i)
    queue.async([&seen, i] { seen.push_back(i); });
  const Semaphore finished(0);
  std::thread waiter([&] {
    queue.sync([&] { seen.push_back(3); });
    finished.signal();
  });
  EXPECT_FALSE(finished.wait(std::chrono::milliseconds(20)));
  queue.resume();
  waiter.join();
  EXPECT_THAT(seen, ElementsAre(0, 1, 2, 3));
}

TEST(ASerialQueue, NeverRunsTwoItemsAtOnce) {
  const SerialQueue queue("exclusive");
  long unguarded = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        if (i % 2)
          queue.async([&] { ++unguarded; });
        else
          queue.sync([&] { ++unguarded; });
      }
    });
  for (auto& thread : threads)
    thread.join();
  queue.sync([] {});
  EXPECT_EQ(unguarded, 8000);
}

TEST(ASerialQueue, RunsASynchronousItemOnTheCallingThreadWhetherIdleOrBusy) {
  const SerialQueue queue("inline");
  const auto self = std::this_thread::get_id();
  queue.sync([&] { EXPECT_EQ(std::this_thread::get_id(), self); });

  const Semaphore started(0), release(0);
  queue.async([&] {
    EXPECT_NE(std::this_thread::get_id(), self);
    started.signal();
    release.wait();
  });
  started.wait();
  queue.async([&] { EXPECT_NE(std::this_thread::get_id(), self); });
  release.signal();
  queue.sync([&] { EXPECT_EQ(std::this_thread::get_id(), self); });
}

TEST(ASerialQueue, IsCurrentInItsItemsOnly) {
  const SerialQueue queue("current"), other("other");
  EXPECT_FALSE(queue.isCurrent());
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    EXPECT_FALSE(other.isCurrent());
    queue.assertCurrent();
  });
  const Group group;
  group.async(queue, [&] {
    EXPECT_TRUE(queue.isCurrent());
    queue.assertCurrent();
  });
  group.asyncGlobal([&] { EXPECT_FALSE(queue.isCurrent()); });
  group.wait();
  EXPECT_FALSE(queue.isCurrent());
}

TEST(ASerialQueue, StaysCurrentWhileItsItemWaitsForAnotherQueue) {
  const SerialQueue outer("outer"), inner("inner");
  const Semaphore started(0), release(0);
  inner.async([&] {
    started.signal();
    release.wait();
    EXPECT_FALSE(outer.isCurrent());
  });
  started.wait();
  outer.sync([&] {
    release.signal();
    inner.sync([&] {
      EXPECT_TRUE(inner.isCurrent());
      EXPECT_TRUE(outer.isCurrent());
    });
    EXPECT_FALSE(inner.isCurrent());
    EXPECT_TRUE(outer.isCurrent());
  });
}

TEST(ASerialQueue, LetsGoOfWhatAnItemHoldsAsPartOfTheItem) {
  const SerialQueue queue("release");
  std::vector<int> seen;
  std::shared_ptr<int> held(new int(1), [&](const int* number) {
    EXPECT_TRUE(queue.isCurrent());
    queue.async([&] { seen.push_back(3); });
    seen.push_back(*number);
    delete number;
  });
  queue.suspend();
  queue.async([held = std::move(held)] {});
  queue.async([&] { seen.push_back(2); });
  queue.resume();
  queue.sync([] {});
  queue.sync([] {});
  EXPECT_THAT(seen, ElementsAre(1, 2, 3));
}

TEST(ASerialQueueDeathTest, StopsTheProcessWhenAnAssertionFails) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const SerialQueue queue("com.example.asserted");
  EXPECT_EXIT(queue.assertCurrent(), testing::KilledBySignal(SIGABRT), "com\\.example\\.asserted");
  EXPECT_EXIT(SerialQueue("other").sync([&] { queue.assertCurrent(); }), testing::KilledBySignal(SIGABRT),
              "com\\.example\\.asserted");
}

}  // namespace
}  // namespace kelvane
