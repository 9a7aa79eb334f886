// SPDX-License-Identifier: Apache-2.0
// Query, purge and cancel as clients ask for them.
#include <gtest/gtest.h>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

Value purgeInfo(std::uint64_t amount) {
  return Value::Dictionary{{keys::volume, "/data"}, {keys::amount, amount}, {keys::urgency, 1}};
}

/// What the log is told of a request by the user of clientOf() that is the first to lack this entitlement.
std::vector<std::string> refusal(const std::string& method, const std::string& entitlement) {
  const std::string name = "-[Kelvane " + method + ":replyBlock:] ";
  return {name + "Connection is not entitled!",
          name + "refused a request: pid 100, uid 1000 lacks " + entitlement +
              "; a rule in /etc/kelvane/entitlements.d gives it, such as { User = 1000; Entitlements = (" +
              entitlement + "); }"};
}

class AClient : public DaemonTest {};

TEST_F(AClient, GetsThePurgesResult) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = freesWhatIsAsked();
    checkIn(TestClient(), service);
    const Value result = clientOf("client").purge(purgeInfo(100));
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{100}));
    EXPECT_EQ(result[keys::freespaceEnd], Value(std::uint64_t{1100}));
  });
}

TEST_F(AClient, GetsTheQuerysResultPlainOrItemized) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    const Value info = Value::Dictionary{{keys::volume, volume}};
    const Value result = Value::Dictionary{{"a", 100}, {"KELVANE_TOTAL_AVAILABLE", 100}, {"KELVANE_VOLUME", volume}};
    EXPECT_EQ(clientOf("client").purgeableSpace(info), result);
    EXPECT_EQ(clientOf("client").itemizedPurgeableSpace(info), result);
  });
}

TEST_F(AClient, NeedsForEachKindOfQueryItsOwnEntitlement) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    const Value info = Value::Dictionary{{keys::volume, volume}};
    const TestClient itemizing = clientOf("itemizing");
    EXPECT_TRUE(itemizing.purgeableSpace(info).isAbsent());
    EXPECT_EQ(service.count("servicePurgeable 3"), 0u);
    EXPECT_EQ(refusal("clientPurgeableSpace", entitlements::purgeable), log().texts(3));
    EXPECT_EQ(itemizing.itemizedPurgeableSpace(info), clientOf("client").purgeableSpace(info));

    log().clear();
    EXPECT_TRUE(clientOf("partial").itemizedPurgeableSpace(info).isAbsent());
    EXPECT_EQ(refusal("clientItemizedPurgeableSpace", entitlements::itemizedPurgeable), log().texts(3));
  });
}

TEST_F(AClient, WithoutTheEntitlementIsAnsweredWithNoneAndNothingIsPurged) {
  runDaemon([&] {
    ScriptedService service("a");
    checkIn(TestClient(), service);
    const std::uint64_t start = clock::ticks();
    EXPECT_TRUE(clientOf("partial").purge(purgeInfo(100)).isAbsent());
    EXPECT_EQ(clock::ticks(), start);
    EXPECT_EQ(service.count("servicePurge 1"), 0u);
    EXPECT_EQ(refusal("clientPurge", entitlements::purge), log().texts(3));
  });
}

TEST_F(AClient, NeedsToPurgeNoEntitlementToQueryNorTheOtherWayRound) {
  runDaemon([&] {
    EXPECT_TRUE(clientOf("purging").purge(purgeInfo(0)).isDictionary());
    const Value info = Value::Dictionary{{keys::volume, volume}};
    EXPECT_TRUE(clientOf("purging").purgeableSpace(info).isAbsent());
    EXPECT_TRUE(clientOf("purging").itemizedPurgeableSpace(info).isAbsent());
    EXPECT_TRUE(clientOf("querying").purge(purgeInfo(0)).isAbsent());
    EXPECT_TRUE(clientOf("querying").purgeableSpace(info).isDictionary());
    EXPECT_TRUE(clientOf("querying").itemizedPurgeableSpace(info).isAbsent());
  });
}

