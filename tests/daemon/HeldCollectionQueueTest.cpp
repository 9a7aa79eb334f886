// SPDX-License-Identifier: Apache-2.0
// A service that never answers its ping, and what else goes on meanwhile.
#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

namespace protocol = KelvaneClientProtocol;

class AServiceWithoutAPong : public DaemonTest {
 protected:
  /// Runs body with a service that has checked in well, and one whose check-in holds the collection queue.
  void runHeld(const std::function<void(const ScriptedService& well)>& body) {
    runDaemon([&] {
      const TestClient client;
      ScriptedService well("well");
      well.onPurgeable = ScriptedService::gives(100);
      well.onPeriodic = ScriptedService::gives(9);
      checkIn(client, well);
      ScriptedService silent("silent");
      silent.onPing = ScriptedService::silence();
      silent.onPurgeable = ScriptedService::gives(7);
      const auto checkin = client.checkIn("silent", silent.endpoint(), Value::Dictionary{});
      body(well);
      EXPECT_FALSE(checkin->arrived);
    });
  }
  static Value info() { return Value::Dictionary{{keys::volume, volume}, {keys::amount, 100}, {keys::urgency, 1}}; }
  static void waitForLong() { clock::sleepMicroseconds(4'000'000'000); }
};

TEST_F(AServiceWithoutAPong, DoesNotHoldUpQueriesPeriodicWorkAndState) {
  runHeld([&](const ScriptedService& well) {
    // Its record does not purge before its pong, so nobody asks it.
    EXPECT_EQ(TestClient().purgeableSpace(Value::Dictionary{{keys::volume, volume}}),
              Value(Value::Dictionary{{"well", 100}, {keys::totalAvailable, 100}, {keys::volume, volume}}));
    kelvane->performPeriodicsWithInfo(Value::Dictionary{{keys::volume, volume}});
    EXPECT_EQ(well.count("servicePeriodic 3"), 1u);
    EXPECT_EQ(TestClient().setState("x", 1), std::nullopt);
    EXPECT_EQ(TestClient().state("x"), Value(1));
    EXPECT_EQ(TestClient().state(keys::cacheEnabled), Value(true));
  });
}

TEST_F(AServiceWithoutAPong, HoldsUpPurgesCancelsAndCheckIns) {
  runHeld([&](const ScriptedService& well) {
    const TestClient first;
    const TestClient second;
    const TestClient third;
    const ScriptedService next("next");
    const auto purge = first.send(protocol::clientPurge, {info()});
    const auto cancel = second.send(protocol::clientCancelPurge, {info()});
    const auto checkin = third.checkIn("next", next.endpoint(), Value::Dictionary{});
    waitForLong();
    EXPECT_FALSE(purge->arrived || purge->failed);
    EXPECT_FALSE(cancel->arrived || cancel->failed);
    EXPECT_FALSE(checkin->arrived || checkin->failed);
    EXPECT_EQ(well.count("servicePurge 1"), 0u);
  });
}

TEST_F(AServiceWithoutAPong, HoldsUpStateAndQueriesOnceTheCacheSwitchIsSet) {
  runHeld([&](const ScriptedService& well) {
    const TestClient first;
    const TestClient second;
    const TestClient third;
    const auto set = first.send(protocol::clientSetState, {Value(false), Value(keys::cacheEnabled)});
    simulation->settle();
    const auto get = second.send(protocol::clientGetState, {Value("x")});
    const auto query = third.send(protocol::clientPurgeableSpace, {info()});
    waitForLong();
    EXPECT_FALSE(set->arrived || set->failed);
    EXPECT_FALSE(get->arrived || get->failed);
    EXPECT_FALSE(query->arrived || query->failed);
    EXPECT_EQ(well.count("servicePurgeable 1"), 0u);
    // Periodic work needs neither queue.
    kelvane->performPeriodicsWithInfo(Value::Dictionary{{keys::volume, volume}});
    EXPECT_EQ(well.count("servicePeriodic 3"), 1u);
  });
}

TEST_F(AServiceWithoutAPong, HoldsNothingUpAnyMoreOnceItHasAnswered) {
  runDaemon([&] {
    const TestClient client;
    ScriptedService slow("slow");
    std::optional<ipc::Reply> pong;
    slow.onPing = [&](const ScriptedService::Request& request) { pong = request.reply; };
    const auto checkin = client.checkIn("slow", slow.endpoint(), Value::Dictionary{});
    simulation->settle();
    const TestClient other;
    const auto set = other.send(protocol::clientSetState, {Value(false), Value(keys::cacheEnabled)});
    waitForLong();
    EXPECT_FALSE(set->arrived);
    pong->send();
    simulation->settle();
    EXPECT_TRUE(checkin->arrived);
    EXPECT_TRUE(set->arrived);
    EXPECT_EQ(TestClient().state(keys::cacheEnabled), Value(false));
  });
}

}  // namespace
}  // namespace kelvane::test
