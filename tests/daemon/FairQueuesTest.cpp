// SPDX-License-Identifier: Apache-2.0
// Requests of several users that wait, with and without turns.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "support/Settings.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

namespace protocol = KelvaneClientProtocol;
using testing::ElementsAre;

constexpr std::uint32_t second = 1'000'000;
constexpr char name[] = "name";
constexpr char lowDisk[] = "(null)";

class WaitingRequests : public DaemonTest {
 protected:
  void SetUp() override { settings.fairQueues = true; }
  void TearDown() override {
    settings.fairQueues = false;
    settings.pingLimitSeconds = 0;
  }
  void prepare() override {
    const std::string granted =
        "Entitlements = (CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT, PURGE_ENTITLEMENT, PURGEABLE_ENTITLEMENT);";
    simulation->files().write("/etc/kelvane/entitlements.d/users.plist",
                              "({ User = 1001; " + granted + " }, { User = 1002; " + granted + " })");
  }

  /// Each on a connection of its own, for one connection's are delivered one at a time.
  static TestClient clientOfUser(unsigned uid) {
    const simulated::ActingAs process({.uid = uid, .user = "user"});
    return TestClient();
  }
  void ask(unsigned uid, const ipc::Operation& operation, const std::string& called, const std::string& where) {
    answers.push_back(clientOfUser(uid).send(
        operation,
        {Value(Value::Dictionary{{keys::volume, where}, {keys::amount, 100}, {keys::urgency, 1}, {name, called}})}));
    simulation->settle();
  }
  /// The names that the requests have which a service was asked for.
  static std::vector<std::string> namesOf(const ScriptedService& service) {
    std::vector<std::string> names;
    for (const Value& info : service.infos()) {
      names.push_back(info[name].description());
    }
    return names;
  }

  /// In which order purges of two users and of a low volume run that have waited.
  std::vector<std::string> orderOfPurges() {
    std::vector<std::string> order;
    runDaemon([&] {
      ScriptedService service("a");
      service.onPurge = freesWhatIsAsked();
      checkIn(TestClient(), service);
      simulation->volumes().setLow(volume, true);
      kelvane->purge_queue().suspend();
      for (const char* purge : {"a1", "a2", "a3"}) {
        ask(1001, protocol::clientPurge, purge, volume);
      }
      ask(1002, protocol::clientPurge, "b1", volume);
      globalQueue::async([&] { kelvane->handleVFSStreamVEXEvent(Value::Dictionary{}); });
      simulation->settle();
      kelvane->purge_queue().resume();
      clock::sleepMicroseconds(4000 * second);
      order = namesOf(service);
    });
    for (const auto& answer : answers) {
      EXPECT_TRUE(answer->value.isDictionary());
    }
    return order;
  }

  std::deque<std::shared_ptr<Answer>> answers;
};

TEST_F(WaitingRequests, OfTwoUsersToPurgeTakeTurnsAndLetALowVolumePass) {
  EXPECT_THAT(orderOfPurges(), ElementsAre(lowDisk, "a1", "b1", "a2", "a3"));
}

TEST_F(WaitingRequests, ToPurgeRunInTheOrderTheyCameAsBuiltIn) {
  settings.fairQueues = false;
  EXPECT_THAT(orderOfPurges(), ElementsAre("a1", "a2", "a3", "b1", lowDisk));
}

TEST_F(WaitingRequests, OfTwoUsersToQueryTakeTurns) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    kelvane->purgeable_queue().suspend();
    for (const char* query : {"/a1", "/a2", "/a3", "/b1"}) {
      // What has been answered about a volume is not asked for again.
      simulation->volumes().add(query, 1000);
      ask(std::string(query) == "/b1" ? 1002 : 1001, protocol::clientPurgeableSpace, query, query);
    }
    kelvane->purgeable_queue().resume();
    clock::sleepMicroseconds(60 * second);
    EXPECT_THAT(namesOf(service), ElementsAre("/a1", "/b1", "/a2", "/a3"));
    for (const auto& answer : answers) {
      EXPECT_TRUE(answer->value.isDictionary());
    }
  });
}

TEST_F(WaitingRequests, ToCheckInLetTheEndOfAnEarlierConnectionPass) {
  runDaemon([&] {
    auto earlier = std::make_unique<ScriptedService>("again");
    clientOfUser(1001).checkIn("again", earlier->endpoint(), Value::Dictionary{{"PURGE", true}});
    simulation->settle();
    ASSERT_EQ(kelvane->copyServices()->count("again"), 1u);
    const ScriptedService other("other");
    const ScriptedService another("another");
    clientOfUser(1002).checkIn("other", other.endpoint(), Value::Dictionary{});
    simulation->settle();
    // The next turn is the first user's, whose second check-in thus comes before this one, which is on the queue
    // already.
    kelvane->collection_queue().suspend();
    clientOfUser(1002).checkIn("another", another.endpoint(), Value::Dictionary{});
    simulation->settle();
    earlier.reset();
    simulation->settle();
    const ScriptedService later("again");
    const auto checkin = clientOfUser(1001).checkIn("again", later.endpoint(), Value::Dictionary{{"PURGE", true}});
    simulation->settle();
    kelvane->collection_queue().resume();
    simulation->settle();
    EXPECT_TRUE(checkin->arrived);
    EXPECT_EQ(kelvane->copyServices()->count("again"), 1u);
    EXPECT_EQ(later.count("servicePing"), 1u);
  });
}

TEST_F(WaitingRequests, OfTwoUsersToCheckInTakeTurnsAndLetOthersUseTheirQueue) {
  settings.pingLimitSeconds = 30;
  runDaemon([&] {
    std::deque<ScriptedService> silent;
    for (const char* identifier : {"s1", "s2", "s3", "s4", "s5"}) {
      silent.emplace_back(identifier).onPing = ScriptedService::silence();
      answers.push_back(clientOfUser(1001).checkIn(identifier, silent.back().endpoint(), Value::Dictionary{}));
      simulation->settle();
    }
    const ScriptedService well("well");
    const auto checkin = clientOfUser(1002).checkIn("well", well.endpoint(), Value::Dictionary{{"PURGE", true}});
    simulation->settle();
    bool gotSnapshot = false;
    globalQueue::async([&] {
      kelvane->copyServices();
      gotSnapshot = true;
    });
    clock::sleepMicroseconds(29 * second);
    EXPECT_FALSE(checkin->arrived || gotSnapshot);
    clock::sleepMicroseconds(2 * second);
    EXPECT_TRUE(checkin->arrived);
    EXPECT_TRUE(gotSnapshot);
    EXPECT_EQ(silent[1].count("servicePing"), 1u);
    EXPECT_EQ(silent[2].count("servicePing"), 0u);
    clock::sleepMicroseconds(120 * second);
    for (const auto& answer : answers) {
      EXPECT_TRUE(answer->arrived);
    }
  });
}

}  // namespace
}  // namespace kelvane::test
