// SPDX-License-Identifier: Apache-2.0
// The schedule: seeds, orders, time, and the end of a run.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Queues.h"
#include "platform/simulated/Simulation.h"

namespace kelvane {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr std::uint64_t seeds = 50;

/// Some threads with races among them, and the order in which their steps took place.
std::string mixture(Simulation& simulation) {
  std::string order;
  simulation.run([&] {
    const SerialQueue queue("mixed");
    const Semaphore done(0);
    for (const char name : {'a', 'b', 'c', 'd'}) {
      globalQueue::async([&, name] {
        order += name;
        queue.sync([&] { order += name; });
        clock::sleepMicroseconds(5);
        queue.async([&, name] {
          order += name;
          done.signal();
        });
      });
    }
    for (int count = 0; count < 4; ++count) {
      done.wait();
    }
  });
  return order;
}

TEST(ASeed, GivesTheSameRunEachTime) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    std::optional<std::string> firstOrder;
    std::optional<std::uint64_t> firstHash;
    for (int repetition = 0; repetition < 2; ++repetition) {
      Simulation simulation(seed);
      const std::string order = mixture(simulation);
      EXPECT_EQ(order, firstOrder.value_or(order));
      EXPECT_EQ(simulation.traceHash(), firstHash.value_or(simulation.traceHash()));
      firstOrder = order;
      firstHash = simulation.traceHash();
    }
  }
}

TEST(ASeed, GivesAScheduleOfItsOwn) {
  std::set<std::uint64_t> hashes;
  std::set<std::string> orders;
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    Simulation simulation(seed);
    orders.insert(mixture(simulation));
    hashes.insert(simulation.traceHash());
  }
  EXPECT_EQ(hashes.size(), seeds);
  EXPECT_GT(orders.size(), seeds / 2);
}

TEST(SeedZero, RunsThreadsInTheOrderTheyBecameRunnable) {
  Simulation simulation;
  EXPECT_EQ(mixture(simulation), "aabbccddabcd");
}

TEST(TwoItems, AreSeenInBothOrders) {
  std::set<std::string> orders;
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    Simulation simulation(seed);
    std::string order;
    simulation.run([&] {
      globalQueue::async([&] { order += 'a'; });
      globalQueue::async([&] { order += 'b'; });
      simulation.settle();
    });
    orders.insert(order);
  }
  EXPECT_EQ(orders, (std::set<std::string>{"ab", "ba"}));
}

TEST(AReadThenWrite, LosesAnUpdateUnderSomeSeed) {
  std::set<int> results;
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    Simulation simulation(seed);
    int count = 0;
    simulation.run([&] {
      const SerialQueue between("between");
      for (int thread = 0; thread < 2; ++thread) {
        globalQueue::async([&] {
          const int read = count;
          between.sync([] {});
          count = read + 1;
        });
      }
      simulation.settle();
    });
    results.insert(count);
  }
  EXPECT_EQ(results, (std::set<int>{1, 2}));
}

/// What became of waits that end at the moment of the signal, whichever began first.
std::set<bool> outcomesOfATie(bool sleepBeginsFirst) {
  std::set<bool> outcomes;
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    Simulation simulation(seed);
    simulation.run([&] {
      const Semaphore semaphore(0);
      const auto signalAfterSleep = [&] {
        clock::sleepMicroseconds(1000);
        semaphore.signal();
      };
      const auto waitForSignal = [&] { outcomes.insert(semaphore.wait(microseconds(1000))); };
      globalQueue::async(sleepBeginsFirst ? Block(signalAfterSleep) : Block(waitForSignal));
      simulation.settle();
      globalQueue::async(sleepBeginsFirst ? Block(waitForSignal) : Block(signalAfterSleep));
      simulation.advance(microseconds(1001));
    });
  }
  return outcomes;
}

TEST(ADeadlineThatTiesWithASignal, GoesEitherWay) {
  EXPECT_EQ(outcomesOfATie(true), (std::set<bool>{false, true}));
  EXPECT_EQ(outcomesOfATie(false), (std::set<bool>{false, true}));
}

TEST(VirtualTime, StandsStillWhileAnyThreadCanRun) {
  Simulation simulation(7);
  simulation.run([&] {
    const SerialQueue queue("busy");
    for (int item = 0; item < 100; ++item) {
      queue.async([] {});
    }
    simulation.settle();
    EXPECT_EQ(simulation.elapsed(), nanoseconds(0));
  });
}

