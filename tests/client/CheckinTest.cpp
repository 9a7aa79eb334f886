// SPDX-License-Identifier: Apache-2.0
// Check-in: who becomes known, how, and when it ends.
#include <gtest/gtest.h>

#include "platform/Limits.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

constexpr char checkinName[] = "-[Kelvane clientCheckin:endpoint:info:reply:]";
constexpr char blockName[] = "-[Kelvane clientCheckin:endpoint:info:reply:]_block";

Value checkedIn(const std::string& identifier) {
  return Value::Dictionary{{"KELVANE_ID", identifier}, {"ANON", true}};
}

class ACheckIn : public DaemonTest {
 protected:
  void prepare() override {
    describe("/System/Library/Kelvane/described.plist", "<key>KELVANE_ID</key><string>com.example.described</string>");
  }
};

TEST_F(ACheckIn, MakesAServiceKnownAndConnectsBackToIt) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    const auto answer =
        TestClient().checkIn(service.identifier(), service.endpoint(), Value::Dictionary{{"PURGE", true}});
    simulation->settle();
    EXPECT_TRUE(answer->arrived);
    EXPECT_EQ(answer->value, checkedIn("com.example.cache"));
    EXPECT_EQ(service.calls(), std::vector<std::string>{"servicePing"});

    const auto record = recordOf("com.example.cache");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->ID(), "com.example.cache");
    EXPECT_TRUE(record->doesPurge());
    EXPECT_FALSE(record->doesPeriodic());
    EXPECT_FALSE(record->doNotQuery());
    EXPECT_TRUE(record->endpoint());
    EXPECT_TRUE(record->vexConn());
    EXPECT_TRUE(record->desiredNotifications().isAbsent());
  });
}

TEST_F(ACheckIn, OfADescribedServiceChangesNothingAndIsAnsweredWithNone) {
  runDaemon([&] {
    const auto before = recordOf("com.example.described");
    ScriptedService service("com.example.described");
    log().clear();
    // Not even the entitlement is asked for.
    const auto answer =
        clientOf("partial").checkIn(service.identifier(), service.endpoint(), Value::Dictionary{{"PURGE", false}});
    simulation->settle();
    EXPECT_TRUE(answer->arrived);
    EXPECT_TRUE(answer->value.isAbsent());
    EXPECT_TRUE(service.calls().empty());
    EXPECT_EQ(recordOf("com.example.described"), before);
    EXPECT_TRUE(before->doesPurge());
    EXPECT_FALSE(before->vexConn());
    EXPECT_TRUE(log().texts().empty());
  });
}

TEST_F(ACheckIn, IsNotNeededByADescribedServiceWhoseRecordOutlivesItsConnections) {
  runDaemon([&] {
    const auto record = recordOf("com.example.described");
    record->setDesiredNotifications(Value::Array{"x"});
    {
      ScriptedService service("com.example.described");
      service.listenByName();
      kelvane->notifyRecipients("x", 1);
      simulation->settle();
      EXPECT_EQ(service.count("serviceNotify"), 1u);
    }
    simulation->settle();
    EXPECT_EQ(recordOf("com.example.described"), record);
    EXPECT_FALSE(record->vexConn());
  });
}

TEST_F(ACheckIn, WithoutTheEntitlementIsNeverAnswered) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    const TestClient client = clientOf("partial");
    const auto answer = client.checkIn(service.identifier(), service.endpoint(), Value::Dictionary{{"PURGE", true}});
    clock::sleepMicroseconds(60'000'000);
    EXPECT_FALSE(answer->arrived);
    EXPECT_FALSE(answer->failed);
    EXPECT_EQ(log().texts(3),
              (std::vector<std::string>{std::string(checkinName) + " Connection is not entitled!",
                                        std::string(checkinName) +
                                            " refused a check-in: pid 100, uid 1000 lacks SERVICE_ENTITLEMENT; a rule "
                                            "in /etc/kelvane/entitlements.d gives it, such as { User = 1000; "
                                            "Entitlements = (SERVICE_ENTITLEMENT); }"}));
    EXPECT_FALSE(recordOf("com.example.cache"));
    EXPECT_TRUE(service.calls().empty());
  });
}

