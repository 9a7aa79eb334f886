// SPDX-License-Identifier: Apache-2.0
// Queues, groups and semaphores of the simulation, under many schedules.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Queues.h"
#include "platform/simulated/Simulation.h"

namespace kelvane {
namespace {

using std::chrono::microseconds;
using std::chrono::seconds;

/// Runs the body under 50 schedules.
void underManySchedules(const std::function<void(Simulation&)>& body) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    simulation.run([&] { body(simulation); });
  }
}

TEST(ASerialQueue, KeepsTheOrderOfSubmission) {
  underManySchedules([](Simulation& simulation) {
    const SerialQueue queue("ordered");
    std::string order;
    for (const char name : {'a', 'b', 'c', 'd'}) {
      queue.async([&order, name] { order += name; });
    }
    queue.sync([&order] { order += 'e'; });
    EXPECT_EQ(order, "abcde");
    simulation.settle();
  });
}

TEST(ASerialQueue, RunsOneItemAtATime) {
  underManySchedules([](Simulation&) {
    const SerialQueue queue("one");
    const Group group;
    int running = 0;
    const auto item = [&] {
      EXPECT_EQ(++running, 1);
      clock::sleepMicroseconds(1);
      EXPECT_EQ(running--, 1);
    };
    for (int count = 0; count < 3; ++count) {
      group.async(queue, item);
      group.asyncGlobal([&] { queue.sync(item); });
    }
    group.wait();
  });
}

TEST(ASuspendedQueue, StartsNoItemUntilTheLastResume) {
  underManySchedules([](Simulation& simulation) {
    const SerialQueue queue("suspended");
    int ran = 0;
    queue.suspend();
    queue.suspend();
    queue.async([&] { ++ran; });
    globalQueue::async([&] { queue.sync([&] { ++ran; }); });
    simulation.settle();
    queue.resume();
    simulation.settle();
    EXPECT_EQ(ran, 0);
    queue.resume();
    simulation.settle();
    EXPECT_EQ(ran, 2);
  });
}

TEST(ASuspendedQueue, LetsARunningItemGoOn) {
  underManySchedules([](Simulation& simulation) {
    const SerialQueue queue("suspended");
    std::string order;
    queue.async([&] {
      queue.suspend();
      order += 'a';
    });
    queue.async([&] { order += 'b'; });
    simulation.settle();
    EXPECT_EQ(order, "a");
    queue.resume();
    simulation.settle();
    EXPECT_EQ(order, "ab");
  });
}

TEST(ASuspendedQueue, IsDroppedWithItsItems) {
  Simulation simulation;
  simulation.run([] {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> item = held;
    {
      const SerialQueue queue("dropped");
      queue.suspend();
      queue.async([held = std::move(held)] {});
    }
    EXPECT_TRUE(item.expired());
  });
}

TEST(AQueue, LivesUntilItsLastItemHasRun) {
  underManySchedules([](Simulation& simulation) {
    bool ran = false;
    auto queue = std::make_unique<SerialQueue>("kept");
    queue->suspend();
    queue->async([&] { queue.reset(); });
    queue->async([&] { ran = true; });
    queue->resume();
    simulation.settle();
    EXPECT_TRUE(ran);
  });
}

TEST(AQueue, IsCurrentInItsItemsAndInWhatTheyWaitFor) {
  underManySchedules([](Simulation& simulation) {
    const SerialQueue outer("outer");
    const SerialQueue inner("inner");
    int ran = 0;
    EXPECT_FALSE(outer.isCurrent());
    inner.async([&] {
      EXPECT_TRUE(inner.isCurrent());
      EXPECT_FALSE(outer.isCurrent());
      ++ran;
    });
    outer.async([&] {
      inner.sync([&] {
        inner.assertCurrent();
        outer.assertCurrent();
        ++ran;
      });
      EXPECT_FALSE(inner.isCurrent());
      outer.async([&] { ++ran; });
    });
    simulation.settle();
    EXPECT_EQ(ran, 3);
    EXPECT_FALSE(outer.isCurrent());
  });
}

