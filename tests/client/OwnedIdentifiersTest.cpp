// SPDX-License-Identifier: Apache-2.0
// Check-ins under an identifier with which another user has checked in.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "support/Settings.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

constexpr char refusal[] = "org.freedesktop.DBus.Error.AccessDenied: The identifier belongs to another user";

class AnOwnedIdentifier : public DaemonTest {
 protected:
  void SetUp() override { settings.ownedIdentifiers = true; }
  void TearDown() override { settings.ownedIdentifiers = false; }
  void prepare() override {
    const std::string granted = "Entitlements = (CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT);";
    simulation->files().write("/etc/kelvane/entitlements.d/users.plist",
                              "({ User = alice; " + granted + " }, { User = bob; " + granted + " })");
    describe("/System/Library/Kelvane/described.plist", "<key>KELVANE_ID</key><string>com.example.described</string>");
  }

  static TestClient clientOfUser(const std::string& name, unsigned uid) {
    const simulated::ActingAs process({.uid = uid, .user = name});
    return TestClient();
  }
  static TestClient alice() { return clientOfUser("alice", 1001); }
  static TestClient bob() { return clientOfUser("bob", 1002); }

  /// What a check-in is refused with; empty when it is not.
  static std::string refusalOf(const TestClient& client, const ScriptedService& service,
                               Value::Dictionary info = {{"PURGE", true}}) {
    const auto outcome = client.checkInOutcome(service.identifier(), service.endpoint(), std::move(info));
    const auto* error = std::get_if<ipc::CallError>(&outcome);
    return error != nullptr ? error->text : "";
  }
};

TEST_F(AnOwnedIdentifier, IsItsUsersAlone) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    checkIn(alice(), service);
    const auto record = recordOf("com.example.cache");
    log().clear();

    ScriptedService other("com.example.cache");
    for (const TestClient& client : {bob(), clientOfUser("root", 0)}) {
      EXPECT_EQ(refusalOf(client, other, {{"PERIODIC", true}}), refusal);
    }
    EXPECT_EQ(recordOf("com.example.cache"), record);
    EXPECT_TRUE(record->doesPurge());
    EXPECT_FALSE(record->doesPeriodic());
    EXPECT_TRUE(other.calls().empty());
    EXPECT_EQ(log().texts(3),
              (std::vector<std::string>{"-[KelvaneListener resume] refused a check-in as com.example.cache, which is "
                                        "another user's: pid 100, uid 1002",
                                        "-[KelvaneListener resume] refused a check-in as com.example.cache, which is "
                                        "another user's: pid 100, uid 0"}));

    EXPECT_EQ(refusalOf(alice(), other, {{"PERIODIC", true}}), "");
    EXPECT_TRUE(record->doesPeriodic());
  });
}

TEST_F(AnOwnedIdentifier, IsFreeWhenTheConnectionHasEnded) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    SCOPED_TRACE(seed);
    runDaemon(
        [&] {
          std::optional<ScriptedService> service("com.example.cache");
          checkIn(alice(), *service);
          // The client's own connection, which has ended by now, does not count.
          ScriptedService other("com.example.cache");
          EXPECT_EQ(refusalOf(bob(), other), refusal);
          service.reset();
          simulation->settle();
          EXPECT_EQ(refusalOf(bob(), other), "");
          EXPECT_EQ(other.count("servicePing"), 1u);
          EXPECT_EQ(refusalOf(alice(), other), refusal);
        },
        seed);
  }
}

TEST_F(AnOwnedIdentifier, IsHisWhoWaitedLongestWhenTwoUsersComeAtOnce) {
  runDaemon([&] {
    ScriptedService first("com.example.cache");
    ScriptedService second("com.example.cache");
    kelvane->collection_queue().suspend();
    const TestClient earlier = alice();
    const auto answer = earlier.checkIn("com.example.cache", first.endpoint(), Value::Dictionary{{"PURGE", true}});
    simulation->settle();
    std::string refused;
    const Group group;
    group.asyncGlobal([&] { refused = refusalOf(bob(), second, {}); });
    simulation->settle();
    kelvane->collection_queue().resume();
    group.wait();
    EXPECT_EQ(refused, refusal);
    EXPECT_TRUE(answer->arrived);
    EXPECT_TRUE(recordOf("com.example.cache")->doesPurge());
    EXPECT_TRUE(second.calls().empty());
  });
}

TEST_F(AnOwnedIdentifier, IsAnybodysAsBuiltIn) {
  settings.ownedIdentifiers = false;
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    checkIn(alice(), service);
    EXPECT_EQ(refusalOf(bob(), ScriptedService("com.example.cache"), {{"PERIODIC", true}}), "");
    EXPECT_TRUE(recordOf("com.example.cache")->doesPeriodic());
  });
}

TEST_F(AnOwnedIdentifier, IsNotTheRefusalOfWhomNoCheckInIsAnsweredAnyway) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    checkIn(alice(), service);
    log().clear();
    const TestClient client = clientOf("partial");
    const auto answer = client.checkIn("com.example.cache", service.endpoint(), Value::Dictionary{});
    simulation->settle();
    EXPECT_FALSE(answer->arrived);
    ASSERT_FALSE(log().texts(3).empty());
    EXPECT_EQ(log().texts(3).front(), "-[Kelvane clientCheckin:endpoint:info:reply:] Connection is not entitled!");
    EXPECT_FALSE(log().contains("another user's"));
  });
}

TEST_F(AnOwnedIdentifier, IsNoneThatADescriptionHas) {
  runDaemon([&] {
    ScriptedService service("com.example.described");
    for (const TestClient& client : {alice(), bob()}) {
      const auto answer = client.checkIn("com.example.described", service.endpoint(), Value::Dictionary{});
      simulation->settle();
      EXPECT_TRUE(answer->arrived);
      EXPECT_TRUE(answer->value.isAbsent());
    }
  });
}

}  // namespace
}  // namespace kelvane::test
