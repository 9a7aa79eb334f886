// SPDX-License-Identifier: Apache-2.0
// The pool's threads: how many there are, when they end, and what happens when the system refuses one.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/Queues.h"
#include "platform/linux/runtime/Thread.h"
#include "tests/linux/runtime/Observation.h"

namespace kelvane {
namespace {

using test::eventually;
using test::sleepsWithoutLimit;
using test::threadsNamed;

std::size_t workers() {
  return threadsNamed("kelvane-worker").size();
}

/// A pool that nobody has used yet has no threads at all, not even the reserve.
void usePool() {
  const Semaphore used(0);
  globalQueue::async([used] { used.signal(); });
  used.wait();
}

bool becomesQuiet() {
  usePool();
  return eventually([] {
    const auto remaining = threadsNamed("kelvane-worker");
    const auto monitors = threadsNamed("kelvane-monitor");
    return remaining.size() == 1 && sleepsWithoutLimit(remaining[0]) && monitors.size() == 1 &&
           sleepsWithoutLimit(monitors[0]);
  });
}

/// While one lives, the system grants only so many more threads.
class Refusal {
 public:
  explicit Refusal(int grants) {
    remaining = grants;
    runtime::threadCreator = [](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                                void* argument) {
      return remaining.fetch_sub(1) > 0 ? pthread_create(thread, attributes, body, argument) : EAGAIN;
    };
  }
  ~Refusal() { runtime::threadCreator = &pthread_create; }
  Refusal(const Refusal&) = delete;
  Refusal& operator=(const Refusal&) = delete;

 private:
  inline static std::atomic<int> remaining;
};

/// Blocks this many items in the pool.
class Blockers {
 public:
  explicit Blockers(int count) : count_(count) {
    for (int i = 0; i < count_; ++i)
      group_.asyncGlobal([started = started_, release = release_] {
        started.signal();
        release.wait();
      });
    for (int i = 0; i < count_; ++i)
      started_.wait();
  }
  ~Blockers() {
    for (int i = 0; i < count_; ++i)
      release_.signal();
    group_.wait();
  }
  Blockers(const Blockers&) = delete;
  Blockers& operator=(const Blockers&) = delete;