TEST_F(AClient, IsAnsweredWhateverQueueIsBusy) {
  runDaemon([&] {
    const TestClient client = clientOf("partial");
    const SerialQueue queues[] = {kelvane->purge_queue(),   kelvane->purgeable_queue(), kelvane->periodic_queue(),
                                  kelvane->notify_queue(),  kelvane->daemons_queue(),   kelvane->collection_queue(),
                                  kelvane->defaults_queue()};
    for (const SerialQueue& queue : queues) {
      queue.suspend();
    }
    const auto answer = client.send(KelvaneClientProtocol::clientPurge, {Value(Value::Dictionary{})});
    simulation->settle();
    EXPECT_TRUE(answer->arrived);
    for (const SerialQueue& queue : queues) {
      queue.resume();
    }
  });
}

TEST_F(AClient, WhoMayNotConnectIsNotServed) {
  runDaemon([&] {
    const auto answer = clientOf("nobody").send(KelvaneClientProtocol::clientPurge, {purgeInfo(100)});
    simulation->settle();
    EXPECT_FALSE(answer->arrived);
    EXPECT_TRUE(answer->failed);
  });
}

TEST_F(AClient, WhoseInfoIsRefusedGetsNoneAndNotTheError) {
  runDaemon([&] {
    EXPECT_TRUE(TestClient().purge(Value::Dictionary{{keys::amount, 100}}).isAbsent());
    EXPECT_TRUE(TestClient().purge(Value::Dictionary{{keys::volume, "/nowhere"}}).isAbsent());
    EXPECT_TRUE(TestClient().purgeableSpace(Value::Dictionary{}).isAbsent());
    EXPECT_TRUE(TestClient().itemizedPurgeableSpace(Value::Dictionary{{keys::volume, "/nowhere"}}).isAbsent());
    EXPECT_TRUE(log().contains("No Volume key in info"));
    EXPECT_TRUE(log().contains("Unable to validate volume: /nowhere"));
  });
}

TEST_F(AClient, CancelsNothingByTokenButIsAnswered) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::silence();
    checkIn(TestClient(), service);
    const Value token("my purge");
    const std::uint64_t start = clock::ticks();
    const auto purge =
        TestClient().send(KelvaneClientProtocol::clientPurge,
                          {Value(Value::Dictionary{
                              {keys::volume, volume}, {keys::amount, 100}, {keys::urgency, 2}, {keys::token, token}})});
    simulation->settle();
    const auto cancel =
        TestClient().send(KelvaneClientProtocol::clientCancelPurge, {Value(Value::Dictionary{{keys::token, token}})});
    simulation->settle();
    EXPECT_TRUE(cancel->arrived);
    EXPECT_EQ(clock::ticks(), start);
    EXPECT_FALSE(purge->arrived);
    EXPECT_EQ(service.count("serviceCancelPurge"), 0u);

    clock::sleepMicroseconds(6'000'000);
    simulation->settle();
    EXPECT_TRUE(purge->arrived);
    EXPECT_FALSE(purge->value.contains(keys::operationCancelled));
    EXPECT_EQ(purge->value[keys::token], token);
  });
}

TEST_F(AClient, IsAnsweredWhenItCancelsWithoutAToken) {
  runDaemon([&] {
    const auto cancel = TestClient().send(KelvaneClientProtocol::clientCancelPurge, {Value(Value::Dictionary{})});
    simulation->settle();
    EXPECT_TRUE(cancel->arrived);
    EXPECT_TRUE(cancel->value.isAbsent());
  });
}

TEST_F(AClient, NeedsNoEntitlementOfItsOwnToCancel) {
  runDaemon([&] {
    const auto cancel =
        clientOf("partial").send(KelvaneClientProtocol::clientCancelPurge, {Value(Value::Dictionary{})});
    simulation->settle();
    EXPECT_TRUE(cancel->arrived);
  });
}

TEST_F(AClient, MayCancelWithoutAReplyBlock) {
  runDaemon([&] { kelvane->clientCancelPurge(Value::Dictionary{{keys::token, "x"}}, nullptr); });
}

}  // namespace
}  // namespace kelvane::test