TEST_F(ACheckIn, WithoutFlagsMakesAServiceThatDoesNothing) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    checkIn(TestClient(), service, {});
    EXPECT_FALSE(recordOf("com.example.cache")->doesPurge());
    EXPECT_FALSE(recordOf("com.example.cache")->doesPeriodic());
  });
}

TEST_F(ACheckIn, NeverMarksAServiceAsNotToBeQueried) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    checkIn(TestClient(), service, {{"KELVANE_DO_NOT_QUERY", true}});
    EXPECT_FALSE(recordOf("com.example.cache")->doNotQuery());
  });
}

TEST_F(ACheckIn, KeepsTheNotificationsExactlyAsTheyCame) {
  runDaemon([&] {
    ScriptedService first("a");
    const Value names = Value::Array{"z", "a", "z"};
    checkIn(TestClient(), first, {{"KELVANE_NOTIFICATIONS", names}});
    EXPECT_EQ(recordOf("a")->desiredNotifications(), names);
    ScriptedService second("b");
    checkIn(TestClient(), second, {{"KELVANE_NOTIFICATIONS", 7}});
    EXPECT_EQ(recordOf("b")->desiredNotifications(), Value(7));
  });
}

TEST_F(ACheckIn, RepeatedChangesTheFlagsAndKeepsTheConnection) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    ScriptedService other("com.example.cache");
    const TestClient client;
    checkIn(client, service, {{"PURGE", true}, {"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    const auto record = recordOf("com.example.cache");
    const void* connection = record->vexConn()->identity();
    log().clear();

    const auto answer = client.checkIn("com.example.cache", other.endpoint(), Value::Dictionary{{"PERIODIC", true}});
    simulation->settle();
    EXPECT_EQ(answer->value, checkedIn("com.example.cache"));
    EXPECT_EQ(recordOf("com.example.cache"), record);
    EXPECT_EQ(record->vexConn()->identity(), connection);
    EXPECT_FALSE(record->doesPurge());
    EXPECT_TRUE(record->doesPeriodic());
    EXPECT_TRUE(record->desiredNotifications().isAbsent());
    EXPECT_EQ(log().textsOf(blockName),
              std::vector<std::string>{std::string(blockName) + " operating on an existing service"});
    EXPECT_TRUE(log().texts(3).empty());
    EXPECT_EQ(service.count("servicePing"), 1u);
    EXPECT_TRUE(other.calls().empty());
  });
}

