// SPDX-License-Identifier: Apache-2.0
// Start-up, the outside triggers and the end of the process.
#include "daemon/StartUp.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

class TheDaemon : public DaemonTest {
 protected:
  /// Starts the whole daemon on a thread of its own and runs body when it serves.
  void start(const std::function<void()>& body) {
    run([&] {
      writeEntitlements(*simulation);
      prepareMachine();
      globalQueue::async([] { ::kelvane::runDaemon(); });
      simulation->settle();
      body();
    });
  }

  std::function<void()> prepareMachine = [] {};
};

TEST_F(TheDaemon, TellsHowItStarts) {
  start([&] {
    EXPECT_EQ(log().textsOf("main"), (std::vector<std::string>{
                                         "main timebaseInfo:  1 / 1, gTimebaseConversion: 1.000000",
                                         "main Kelvane, open for business!",
                                     }));
    EXPECT_EQ(simulation->process().notifications(), std::vector<std::string>{"com.tessaly.kelvane.launched"});
    EXPECT_TRUE(simulation->process().hasActivity("com.tessaly.Kelvane.daily"));
    EXPECT_TRUE(simulation->process().hasEventStream("com.tessaly.dispatch.vfs"));
    EXPECT_EQ(simulation->process().supervisedQueues(), std::vector<std::string>{"com.tessaly.kelvane_cancel"});
  });
}

TEST_F(TheDaemon, HoldsATransactionWhileItStartsAndNoneAfterwards) {
  start([&] {
    EXPECT_EQ(simulation->process().transactions(), 0);
    EXPECT_GE(simulation->process().transactionsHighWater(), 1);
  });
}

TEST_F(TheDaemon, ConvertsTicksByTheTimebase) {
  prepareMachine = [&] { simulation->clock().setTimebase(clock::Timebase{125, 3}); };
  start([&] {
    EXPECT_TRUE(log().contains("main timebaseInfo:  125 / 3, gTimebaseConversion: 41.666667"));
    const Value result =
        TestClient().purge(Value::Dictionary{{keys::volume, volume}, {keys::amount, 1}, {keys::urgency, 1}});
    EXPECT_NEAR(result[keys::elapsedTime].doubleValue(), 2.0, 1e-6);
  });
}

TEST_F(TheDaemon, StartsWithoutATimebaseAndMeasuresNoTimes) {
  prepareMachine = [&] { simulation->clock().setTimebase(std::nullopt); };
  start([&] {
    EXPECT_TRUE(log().contains("main Failed to get timebase info\n"));
    EXPECT_TRUE(log().contains("open for business!"));
    const Value result =
        TestClient().purge(Value::Dictionary{{keys::volume, volume}, {keys::amount, 1}, {keys::urgency, 1}});
    EXPECT_EQ(result[keys::elapsedTime], Value(0.0));
  });
}

TEST_F(TheDaemon, StartsWhenItsNotificationFails) {
  prepareMachine = [&] { simulation->process().setNotificationFailure(1, ENOSPC); };
  start([&] {
    EXPECT_TRUE(log().contains("main vox_post failed: No space left on device"));
    EXPECT_TRUE(log().contains("open for business!"));
  });
}

TEST_F(TheDaemon, DoesNothingWhenTheDailyActivityChecksIn) {
  start([&] { EXPECT_FALSE(log().contains("KelvanePeriodicOperation")); });
}

TEST_F(TheDaemon, MaintainsEachLocalVolumeInTurnWhenTheDailyActivityRuns) {
  prepareMachine = [&] {
    simulation->volumes().add("/more", 10);
    simulation->volumes().add("/remote", 10);
    simulation->volumes().setLocal("/remote", false);
  };
  start([&] {
    ScriptedService service("a");
    service.onPeriodic = ScriptedService::silence();
    checkIn(TestClient(), service);
    const std::uint64_t begin = clock::ticks();
    simulation->process().runActivity("com.tessaly.Kelvane.daily");
    EXPECT_EQ(secondsSince(begin), 15.0 + 15.0);
    EXPECT_EQ(service.infos(), (std::vector<Value>{Value(Value::Dictionary{{keys::volume, "/data"}}),
                                                   Value(Value::Dictionary{{keys::volume, "/more"}})}));
    EXPECT_EQ(simulation->process().transactions(), 0);
  });
}

TEST_F(TheDaemon, DoesNothingDailyWithoutLocalVolumes) {
  prepareMachine = [&] { simulation->volumes().remove("/data"); };
  start([&] {
    const std::uint64_t begin = clock::ticks();
    simulation->process().runActivity("com.tessaly.Kelvane.daily");
    EXPECT_EQ(clock::ticks(), begin);
    EXPECT_FALSE(log().contains("KelvanePeriodicOperation"));
  });
}

TEST_F(TheDaemon, PassesEveryFileSystemEventOnWithinATransaction) {
  start([&] {
    int during = 0;
    simulation->volumes().setLow("/data", true);
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      during = simulation->process().transactions();
      freesWhatIsAsked()(request);
    };
    checkIn(TestClient(), service);
    simulation->process().postAndWait("com.tessaly.dispatch.vfs", Value::Dictionary{{"other", 1}});
    EXPECT_EQ(service.count("servicePurge 1"), 1u);
    EXPECT_EQ(during, 1);
    EXPECT_EQ(simulation->process().transactions(), 0);
  });
}

TEST_F(TheDaemon, EndsAtOnceWithStatusZeroWhenItIsTerminatedInAPurge) {
  start([&] {
    const auto purge = TestClient().send(
        KelvaneClientProtocol::clientPurge,
        {Value(Value::Dictionary{{keys::volume, volume}, {keys::amount, 1}, {keys::purgeTimeout, 300}})});
    simulation->settle();
    const std::uint64_t begin = clock::ticks();
    simulation->process().terminate();
    EXPECT_EQ(simulation->process().exitStatus(), 0);
    EXPECT_EQ(clock::ticks(), begin);
    EXPECT_FALSE(purge->arrived);
  });
}

}  // namespace
}  // namespace kelvane::test
