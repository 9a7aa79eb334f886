// SPDX-License-Identifier: Apache-2.0
// Start-up, the outside triggers and the end of the process.
#include "daemon/StartUp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "support/Settings.h"
#include "tests/harness/BeforeEachMessage.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

class TheDaemon : public DaemonTest {
 protected:
  /// Starts the whole daemon on a thread of its own and runs body when it serves.
  void start(const std::function<void()>& body, std::uint64_t seed = 0) {
    run(
        [&] {
          writeEntitlements(*simulation);
          prepareMachine();
          globalQueue::async([] { ::kelvane::runDaemon(); });
          simulation->settle();
          body();
        },
        seed);
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

TEST_F(TheDaemon, ReadsItsSettingsAndRulesAgainWhenItIsAskedTo) {
  start([&] {
    EXPECT_FALSE(settings.endPassesEarly);
    EXPECT_EQ(TestClient().setState("a", 1), std::nullopt);
    simulation->files().write("/etc/kelvane/kelvaned.plist", "{ EndPassesEarly = YES; }");
    simulation->files().remove("/etc/kelvane/entitlements.d/test.plist");
    int during = 0;
    const BeforeEachMessage hook([&](std::string_view) { during = simulation->process().transactions(); });
    simulation->process().reload();
    EXPECT_TRUE(settings.endPassesEarly);
    EXPECT_TRUE(log().contains("main has read the settings and the rules again"));
    EXPECT_EQ(during, 1);
    EXPECT_EQ(simulation->process().transactions(), 0);
    EXPECT_NE(TestClient().setState("a", 1), std::nullopt);
    simulation->files().remove("/etc/kelvane/kelvaned.plist");
    simulation->process().reload();
    EXPECT_FALSE(settings.endPassesEarly);
  });
}

TEST_F(TheDaemon, SaysSoAndEndsWhenAnotherHasItsPreferences) {
  prepareMachine = [&] { simulation->preferences().setOpeningError(EBUSY); };
  start([&] {
    EXPECT_EQ(simulation->process().exitStatus(), std::optional<int>(1));
    EXPECT_EQ(log().texts(3), std::vector<std::string>{"-[Kelvane init] another daemon is running: opening "
                                                       "com.tessaly.kelvane: Device or resource busy"});
    EXPECT_FALSE(simulation->ipc().isListening("com.tessaly.kelvane"));
  });
}

TEST_F(TheDaemon, KeepsPlacesForItsOwnStatistics) {
  start([&] {
    for (const char* name :
         {"KL_LOWDISK_EVENT", "KL_VERYLOWDISK_EVENT", "KelvanePurgeFailed", "KelvanePurgeDeficit",
          "KelvanePurgeAmountRequested", "KelvanePurgeAmountPurged", "KelvanePurgeElapsedNanoseconds"}) {
      EXPECT_TRUE(simulation->statistics().isReserved(name)) << name;
    }
  });
}

/// What the outside knows of the daemon at the moment when it writes a log message.
struct Moment {
  int transactions;
  bool hasTriggers;
  bool isAnnounced;
  bool isListening;
};

TEST_F(TheDaemon, ListensThenTakesItsTriggersThenAnnouncesItselfAllInOneTransaction) {
  std::map<std::string_view, Moment> moments;
  const BeforeEachMessage hook([&](std::string_view format) {
    const simulated::Process& process = simulation->process();
    moments[format] = {
        process.transactions(),
        process.hasActivity("com.tessaly.Kelvane.daily") && process.hasEventStream("com.tessaly.dispatch.vfs"),
        !process.notifications().empty(), simulation->ipc().isListening("com.tessaly.kelvane")};
  });
  start([&] { EXPECT_EQ(simulation->process().transactions(), 0); });

  const Moment first = moments.at("%s timebaseInfo:  %u / %u, gTimebaseConversion: %f");
  EXPECT_EQ(first.transactions, 1);
  EXPECT_FALSE(first.isListening);
  const Moment listening = moments.at("%s resuming listener");
  EXPECT_EQ(listening.transactions, 1);
  EXPECT_FALSE(listening.isListening);
  EXPECT_FALSE(listening.hasTriggers);
  EXPECT_FALSE(listening.isAnnounced);
  const Moment last = moments.at("%s Kelvane, open for business!");
  // The daily activity may be checking in at the same time.
  EXPECT_GE(last.transactions, 1);
  EXPECT_TRUE(last.isListening);
  EXPECT_TRUE(last.hasTriggers);
  EXPECT_TRUE(last.isAnnounced);
}

TEST_F(TheDaemon, TakesTheDailyActivityBeforeFileSystemEvents) {
  // Whether there are handlers for the activity and for events, as another thread may find it.
  std::set<std::pair<bool, bool>> found;
  prepareMachine = [&] {
    globalQueue::async([&] {
      const simulated::Process& process = simulation->process();
      const SerialQueue pause("pause");
      while (found.count({true, true}) == 0) {
        found.emplace(process.hasActivity("com.tessaly.Kelvane.daily"),
                      process.hasEventStream("com.tessaly.dispatch.vfs"));
        pause.sync([] {});
      }
    });
  };
  std::set<std::pair<bool, bool>> foundByAny;
  for (std::uint64_t seed = 1; seed <= 100 && foundByAny.size() < 3; ++seed) {
    found.clear();
    start([&] { foundByAny.insert(found.begin(), found.end()); }, seed);
  }
  EXPECT_EQ(foundByAny, (std::set<std::pair<bool, bool>>{{false, false}, {true, false}, {true, true}}));
}

TEST_F(TheDaemon, HoldsATransactionOfItsOwnWhileTheDailyActivityChecksIn) {
  int mostAtOnce = 0;
  for (std::uint64_t seed = 1; seed <= 100 && mostAtOnce < 2; ++seed) {
    start([&] { mostAtOnce = std::max(mostAtOnce, simulation->process().transactionsHighWater()); }, seed);
  }
  // Start-up's and the check-in's.
  EXPECT_EQ(mostAtOnce, 2);
}

TEST_F(TheDaemon, CanBeTerminatedWhenItAnnouncesItself) {
  prepareMachine = [&] { simulation->process().setNotificationFailure(1, ENOSPC); };
  const BeforeEachMessage hook([&](std::string_view format) {
    if (format == "%s vox_post failed: %s") {
      simulation->process().terminate();
    }
  });
  start([&] { EXPECT_EQ(simulation->process().exitStatus(), 0); });
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
    EXPECT_EQ(log().texts(3), std::vector<std::string>{"main Failed to get timebase info\n"});
    EXPECT_TRUE(log().contains("open for business!"));
    const Value result =
        TestClient().purge(Value::Dictionary{{keys::volume, volume}, {keys::amount, 1}, {keys::urgency, 1}});
    EXPECT_EQ(result[keys::elapsedTime], Value(0.0));
    EXPECT_EQ(simulation->statistics().samples("KelvanePurgeElapsedNanoseconds"), std::vector<double>{0});
  });
}

