// SPDX-License-Identifier: Apache-2.0
// Blocked work: however much of it there is, what it waits for gets to run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <vector>

#include "platform/Clock.h"
#include "platform/Queues.h"
#include "platform/linux/runtime/BlockedScope.h"

namespace kelvane {
namespace {

using namespace std::chrono_literals;

constexpr int many = 2000;

/// A pipe whose reads block, as a slow device's would.
class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe(ends_), 0); }
  ~Pipe() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void read() const {
    char byte;
    EXPECT_EQ(::read(ends_[0], &byte, 1), 1);
  }
  void write() const { EXPECT_EQ(::write(ends_[1], "x", 1), 1); }

 private:
  int ends_[2];
};

/// Checks that the items were done before the pool could have found out one by one that they were blocked, which takes
/// ten seconds.
class Promptness {
 public:
  Promptness() = default;
  ~Promptness() { EXPECT_LT(clock::ticks() - start_, 9'000'000'000U); }
  Promptness(const Promptness&) = delete;
  Promptness& operator=(const Promptness&) = delete;

 private:
  const std::uint64_t start_ = clock::ticks();
};

TEST(BlockedItems, DoNotStarveTheItemThatSignalsThem) {
  const Promptness promptness;
  const Semaphore semaphore(0);
  const Group group;
  for (int i = 0; i < many; ++i)
    group.asyncGlobal([&] { semaphore.wait(); });
  group.asyncGlobal([&] {
    for (int i = 0; i < many; ++i)
      semaphore.signal();
  });
  group.wait();
}

TEST(BlockedItems, MayEachWaitForTheNext) {
  const Promptness promptness;
  std::vector<Semaphore> semaphores;
  for (int i = 0; i <= many; ++i)
    semaphores.emplace_back(0);
  const Group group;
  for (std::size_t i = 0; i < many; ++i)
    group.asyncGlobal([&, i] {
      semaphores[i + 1].wait();
      semaphores[i].signal();
    });
  group.asyncGlobal([&] { semaphores[many].signal(); });
  semaphores[0].wait();
  group.wait();
}

TEST(BlockedItems, OfManyQueuesDoNotKeepAnotherQueueWaiting) {
  const Promptness promptness;
  std::vector<SerialQueue> queues(many, SerialQueue(""));
  for (auto& queue : queues)
    queue = SerialQueue("blocked");
  const Semaphore started(0), release(0);
  const Group group;
  for (const auto& queue : queues)
    group.async(queue, [&] {
      started.signal();
      release.wait();
    });
  for (int i = 0; i < many; ++i)
    started.wait();
  const SerialQueue last("last");
  last.async([&] {
    for (int i = 0; i < many; ++i)
      release.signal();
  });
  group.wait();
}

TEST(BlockedItems, MayWaitForOneQueueInSynchronousItems) {
  const Promptness promptness;
  const SerialQueue queue("wanted");
  const Semaphore release(0);
  const Group group;
  long done = 0;
  queue.async([&] { release.wait(); });
  for (int i = 0; i < many; ++i)
    group.asyncGlobal([&] { queue.sync([&] { ++done; }); });
  group.asyncGlobal([&] { release.signal(); });
  group.wait();
  EXPECT_EQ(done, many);
}

TEST(BlockedItems, MayWaitForGroups) {
  const Promptness promptness;
  const Group outer;
  const Group inner;
  inner.enter();
  for (int i = 0; i < many; ++i)
    outer.asyncGlobal([&] { inner.wait(); });
  outer.asyncGlobal([&] { inner.leave(); });
  outer.wait();
}

TEST(BlockedItems, MayWaitThroughADeepNestOfQueues) {
  constexpr std::size_t depth = 100;
  std::vector<SerialQueue> queues;
  for (std::size_t i = 0; i < depth; ++i)
    queues.emplace_back("nested");
  const Group group;
  std::atomic<int> done = 0;
  // Each passes through all queues in the same order, from its own pool thread.
  for (int i = 0; i < 50; ++i)
    group.asyncGlobal([&] {
      std::function<void(std::size_t)> enter = [&](std::size_t level) {
        if (level == depth)
          ++done;
        else
          queues[level].sync([&] { enter(level + 1); });
      };
      enter(0);
    });
  group.wait();
  EXPECT_EQ(done, 50);
}

TEST(BlockedItems, LeaveTheirPlaceAlsoWhileTheyWaitWithALimit) {
  const Promptness promptness;
  const Semaphore never(0);
  const Group group;
  for (int i = 0; i < many; ++i)
    group.asyncGlobal([&] { EXPECT_FALSE(never.wait(100ms)); });
  group.wait();
}

TEST(BlockedItems, LeaveTheirPlaceAlsoWhileTheySleep) {
  const Promptness promptness;
  const Group group;
  for (int i = 0; i < many; ++i)
    group.asyncGlobal([] { clock::sleepMicroseconds(100'000); });
  group.wait();
}

TEST(BlockedItems, LeaveTheirPlaceUntilTheOutermostScopeEnds) {
  const Promptness promptness;
  const Pipe pipe;
  const Group group;
  for (int i = 0; i < many; ++i)
    group.asyncGlobal([&] {
      const runtime::BlockedScope slow;
      { const runtime::BlockedScope slower; }
      pipe.read();
    });
  group.asyncGlobal([&] {
    for (int i = 0; i < many; ++i)
      pipe.write();
  });
  group.wait();
}

TEST(BlockedItems, NeedNotDeclareTheirSlowCalls) {
  const Pipe pipe;
  const Group group;
  for (int i = 0; i < 50; ++i)
    group.asyncGlobal([&] { pipe.read(); });
  group.asyncGlobal([&] {
    for (int i = 0; i < 50; ++i)
      pipe.write();
  });
  group.wait();
}

TEST(BlockedItems, ThatAreFoundOutDoNotSlowDownTheOthers) {
  const Pipe pipe;
  const Group blocked, others;
  for (int i = 0; i < 20; ++i)
    blocked.asyncGlobal([&] { pipe.read(); });
  const auto start = clock::ticks();
  for (int i = 0; i < 5000; ++i)
    others.asyncGlobal([] {});
  others.wait();
  // Found out anew for each item they would take 25 s.
  EXPECT_LT(clock::ticks() - start, 10'000'000'000U);
  for (int i = 0; i < 20; ++i)
    pipe.write();
  blocked.wait();
}

TEST(BlockedScopes, DoNothingOutsideThePool) {
  const runtime::BlockedScope slow;
  const Group group;
  group.asyncGlobal([] {});
  group.wait();
}

}  // namespace
}  // namespace kelvane
