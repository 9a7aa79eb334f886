// SPDX-License-Identifier: Apache-2.0
// The service record, and how a service without a connection of its own is reached by its name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "support/CallService.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using testing::ElementsAre;

TEST(AServiceRecord, IsMadeWithNothingSetButItsIdentifier) {
  const KLService record("com.example.cache");
  EXPECT_EQ(record.ID(), "com.example.cache");
  EXPECT_FALSE(record.doesPurge());
  EXPECT_FALSE(record.doesPeriodic());
  EXPECT_FALSE(record.doNotQuery());
  EXPECT_TRUE(record.desiredNotifications().isAbsent());
  EXPECT_FALSE(record.endpoint());
  EXPECT_FALSE(record.vexConn());
}

TEST(AServiceRecord, KeepsWhatItIsSetTo) {
  KLService record("a");
  record.setDoesPurge(true);
  record.setDoesPeriodic(true);
  record.setDoNotQuery(true);
  record.setDesiredNotifications(7);
  EXPECT_TRUE(record.doesPurge());
  EXPECT_TRUE(record.doesPeriodic());
  EXPECT_TRUE(record.doNotQuery());
  EXPECT_EQ(record.desiredNotifications(), Value(7));
}

TEST(AServiceRecord, DesiresTheNotificationsOfItsArray) {
  KLService record("a");
  EXPECT_FALSE(record.desiresNotification("x"));
  record.setDesiredNotifications(Value::Array{"y", 7, "x"});
  EXPECT_TRUE(record.desiresNotification("x"));
  EXPECT_TRUE(record.desiresNotification("y"));
  EXPECT_FALSE(record.desiresNotification("X"));
  EXPECT_FALSE(record.desiresNotification("7"));
}

TEST(AServiceRecord, DesiresNothingByWhatIsNoArray) {
  KLService record("a");
  record.setDesiredNotifications("x");
  EXPECT_FALSE(record.desiresNotification("x"));
  record.setDesiredNotifications(Value::Dictionary{{"x", true}});
  EXPECT_FALSE(record.desiresNotification("x"));
}

class ANamedService : public OperationTest {
 protected:
  static constexpr char identifier[] = "com.example.cache";

  /// Pings and waits: "completed", "error" or, with nothing heard, "nothing".
  std::string ping(const std::shared_ptr<KLService>& record) {
    const auto outcome = std::make_shared<std::string>("nothing");
    CallServiceAsync(
        record,
        [outcome](const KelvaneServiceProxy& proxy, const Block& completion) {
          proxy.servicePing([outcome, completion] {
            completion();
            *outcome = "completed";
          });
        },
        [outcome] { *outcome = "error"; });
    simulation->settle();
    return *outcome;
  }

  std::string pingByName(const std::string& name) { return ping(std::make_shared<KLService>(name)); }
};

TEST_F(ANamedService, IsConnectedToWhenItIsFirstCalled) {
  run([&] {
    ScriptedService service(identifier);
    service.listenByName();
    const auto record = std::make_shared<KLService>(identifier);
    simulation->settle();
    EXPECT_EQ(simulation->ipc().openConnections(), 0);
    EXPECT_EQ(ping(record), "completed");
    EXPECT_EQ(simulation->ipc().openConnections(), 1);
    // The connection is not the record's own.
    EXPECT_FALSE(record->vexConn());
    EXPECT_FALSE(record->endpoint());
  });
}

TEST_F(ANamedService, IsStartedByTheFirstCallWhenItDoesNotRun) {
  run([&] {
    ScriptedService service(identifier);
    simulation->ipc().onDemand(identifier, [&] {
      clock::sleepMicroseconds(1'000'000);
      service.listenByName();
    });
    const auto record = std::make_shared<KLService>(identifier);
    EXPECT_EQ(ping(record), "nothing");
    clock::sleepMicroseconds(1'000'000);
    simulation->settle();
    EXPECT_THAT(service.calls(), ElementsAre("servicePing"));
  });
}