TEST_F(TheDaemon, StartsWhenItsNotificationFails) {
  prepareMachine = [&] { simulation->process().setNotificationFailure(1, ENOSPC); };
  start([&] {
    EXPECT_EQ(log().texts(3), std::vector<std::string>{"main vox_post failed: No space left on device"});
    EXPECT_TRUE(log().contains("open for business!"));
  });
}

TEST_F(TheDaemon, DoesNothingWhenTheDailyActivityChecksIn) {
  start([&] {
    // Longer than a round of maintenance would take.
    clock::sleepMicroseconds(60'000'000);
    EXPECT_FALSE(log().contains("KelvanePeriodicOperation"));
    EXPECT_FALSE(log().contains("performPeriodicsWithInfo"));
  });
}

TEST_F(TheDaemon, MaintainsEachLocalVolumeInTurnWhenTheDailyActivityRuns) {
  prepareMachine = [&] {
    simulation->volumes().add("/more", 10);
    simulation->volumes().add("/remote", 10);
    simulation->volumes().setLocal("/remote", false);
  };
  start([&] {
    ScriptedService service("a");
    std::vector<int> transactions;
    service.onPeriodic = [&](const ScriptedService::Request&) {
      transactions.push_back(simulation->process().transactions());
    };
    checkIn(TestClient(), service);
    const std::uint64_t begin = clock::ticks();
    simulation->process().runActivity("com.tessaly.Kelvane.daily");
    EXPECT_EQ(secondsSince(begin), 15.0 + 15.0);
    EXPECT_EQ(service.infos(), (std::vector<Value>{Value(Value::Dictionary{{keys::volume, "/data"}}),
                                                   Value(Value::Dictionary{{keys::volume, "/more"}})}));
    EXPECT_EQ(transactions, (std::vector<int>{1, 1}));
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

TEST_F(TheDaemon, HandlesTwoEventsAtTheSameTimeEachWaitingForItsOwnPurge) {
  start([&] {
    simulation->volumes().setLow("/data", true);
    const std::uint64_t begin = clock::ticks();
    simulation->process().post("com.tessaly.dispatch.vfs", Value::Dictionary{{"_Flags", 4}});
    simulation->process().post("com.tessaly.dispatch.vfs", Value::Dictionary{{"_Flags", 4}});
    simulation->settle();
    EXPECT_EQ(simulation->process().transactions(), 2);
    // Nobody gives anything, so each purge waits out three passes of 300 seconds, the second after the first.
    while (simulation->process().transactions() == 2) {
      clock::sleepMicroseconds(1'000'000);
    }
    EXPECT_NEAR(secondsSince(begin), 900, 1);
    while (simulation->process().transactions() == 1) {
      clock::sleepMicroseconds(1'000'000);
    }
    EXPECT_NEAR(secondsSince(begin), 1800, 1);
    EXPECT_EQ(simulation->statistics().counter("KL_LOWDISK_EVENT"), 2);
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