TEST(AQueue, IsEqualToItsCopies) {
  Simulation simulation;
  const SerialQueue queue("same");
  const SerialQueue copy = queue;
  EXPECT_EQ(queue, copy);
  EXPECT_NE(queue, SerialQueue("same"));
  EXPECT_EQ(copy.label(), "same");
}

TEST(AssertingAQueue, StopsTheProcessElsewhere) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Simulation simulation;
        simulation.run([] {
          const SerialQueue queue("com.tessaly.asserted");
          queue.assertCurrent();
        });
      },
      "not on queue com.tessaly.asserted");
}

TEST(WaitingForTheOwnQueue, Deadlocks) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Simulation simulation;
        simulation.run([] {
          const SerialQueue queue("own");
          queue.sync([&] { queue.sync([] {}); });
        });
      },
      "body waits for its turn on queue own");
}

TEST(TheGlobalQueue, RunsItemsSideBySide) {
  underManySchedules([](Simulation& simulation) {
    const Semaphore first(0);
    const Semaphore second(0);
    globalQueue::async([&] {
      second.wait();
      first.signal();
    });
    globalQueue::async([&] { second.signal(); });
    first.wait();
    bool ran = false;
    globalQueue::sync([&] { ran = true; });
    EXPECT_TRUE(ran);
    simulation.settle();
  });
}

TEST(AGroup, IsWaitedForUntilNothingOfItIsLeft) {
  underManySchedules([](Simulation& simulation) {
    const Group group;
    const SerialQueue queue("grouped");
    int done = 0;
    group.async(queue, [&] { ++done; });
    group.asyncGlobal([&] { ++done; });
    group.enter();
    globalQueue::async([&] {
      clock::sleepMicroseconds(10);
      ++done;
      group.leave();
    });
    EXPECT_FALSE(group.wait(microseconds(5)));
    group.wait();
    EXPECT_EQ(done, 3);
    EXPECT_TRUE(group.wait(seconds(0)));
    EXPECT_EQ(simulation.elapsed(), microseconds(10));
  });
}

TEST(ASemaphore, GivesEachCountOnce) {
  underManySchedules([](Simulation& simulation) {
    const Semaphore semaphore(1);
    int taken = 0;
    for (int thread = 0; thread < 4; ++thread) {
      globalQueue::async([&] {
        if (semaphore.wait(seconds(1))) {
          ++taken;
        }
      });
    }
    semaphore.signal();
    semaphore.signal();
    simulation.advance(seconds(2));
    EXPECT_EQ(taken, 3);
    EXPECT_FALSE(semaphore.wait(seconds(0)));
  });
}

TEST(ASemaphore, ThatIsNotSignalledWaitsExactlyItsTimeOut) {
  underManySchedules([](Simulation& simulation) {
    EXPECT_FALSE(Semaphore(0).wait(seconds(300)));
    EXPECT_EQ(simulation.elapsed(), seconds(300));
    EXPECT_FALSE(Semaphore(0).wait(seconds(-1)));
    EXPECT_EQ(simulation.elapsed(), seconds(300));
  });
}

TEST(ASemaphore, MayWaitForAsLongAsCanBeSaid) {
  Simulation simulation;
  simulation.run([] {
    const Semaphore semaphore(0);
    globalQueue::async([&] {
      clock::sleepMicroseconds(1);
      semaphore.signal();
    });
    EXPECT_TRUE(semaphore.wait(std::chrono::nanoseconds::max()));
  });
}

TEST(TheMainLoop, KeepsItsThread) {
  Simulation simulation;
  bool left = false;
  simulation.run([&] {
    globalQueue::async([&] {
      enterMainLoop();
      left = true;
    });
    simulation.advance(seconds(1));
  });
  EXPECT_FALSE(left);
}

}  // namespace
}  // namespace kelvane