TEST(VirtualTime, JumpsToTheNextDeadlineWhenAllWait) {
  Simulation simulation(7);
  simulation.run([&] {
    std::vector<nanoseconds> wakings;
    for (const std::uint32_t duration : {30U, 10U, 20U}) {
      globalQueue::async([&, duration] {
        clock::sleepMicroseconds(duration);
        wakings.push_back(simulation.elapsed());
      });
    }
    EXPECT_FALSE(Semaphore(0).wait(seconds(300)));
    EXPECT_EQ(wakings, (std::vector<nanoseconds>{microseconds(10), microseconds(20), microseconds(30)}));
    EXPECT_EQ(simulation.elapsed(), seconds(300));
  });
}

TEST(Settling, LetsNoTimePass) {
  Simulation simulation(3);
  simulation.run([&] {
    bool slept = false;
    globalQueue::async([&] {
      clock::sleepMicroseconds(1);
      slept = true;
    });
    simulation.settle();
    EXPECT_FALSE(slept);
    simulation.advance(microseconds(1));
    simulation.settle();
    EXPECT_TRUE(slept);
  });
}

TEST(TheStreamsOfASeed, DoNotDisturbEachOther) {
  std::string order;
  std::uint64_t hash = 0;
  std::vector<std::uint64_t> faults;
  {
    Simulation simulation(5);
    order = mixture(simulation);
    hash = simulation.traceHash();
    faults = {simulation.faults().next(), simulation.faults().next()};
    EXPECT_NE(simulation.load().next(), faults[0]);
  }
  Simulation simulation(5);
  EXPECT_EQ(simulation.faults().next(), faults[0]);
  simulation.load().next();
  EXPECT_EQ(mixture(simulation), order);
  EXPECT_EQ(simulation.traceHash(), hash);
  EXPECT_EQ(simulation.faults().next(), faults[1]);
}

TEST(ARun, LeavesBlockedThreadsBehind) {
  for (std::uint64_t seed = 0; seed < 500; ++seed) {
    Simulation simulation(seed);
    auto reached = std::make_unique<int>(0);
    simulation.run([&] {
      for (int thread = 0; thread < 3; ++thread) {
        globalQueue::async([&reached, memory = std::make_shared<std::string>(1000, 'x')] {
          ++*reached;
          Semaphore(0).wait();
          *memory += "never";
        });
      }
      simulation.settle();
    });
    EXPECT_EQ(*reached, 3);
  }
}

TEST(ARun, LeavesItemsThatDidNotStartBehind) {
  Simulation simulation;
  auto held = std::make_shared<bool>(false);
  const std::weak_ptr<bool> ran = held;
  simulation.run([&] { globalQueue::async([held = std::move(held)] { *held = true; }); });
  ASSERT_NE(ran.lock(), nullptr);
  EXPECT_FALSE(*ran.lock());
}

TEST(ObjectsOfAFinishedRun, MayStillBeCalled) {
  Simulation simulation(2);
  std::optional<SerialQueue> queue;
  bool ran = false;
  simulation.run([&] { queue.emplace("late"); });
  queue->async([&] { ran = true; });
  Semaphore(0).signal();
  globalQueue::async([&] { ran = true; });
  EXPECT_FALSE(ran);
}

TEST(ASecondRun, GoesOnInTimeWithoutTheThreadsOfTheFirst) {
  Simulation simulation(4);
  const Semaphore semaphore(0);
  bool woken = false;
  simulation.run([&] {
    globalQueue::async([&] {
      semaphore.wait();
      woken = true;
    });
    simulation.advance(seconds(1));
  });
  simulation.run([&] {
    EXPECT_EQ(simulation.elapsed(), seconds(1));
    semaphore.signal();
    simulation.settle();
    EXPECT_FALSE(woken);
    simulation.advance(seconds(1));
  });
  EXPECT_EQ(simulation.elapsed(), seconds(2));
}

TEST(ADeadlock, StopsTheProcessAndNamesWhatEachThreadWaitsFor) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Simulation simulation;
        simulation.run([] {
          const SerialQueue queue("com.tessaly.stuck");
          queue.async([&] { Semaphore(0).wait(); });
          globalQueue::async([&] { queue.sync([] {}); });
          Group group;
          group.enter();
          group.wait();
        });
      },
      "body waits for group\n.*queue com.tessaly.stuck waits for semaphore\n.*global queue waits for its turn on "
      "queue com.tessaly.stuck");
}

TEST(ThePlatform, IsNotCalledOutsideARun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Simulation simulation;
        SerialQueue("early").async([] {});
      },
      "outside Simulation::run");
}

}  // namespace
}  // namespace kelvane
