// SPDX-License-Identifier: Apache-2.0
// Purges and queries whose clients have hung up.
#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "support/Settings.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

namespace protocol = KelvaneClientProtocol;

/// What a request of a client came to that hung up before it could begin, or after it had.
class AnAbandonedRequest : public DaemonTest {
 protected:
  void TearDown() override { settings.dropAbandoned = false; }

  static Value info() { return Value::Dictionary{{keys::volume, volume}, {keys::amount, 100}, {keys::urgency, 2}}; }

  /// How often a service is asked for what a client wants that has hung up while the queue was not free.
  std::size_t askedBy(const ipc::Operation& operation, const std::string& call) {
    std::size_t count = 0;
    runDaemon([&] {
      ScriptedService service("a");
      service.onPurge = ScriptedService::gives(0);
      checkIn(TestClient(), service);
      const SerialQueue queue =
          &operation == &protocol::clientPurge ? kelvane->purge_queue() : kelvane->purgeable_queue();
      queue.suspend();
      const TestClient client = clientOf("client");
      client.send(operation, {info()});
      simulation->settle();
      client.connection().invalidate();
      simulation->settle();
      queue.resume();
      clock::sleepMicroseconds(60'000'000);
      count = service.count(call);
    });
    return count;
  }
};

TEST_F(AnAbandonedRequest, IsCarriedOutAsBuiltIn) {
  EXPECT_EQ(askedBy(protocol::clientPurge, "servicePurge 1"), 1u);
  EXPECT_EQ(askedBy(protocol::clientPurgeableSpace, "servicePurgeable 2"), 1u);
  EXPECT_EQ(askedBy(protocol::clientItemizedPurgeableSpace, "servicePurgeable 2"), 1u);
}

TEST_F(AnAbandonedRequest, IsNotBegunWhereTheSettingsSaySo) {
  settings.dropAbandoned = true;
  EXPECT_EQ(askedBy(protocol::clientPurge, "servicePurge 1"), 0u);
  EXPECT_EQ(askedBy(protocol::clientPurgeableSpace, "servicePurgeable 2"), 0u);
  EXPECT_EQ(askedBy(protocol::clientItemizedPurgeableSpace, "servicePurgeable 2"), 0u);
}

TEST_F(AnAbandonedRequest, ThatHasBegunIsCarriedOutToItsEnd) {
  settings.dropAbandoned = true;
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives(0);
    checkIn(TestClient(), service);
    const TestClient client = clientOf("client");
    client.send(protocol::clientPurge, {info()});
    simulation->settle();
    EXPECT_EQ(service.count("servicePurge 1"), 1u);
    client.connection().invalidate();
    clock::sleepMicroseconds(60'000'000);
    EXPECT_EQ(service.count("servicePurge 2"), 1u);
  });
}

TEST_F(AnAbandonedRequest, IsNoneWhoseClientStillWaits) {
  settings.dropAbandoned = true;
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = freesWhatIsAsked();
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    const TestClient client = clientOf("client");
    EXPECT_TRUE(client.purgeableSpace(info()).isDictionary());
    EXPECT_TRUE(client.purge(info()).isDictionary());
    EXPECT_EQ(service.count("servicePurge 1"), 1u);
    EXPECT_EQ(service.count("servicePurgeable 2"), 1u);
  });
}

TEST_F(AnAbandonedRequest, IsNoneOfTheDaemonsOwn) {
  settings.dropAbandoned = true;
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives(0);
    checkIn(TestClient(), service);
    EXPECT_TRUE(kelvane->purge(info(), nullptr).isDictionary());
    EXPECT_EQ(service.count("servicePurge 1"), 1u);
  });
}

}  // namespace
}  // namespace kelvane::test