TEST_F(ANamedService, KeepsItsConnectionFromCallToCall) {
  run([&] {
    ScriptedService service(identifier);
    service.listenByName();
    const auto record = std::make_shared<KLService>(identifier);
    EXPECT_EQ(ping(record), "completed");
    const void* first = record->connectionForCall().identity();
    EXPECT_EQ(ping(record), "completed");
    EXPECT_EQ(record->connectionForCall().identity(), first);
    EXPECT_EQ(simulation->ipc().openConnections(), 1);
  });
}

TEST_F(ANamedService, IsConnectedToAnewAfterItDied) {
  for (std::uint64_t seed = 0; seed < 30; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          const auto record = std::make_shared<KLService>(identifier);
          {
            ScriptedService first(identifier);
            first.listenByName();
            EXPECT_EQ(ping(record), "completed");
          }
          simulation->settle();
          EXPECT_EQ(ping(record), "error");
          EXPECT_EQ(ping(record), "error");
          ScriptedService second(identifier);
          second.listenByName();
          EXPECT_EQ(ping(record), "completed");
          EXPECT_THAT(second.calls(), ElementsAre("servicePing"));
        },
        seed);
  }
}

TEST_F(ANamedService, IsConnectedToAnewAfterItsConnectionWasInvalidated) {
  run([&] {
    ScriptedService service(identifier);
    service.listenByName();
    const auto record = std::make_shared<KLService>(identifier);
    EXPECT_EQ(ping(record), "completed");
    const ipc::Connection first = record->connectionForCall();
    first.invalidate();
    simulation->settle();
    EXPECT_EQ(ping(record), "completed");
    const void* second = record->connectionForCall().identity();
    EXPECT_NE(second, first.identity());
    // The old one's end is no news and takes nothing away.
    first.invalidate();
    simulation->settle();
    EXPECT_EQ(record->connectionForCall().identity(), second);
  });
}

TEST_F(ANamedService, ThatRefusesTheDaemonIsAFailure) {
  run([&] {
    const auto listener = ipc::Listener::named(identifier, ipc::Interface{}, [](const ipc::Request&) {});
    listener.setAdmission([](const ipc::Peer&) { return false; });
    ASSERT_EQ(listener.resume(), std::nullopt);
    EXPECT_EQ(pingByName(identifier), "error");
  });
}

TEST_F(ANamedService, ThatDoesNotListenIsAFailure) {
  run([&] { EXPECT_EQ(pingByName("com.example.absent"), "error"); });
}

TEST_F(ANamedService, OfANameThatCannotBeCalledIsAFailure) {
  run([&] {
    using namespace std::string_literals;
    for (const std::string& name :
         {""s, ".hidden"s, ".."s, "a/b"s, "/a"s, "a\0b"s, std::string(limits::serviceNameBytes + 1, 'x')}) {
      const auto record = std::make_shared<KLService>(name);
      EXPECT_EQ(ping(record), "error") << name;
      // The record stands.
      EXPECT_EQ(record->ID(), name);
    }
  });
}

TEST_F(ANamedService, MayHaveTheLongestNameThatThereIs) {
  run([&] {
    ScriptedService service(std::string(limits::serviceNameBytes, 'x'));
    service.listenByName();
    EXPECT_EQ(pingByName(service.identifier()), "completed");
  });
}

TEST_F(ANamedService, IsNotAskedForWhenTheRecordHasAConnectionOfItsOwn) {
  run([&] {
    ScriptedService named(identifier);
    named.listenByName();
    ScriptedService checkedIn(identifier);
    EXPECT_EQ(ping(checkedIn.record()), "completed");
    EXPECT_THAT(checkedIn.calls(), ElementsAre("servicePing"));
    EXPECT_TRUE(named.calls().empty());
  });
}

TEST_F(ANamedService, IsLetGoWithItsRecord) {
  run([&] {
    ScriptedService service(identifier);
    service.listenByName();
    auto record = std::make_shared<KLService>(identifier);
    const std::weak_ptr<KLService> weak = record;
    EXPECT_EQ(ping(record), "completed");
    record.reset();
    simulation->settle();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(simulation->ipc().openConnections(), 0);
  });
}

}  // namespace
}  // namespace kelvane::test