 private:
  const int count_;
  const Group group_;
  const Semaphore started_{0}, release_{0};
};

TEST(ThePool, RunsShortItemsOnFewThreads) {
  std::mutex mutex;
  std::set<std::thread::id> threads;
  const Group group;
  for (int i = 0; i < 1000; ++i)
    group.asyncGlobal([&] {
      const std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
    });
  group.wait();
  // A loaded machine may hold up a thread long enough for another to be started, but not often.
  EXPECT_LE(threads.size(), std::thread::hardware_concurrency() + 30);
}

TEST(ThePool, RunsManyQueuesOnFewThreads) {
  std::mutex mutex;
  std::set<std::thread::id> threads;
  const Group group;
  for (int i = 0; i < 1000; ++i)
    group.async(SerialQueue("short"), [&] {
      const std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
    });
  group.wait();
  EXPECT_LE(threads.size(), std::thread::hardware_concurrency() + 30);
}

TEST(ThePool, GivesEachBlockedItemAThreadAndAllThreadsBack) {
  {
    const Blockers blockers(500);
    EXPECT_GE(workers(), 500U);
  }
  EXPECT_TRUE(becomesQuiet());
}

TEST(ThePool, SleepsWithoutTimersWhenThereIsNothingToDo) {
  const Group group;
  for (int i = 0; i < 100; ++i)
    group.asyncGlobal([] {});
  group.wait();
  EXPECT_TRUE(becomesQuiet());
}

TEST(ThePool, SharesFewThreadsAmongManyQueuesThatAreNeverDone) {
  constexpr int count = 200;
  std::atomic<bool> over = false;
  const Semaphore turns(0);
  std::mutex mutex;
  std::set<std::thread::id> threads;
  std::vector<SerialQueue> queues;
  std::function<void(const SerialQueue&)> goOn = [&](const SerialQueue& queue) {
    if (!over)
      queue.async([&goOn, queue] { goOn(queue); });
  };
  for (int i = 0; i < count; ++i) {
    const SerialQueue& queue = queues.emplace_back("endless");
    goOn(queue);
    queue.async([&] {
      const std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
      turns.signal();
    });
  }
  for (int i = 0; i < count; ++i)
    turns.wait();
  over = true;
  // What follows the last item that submits another is past all use of this function's variables.
  for (const auto& queue : queues) {
    queue.sync([] {});
    queue.sync([] {});
  }
  EXPECT_LE(threads.size(), std::thread::hardware_concurrency() + 30);
}

TEST(ThePool, ReturnsToFewThreadsWhenManyItemsWakeAtOnce) {
  const Group group;
  const Semaphore started(0), release(0), first(0);
  for (int i = 0; i < 200; ++i)
    group.asyncGlobal([&] {
      started.signal();
      release.wait();
    });
  for (int i = 0; i < 200; ++i)
    started.wait();
  std::mutex mutex;
  std::set<std::thread::id> threads;
  for (int i = 0; i < 4000; ++i)
    group.asyncGlobal([&] {
      for (int yields = 0; yields < 20; ++yields)
        std::this_thread::yield();
      const std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
      first.signal();
    });
  first.wait();
  for (int i = 0; i < 200; ++i)
    release.signal();
  group.wait();
  EXPECT_LE(threads.size(), std::thread::hardware_concurrency() + 30);
}

TEST(ThePool, LosesNothingWhenTheSystemRefusesThreads) {
  usePool();
  const Refusal refusal(0);
  const Group group;
  const SerialQueue queue("refused");
  std::atomic<int> done = 0;
  for (int i = 0; i < 1000; ++i) {
    group.asyncGlobal([&] { ++done; });
    group.async(queue, [&] { ++done; });
  }
  group.wait();
  EXPECT_EQ(done, 2000);
}

TEST(ThePool, HasAThreadInReserveWhenTheSystemRefusesOneWhileAllOthersAreBlocked) {
  ASSERT_TRUE(becomesQuiet());
  const Refusal refusal(10);
  const Blockers blockers(10);
  const Semaphore done(0);
  for (int i = 0; i < 100; ++i)
    globalQueue::async([&] { done.signal(); });
  for (int i = 0; i < 100; ++i)
    done.wait();
}

TEST(ThePool, AsksAgainForAThreadThatWasRefused) {
  bool isRefused = false;
  // A thread that has not begun to run cannot be seen, and may yet come to take the second item.
  for (int attempt = 0; attempt < 10 && !isRefused; ++attempt) {
    ASSERT_TRUE(becomesQuiet());
    const Semaphore release(0), done(0);
    const Group group;
    {
      const Refusal refusal(0);
      // The reserve takes the first, and nobody is left for the second.
      group.asyncGlobal([&] { release.wait(); });
      group.asyncGlobal([&] { done.signal(); });
      isRefused = !done.wait(std::chrono::milliseconds(50));
    }
    if (isRefused)
      done.wait();
    release.signal();
    group.wait();
  }
  EXPECT_TRUE(isRefused);
}

TEST(ThePool, SurvivesRefusalsAtRandom) {
  usePool();
  for (int grants = 0; grants < 20; ++grants) {
    const Refusal refusal(grants);
    const Semaphore semaphore(0);
    const Group group;
    // Each item waits for the one before only: one thread at a time is enough to go on.
    for (int i = 0; i < 50; ++i)
      group.asyncGlobal([&] { semaphore.signal(); });
    for (int i = 0; i < 50; ++i)
      group.asyncGlobal([&] { semaphore.wait(); });
    group.wait();
  }
}

}  // namespace
}  // namespace kelvane
