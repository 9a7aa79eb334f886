// SPDX-License-Identifier: Apache-2.0
// Serial queues: suspension, and queues that nobody refers to any more.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include "platform/Queues.h"
#include "tests/linux/runtime/Observation.h"

namespace kelvane {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using testing::ElementsAre;

TEST(ASuspendedQueue, RunsItsItemsInOrderAfterTheLastResume) {
  const SerialQueue queue("suspended");
  std::atomic<int> count = 0;
  std::vector<int> seen;
  queue.suspend();
  queue.suspend();
  for (int i = 0; i < 3; ++i)
    queue.async([&, i] {
      seen.push_back(i);
      ++count;
    });
  queue.resume();
  // Whatever wrongly started would have overtaken this round through the pool.
  const Group round;
  for (int i = 0; i < 100; ++i)
    round.asyncGlobal([] {});
  round.wait();
  EXPECT_EQ(count, 0);
  queue.resume();
  queue.sync([] {});
  EXPECT_THAT(seen, ElementsAre(0, 1, 2));
}

TEST(ASuspendedQueue, LetsTheRunningItemFinishAndStartsNoOther) {
  const SerialQueue queue("running");
  const Semaphore started(0), release(0), finished(0), second(0);
  queue.async([&] {
    started.signal();
    release.wait();
    finished.signal();
  });
  queue.async([&] { second.signal(); });
  started.wait();
  queue.suspend();
  release.signal();
  finished.wait();
  EXPECT_FALSE(second.wait(20ms));
  queue.resume();
  second.wait();
}

TEST(ASuspendedQueue, CanBeSuspendedAndResumedByItsOwnItem) {
  const SerialQueue queue("own");
  const Semaphore suspended(0), second(0);
  queue.async([&] {
    queue.suspend();
    suspended.signal();
  });
  queue.async([&] { second.signal(); });
  suspended.wait();
  EXPECT_FALSE(second.wait(20ms));
  queue.resume();
  second.wait();
  queue.sync([&] {
    queue.suspend();
    queue.async([&] { second.signal(); });
    queue.resume();
  });
  second.wait();
}

TEST(ASuspendedQueue, KeepsASynchronousCallerWaiting) {
  const SerialQueue queue("waiting");
  const Semaphore ran(0);
  queue.suspend();
  std::thread caller([&] { queue.sync([&] { ran.signal(); }); });
  EXPECT_FALSE(ran.wait(20ms));
  queue.resume();
  caller.join();
  EXPECT_TRUE(ran.wait(0ns));
}

TEST(ASuspendedQueue, StartsNoItemBetweenSuspendAndResumeUnderLoad) {
  const SerialQueue queue("toggled");
  const Group group;
  long done = 0;
  for (int i = 0; i < 200; ++i) {
    for (int j = 0; j < 10; ++j)
      group.async(queue, [&] { ++done; });
    queue.suspend();
    queue.resume();
    queue.sync([&] { ++done; });
  }
  group.wait();
  EXPECT_EQ(done, 2200);
}

TEST(ASuspendedQueue, IsDroppedWithItsItemsWhenNobodyRefersToIt) {
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> watch = held;
  bool ran = false;
  {
    const SerialQueue queue("dropped");
    queue.suspend();
    queue.async([&ran, held = std::move(held)] { ran = true; });
    EXPECT_FALSE(watch.expired());
  }
  EXPECT_TRUE(watch.expired());
  EXPECT_FALSE(ran);
}

TEST(ASuspendedQueue, IsDroppedAlsoWhenItsOwnItemSuspendedIt) {
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> watch = held;
  std::optional<SerialQueue> queue("dropped");
  const Semaphore release(0);
  queue->async([copy = *queue, release] {
    copy.suspend();
    release.wait();
  });
  queue->async([held = std::move(held)] {});
  queue.reset();
  EXPECT_FALSE(watch.expired());
  release.signal();
  EXPECT_TRUE(eventually([&] { return watch.expired(); }));
}

TEST(AnUnreferencedQueue, RunsTheItemsItHas) {
  const Semaphore done(0);
  std::optional<SerialQueue> queue("unreferenced");
  for (int i = 0; i < 100; ++i)
    queue->async([done] { done.signal(); });
  queue.reset();
  for (int i = 0; i < 100; ++i)
    done.wait();
}

TEST(AnUnreferencedQueue, MayLoseItsLastReferenceInItsOwnItem) {
  for (int i = 0; i < 500; ++i) {
    auto queue = std::make_unique<SerialQueue>("self");
    auto* const raw = queue.get();
    const Semaphore done(0);
    raw->async([&queue, done] {
      queue.reset();
      done.signal();
    });
    done.wait();
  }
  auto queue = std::make_unique<SerialQueue>("self, inline");
  queue->sync([&] { queue.reset(); });
  EXPECT_EQ(queue, nullptr);
}

TEST(AnUnreferencedQueue, MayBeHeldByItsItemOnly) {
  const Semaphore done(0);
  for (int i = 0; i < 500; ++i) {
    const SerialQueue queue("held");
    queue.async([queue, done] { queue.async([queue, done] { done.signal(); }); });
  }
  for (int i = 0; i < 500; ++i)
    done.wait();
}

TEST(ASuspendedQueueDeathTest, StopsTheProcessWhenItIsResumedTooOften) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const SerialQueue queue("com.example.resumed");
  EXPECT_EXIT(queue.resume(), testing::KilledBySignal(SIGABRT), "com\\.example\\.resumed");
}

}  // namespace
}  // namespace kelvane
