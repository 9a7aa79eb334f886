// SPDX-License-Identifier: Apache-2.0
// Work of several users that waits for one queue.
#include "support/FairQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/simulated/Simulation.h"

namespace kelvane::test {
namespace {

using testing::ElementsAre;

class AFairQueue : public testing::Test {
 protected:
  /// Has the body submit work while the queue is held, and gives what ran in which order.
  std::vector<std::string> orderOf(const std::function<void()>& body, std::uint64_t seed = 0) {
    Simulation simulation(seed);
    simulation.run([&] {
      queue.emplace("test");
      fair.emplace(*queue);
      ran.clear();
      queue->suspend();
      body();
      queue->resume();
      simulation.settle();
    });
    return ran;
  }
  void submit(std::optional<std::uint32_t> user, const std::string& name) {
    fair->async(user, [this, name] {
      queue->assertCurrent();
      ran.push_back(name);
    });
  }

  std::optional<SerialQueue> queue;
  std::optional<FairQueue> fair;
  std::vector<std::string> ran;
};

TEST_F(AFairQueue, HasUsersTakeTurnsAndKeepsTheOrderOfEach) {
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    const auto order = orderOf(
        [&] {
          for (const char* name : {"a1", "a2", "a3"}) {
            submit(1, name);
          }
          submit(2, "b1");
          submit(2, "b2");
          submit(3, "c1");
        },
        seed);
    EXPECT_THAT(order, ElementsAre("a1", "b1", "c1", "a2", "b2", "a3")) << seed;
  }
}

TEST_F(AFairQueue, PutsTheDaemonsOwnWorkFirst) {
  const auto order = orderOf([&] {
    submit(1, "a1");
    submit(0, "root");
    submit(std::nullopt, "own 1");
    submit(std::nullopt, "own 2");
  });
  EXPECT_THAT(order, ElementsAre("own 1", "own 2", "a1", "root"));
}

TEST_F(AFairQueue, LetsOtherItemsOfTheQueueInBetween) {
  const auto order = orderOf([&] {
    submit(1, "a1");
    submit(1, "a2");
    submit(1, "a3");
    queue->async([&] { ran.push_back("other"); });
  });
  EXPECT_THAT(order, ElementsAre("a1", "other", "a2", "a3"));
}

TEST_F(AFairQueue, RunsWhatIsSubmittedLaterToo) {
  const auto order = orderOf([&] {
    queue->resume();
    fair->sync(1, [&] { ran.push_back("first"); });
    fair->sync(1, [&] { ran.push_back("second"); });
    submit(2, "third");
    queue->suspend();
  });
  EXPECT_THAT(order, ElementsAre("first", "second", "third"));
}

TEST_F(AFairQueue, ReturnsFromSyncWhenTheWorkHasRun) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    const auto order = orderOf(
        [&] {
          queue->resume();
          const Group group;
          for (std::uint32_t user = 1; user <= 5; ++user) {
            group.asyncGlobal([this, user] {
              bool hasRun = false;
              fair->sync(user, [&] {
                ran.push_back("x");
                hasRun = true;
              });
              EXPECT_TRUE(hasRun);
            });
          }
          group.wait();
          queue->suspend();
        },
        seed);
    EXPECT_EQ(order.size(), 5u) << seed;
  }
}

}  // namespace
}  // namespace kelvane::test
