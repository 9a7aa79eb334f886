// SPDX-License-Identifier: Apache-2.0
// The process and its service manager in the simulation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Process.h"
#include "platform/simulated/Simulation.h"

namespace kelvane {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

TEST(TheStatus, TellsTheLastRemarkOfThisProcess) {
  Simulation simulation;
  simulation.run([&] {
    remarkInStatus("first");
    remarkInStatus("last");
    EXPECT_EQ(simulation.process().remark(), "last");
  });
  simulation.run([&] { EXPECT_EQ(simulation.process().remark(), ""); });
}

TEST(Transactions, AreCounted) {
  Simulation simulation;
  simulation.run([&] {
    {
      const Transaction first;
      const Transaction second;
      EXPECT_EQ(simulation.process().transactions(), 2);
    }
    const Transaction third;
    EXPECT_EQ(simulation.process().transactions(), 1);
    EXPECT_EQ(simulation.process().transactionsHighWater(), 2);
  });
  EXPECT_EQ(simulation.process().transactions(), 0);
}

TEST(AnActivity, IsCheckedInOnceAndRunWhenDue) {
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    Simulation simulation(seed);
    simulation.run([&] {
      std::vector<ActivityState> states;
      EXPECT_FALSE(simulation.process().hasActivity("daily"));
      registerActivity("daily", [&](const Activity& activity) {
        EXPECT_EQ(activity.name, "daily");
        clock::sleepMicroseconds(10);
        states.push_back(activity.state);
      });
      EXPECT_TRUE(simulation.process().hasActivity("daily"));
      simulation.advance(seconds(1));
      simulation.process().runActivity("daily");
      EXPECT_THAT(states, ElementsAre(ActivityState::CheckIn, ActivityState::Run));
    });
  }
}

TEST(Events, AreHandledBesideEachOther) {
  Simulation simulation;
  simulation.run([&] {
    std::vector<std::int64_t> handled;
    int running = 0;
    int mostRunning = 0;
    setEventStreamHandler("vfs", [&](const Value& event) {
      mostRunning = std::max(mostRunning, ++running);
      clock::sleepMicroseconds(10);
      --running;
      handled.push_back(event["_Flags"].int64Value());
    });
    EXPECT_TRUE(simulation.process().hasEventStream("vfs"));
    simulation.process().post("vfs", Value::Dictionary{{"_Flags", 1}});
    simulation.process().postAndWait("vfs", Value::Dictionary{{"_Flags", 2}});
    simulation.settle();
    EXPECT_THAT(handled, UnorderedElementsAre(1, 2));
    EXPECT_EQ(mostRunning, 2);
  });
}

TEST(ANotification, IsPostedOrFailsAsScripted) {
  Simulation simulation;
  EXPECT_EQ(postNotification("launched"), 0);
  simulation.process().setNotificationFailure(7, ENOSPC);
  errno = 0;
  EXPECT_EQ(postNotification("again"), 7);
  EXPECT_EQ(errno, ENOSPC);
  simulation.process().setNotificationFailure(0, 0);
  EXPECT_EQ(postNotification("third"), 0);
  EXPECT_THAT(simulation.process().notifications(), ElementsAre("launched", "third"));
}

TEST(Termination, RunsTheHandlerAndExitsWhileOthersWork) {
  Simulation simulation;
  simulation.run([&] {
    installTerminationHandler([](int) { exitImmediately(0); });
    EXPECT_FALSE(simulation.process().exitStatus());
    globalQueue::async([] { clock::sleepMicroseconds(1000); });
    simulation.process().terminate();
    EXPECT_EQ(simulation.process().exitStatus(), std::optional<int>(0));
  });
}

TEST(Termination, MayBeIgnored) {
  Simulation simulation;
  simulation.run([&] {
    static int received = 0;
    installTerminationHandler([](int signal) { received = signal; });
    simulation.process().terminate();
    EXPECT_EQ(received, SIGTERM);
    EXPECT_FALSE(simulation.process().exitStatus());
  });
}

TEST(AnExit, StopsItsThreadForGood) {
  Simulation simulation;
  bool wentOn = false;
  simulation.run([&] {
    globalQueue::async([&] {
      exitImmediately(3);
      wentOn = true;
    });
    simulation.advance(seconds(1));
  });
  EXPECT_EQ(simulation.process().exitStatus(), std::optional<int>(3));
  EXPECT_FALSE(wentOn);
}

TEST(SupervisedQueues, AreRemembered) {
  Simulation simulation;
  superviseQueue(SerialQueue("collection"));
  EXPECT_THAT(simulation.process().supervisedQueues(), ElementsAre("collection"));
}

TEST(ARandomUuid, DependsOnTheSeedOnly) {
  std::set<std::string> seen;
  std::vector<std::string> first;
  for (const std::uint64_t seed : {1U, 2U, 1U}) {
    Simulation simulation(seed);
    first.push_back(randomUuid());
    seen.insert(first.back());
    seen.insert(randomUuid());
    EXPECT_THAT(first.back(),
                testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
  }
  EXPECT_EQ(first[0], first[2]);
  EXPECT_EQ(seen.size(), 4U);
}

TEST(ARestart, ForgetsWhatTheProcessRegistered) {
  Simulation simulation;
  simulation.run([&] {
    registerActivity("daily", [](const Activity&) {});
    setEventStreamHandler("vfs", [](const Value&) {});
    globalQueue::async([] {
      const Transaction transaction;
      Semaphore(0).wait();
    });
    simulation.settle();
    EXPECT_EQ(simulation.process().transactions(), 1);
  });
  simulation.run([&] {
    EXPECT_FALSE(simulation.process().hasActivity("daily"));
    EXPECT_FALSE(simulation.process().hasEventStream("vfs"));
    EXPECT_EQ(simulation.process().transactions(), 0);
  });
}

}  // namespace
}  // namespace kelvane
