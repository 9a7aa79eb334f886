// SPDX-License-Identifier: Apache-2.0
// What the settings hold peers to that do not behave.
#include <chrono>

#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/OtherUser.h"

namespace kelvane {
namespace {

using test::Client;
using test::Message;
using test::OtherUser;
using test::purgeOf;
using test::Service;
using test::untilAnswered;

class TheSettings : public test::HostileTest {
 protected:
  void startWith(const std::string& settings) {
    test::writeFile(test::configuration, "{ " + settings + " }");
    test::writeFile(std::string(test::entitlementRules) + "other.plist",
                    "{ User = " + std::to_string(test::otherUser) +
                        "; Entitlements = (CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT, PURGE_ENTITLEMENT); }");
    startDaemon();
  }
  /// Waits for the next request of a purge, which is to be for so much, and gives nothing.
  static void expectAsked(Service& service, std::uint64_t bytes) {
    const Message call = service.expect("servicePurge");
    sd_bus_message_skip(call.get(), "i");
    EXPECT_EQ(test::nextValue(call)[keys::amount], Value(bytes));
    service.bus().answer(call, test::reply({{keys::amount, 0}}));
  }
};

TEST_F(TheSettings, CutASilentServiceOffThatDoesNotAnswerItsPing) {
  startWith("PingLimit = 5;");
  Service silent("com.example.silent");
  silent.beginCheckIn();
  const Message ping = silent.expect("servicePing");
  EXPECT_TRUE(Client().isServed());
  EXPECT_FALSE(silent.bus().nextCall()) << "it is still connected";
  EXPECT_TRUE(silent.endCheckIn().isDictionary());
  EXPECT_TRUE(eventuallyLogs("com.example.silent has not answered its ping"));
}

TEST_F(TheSettings, HaveNobodyWaitForAServiceThatDiesBeforeItsPong) {
  startWith("PingLimit = 120;");
  Service mortal("com.example.mortal");
  mortal.beginCheckIn();
  const Message ping = mortal.expect("servicePing");
  mortal.hangUp();
  EXPECT_TRUE(Client().isServed());
}

TEST_F(TheSettings, DropAPurgeWhoseClientIsGone) {
  startWith("DropAbandoned = YES; EndPassesEarly = YES;");
  Service service("com.example.hostile");
  service.checkIn();
  Client first;
  ASSERT_TRUE(first.send("clientPurge", purgeOf(1 * test::mebibyte, {untilAnswered()})));
  const Message call = service.expect("servicePurge");
  {
    Client gone;
    ASSERT_TRUE(gone.send("clientPurge", purgeOf(2 * test::mebibyte, {untilAnswered()})));
    // When this is answered, what was sent before has been read.
    ASSERT_TRUE(Client().isServed());
  }
  Client third;
  ASSERT_TRUE(third.send("clientPurge", purgeOf(3 * test::mebibyte, {untilAnswered()})));
  // Its end is known by the time that another connection's request, read later, is answered.
  ASSERT_TRUE(Client().isServed());
  service.bus().answer(call, test::reply({{keys::amount, 0}}));
  expectAsked(service, 3 * test::mebibyte);
  EXPECT_TRUE(first.nextResult().isDictionary());
  EXPECT_TRUE(third.nextResult().isDictionary());
}

/// Of which the sandbox has one only where this system's root runs the test.
class TheSettingsForTwoUsers : public TheSettings {
 protected:
  void SetUp() override {
    if (!test::hasOtherUsers()) {
      GTEST_SKIP() << "Without this system's root there is but one user";
    }
    TheSettings::SetUp();
  }
  void TearDown() override {
    if (!IsSkipped()) {
      TheSettings::TearDown();
    }
  }
};

TEST_F(TheSettingsForTwoUsers, RefuseTheIdentifierOfAnothersService) {
  startWith("OwnedIdentifiers = YES;");
  Service service("com.example.owned");
  service.checkIn();
  const auto refusal = [] {
    Service other("com.example.owned");
    other.beginCheckIn();
    return other.checkInError() == SD_BUS_ERROR_ACCESS_DENIED;
  };
  EXPECT_TRUE(OtherUser(refusal).succeeds());
  EXPECT_FALSE(refusal()) << "it is this user's";
}

TEST_F(TheSettingsForTwoUsers, DelayTheStateWritesOfAUserButNotRoots) {
  using std::chrono::steady_clock;
  startWith("StateWritesPerSecond = 10;");
  const auto write = [](int times) {
    Client client;
    bool isServed = true;
    for (int time = 0; time < times; ++time) {
      isServed = isServed && client
                                 .call("clientSetState",
                                       [](sd_bus_message* message) {
                                         return sd_bus_message_append(message, "vs", "s", "value", "key");
                                       })
                                 .error.empty();
    }
    return isServed;
  };
  const auto begin = steady_clock::now();
  EXPECT_TRUE(OtherUser([write] { return write(20); }).succeeds());
  EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_TRUE(write(20));
}

}  // namespace
}  // namespace kelvane