TEST_F(ACheckIn, EndsWhenTheServiceDies) {
  runDaemon([&] {
    const TestClient client;
    {
      ScriptedService service("com.example.cache");
      checkIn(client, service);
      ASSERT_TRUE(recordOf("com.example.cache"));
    }
    simulation->settle();
    EXPECT_FALSE(recordOf("com.example.cache"));
    EXPECT_TRUE(log().contains(std::string(blockName) + " interruptionHandler ENTRY"));
    EXPECT_FALSE(log().contains("invalidationHandler ENTRY"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(ACheckIn, EndsWhenTheConnectionIsInvalidated) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    checkIn(TestClient(), service);
    recordOf("com.example.cache")->vexConn()->invalidate();
    simulation->settle();
    EXPECT_FALSE(recordOf("com.example.cache"));
    EXPECT_TRUE(log().contains(std::string(blockName) + " invalidationHandler ENTRY"));
    EXPECT_FALSE(log().contains("interruptionHandler ENTRY"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(ACheckIn, CanFollowTheEndOfAnEarlierOne) {
  runDaemon([&] {
    const TestClient client;
    {
      ScriptedService first("com.example.cache");
      checkIn(client, first);
    }
    ScriptedService second("com.example.cache");
    checkIn(client, second);
    EXPECT_EQ(second.count("servicePing"), 1u);
    EXPECT_TRUE(recordOf("com.example.cache"));
  });
}

TEST_F(ACheckIn, OfAServiceThatNeverAnswersItsPingHoldsTheCollectionQueue) {
  runDaemon([&] {
    ScriptedService service("com.example.stuck");
    service.onPing = ScriptedService::silence();
    const TestClient client;
    const auto answer = client.checkIn(service.identifier(), service.endpoint(), Value::Dictionary{{"PURGE", true}});
    simulation->settle();
    bool gotSnapshot = false;
    globalQueue::async([&] {
      kelvane->copyServices();
      gotSnapshot = true;
    });
    const auto purge = TestClient().send(KelvaneClientProtocol::clientPurge, {Value(Value::Dictionary{})});
    const auto cancel = TestClient().send(KelvaneClientProtocol::clientCancelPurge, {Value(Value::Dictionary{})});
    clock::sleepMicroseconds(600'000'000);
    EXPECT_FALSE(answer->arrived);
    EXPECT_FALSE(cancel->arrived);
    EXPECT_FALSE(purge->arrived);
    EXPECT_FALSE(gotSnapshot);
    // The live table has it already, but not yet what it does.
    ASSERT_TRUE(kelvane->services()->contains("com.example.stuck"));
    EXPECT_FALSE(kelvane->services()->at("com.example.stuck")->doesPurge());
    // Periodic work goes by the live table.
    kelvane->performPeriodicsWithInfo(Value::Dictionary{{"KELVANE_VOLUME", volume}});
    EXPECT_TRUE(log().contains("performPeriodicsWithInfo:]_block result: { KELVANE_AMOUNT = 0; }"));
    // Not to be taken apart with its queue held.
    static_cast<void>(kelvane.release());
  });
}

TEST_F(ACheckIn, OfAServiceThatDiesBeforeItsPongHoldsTheCollectionQueueToo) {
  runDaemon([&] {
    ScriptedService service("com.example.dead");
    service.onPing = ScriptedService::dies();
    const auto answer = TestClient().checkIn(service.identifier(), service.endpoint(), Value::Dictionary{});
    clock::sleepMicroseconds(600'000'000);
    EXPECT_FALSE(answer->arrived);
    EXPECT_EQ(log().count(std::string(blockName) + " peerHandleOrFault error: ", 5), 1u);
    EXPECT_TRUE(log().contains(std::string(blockName) + " interruptionHandler ENTRY"));
    EXPECT_TRUE(log().texts(3).empty());
    // The removal waits behind the ping.
    EXPECT_TRUE(kelvane->services()->contains("com.example.dead"));
    static_cast<void>(kelvane.release());
  });
}

TEST_F(ACheckIn, OfMoreThanIsKeptIsAnsweredWithTheLimitAndChangesNothing) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    const std::string longName(limits::serviceIdentifierBytes + 1, 'x');
    const Value names = Value::Array{std::string(limits::notificationNamesBytes, 'n')};
    const TestClient client;
    const auto refusal = [&](const std::string& identifier, Value::Dictionary info) {
      const auto outcome = client.checkInOutcome(identifier, service.endpoint(), std::move(info));
      const auto* error = std::get_if<ipc::CallError>(&outcome);
      return error != nullptr ? error->text : "accepted";
    };
    EXPECT_EQ(refusal(longName, {}),
              "org.freedesktop.DBus.Error.LimitsExceeded: The identifier has more than 1024 bytes");
    EXPECT_EQ(refusal("com.example.cache", {{"KELVANE_NOTIFICATIONS", names}}),
              "org.freedesktop.DBus.Error.LimitsExceeded: The names of notifications take more than 16384 bytes");
    EXPECT_EQ(kelvane->copyServices()->size(), 1u) << "the described one";
    EXPECT_TRUE(service.calls().empty());
    EXPECT_EQ(refusal(longName.substr(1), {}), "accepted");
  });
}

TEST_F(ACheckIn, ReadsFlagsThatAreNoNumbersAsFalse) {
  runDaemon([&] {
    ScriptedService service("com.example.cache");
    checkIn(TestClient(), service, {{"PURGE", "true"}, {"PERIODIC", Value::Array{}}});
    EXPECT_FALSE(recordOf("com.example.cache")->doesPurge());
    EXPECT_FALSE(recordOf("com.example.cache")->doesPeriodic());
  });
}

}  // namespace
}  // namespace kelvane::test
