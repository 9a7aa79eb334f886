// SPDX-License-Identifier: Apache-2.0
// Entitlement rules that are read again while clients and services are connected.
#include <gtest/gtest.h>

#include <string>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "support/Settings.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

using simulated::ActingAs;
using simulated::PeerTraits;

constexpr char identifier[] = "com.example.cache";

class RulesThatAreReadAgain : public DaemonTest {
 protected:
  void read(const std::string& rules) {
    simulation->files().write("/etc/kelvane/entitlements.d/test.plist", rules);
    kelvane->readRulesAgain();
    simulation->settle();
  }
  static std::string rule(const std::string& condition, const std::string& entitlements) {
    return "{ " + condition + "; Entitlements = (" + entitlements + "); }";
  }
  static std::string servingRule(const std::string& condition) {
    return rule(condition, "CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT");
  }

  /// Checks a service in whose connection and endpoint are of these processes.
  void checkInAs(const PeerTraits& caller, const PeerTraits& server) {
    const ActingAs process(server);
    service.emplace(identifier);
    const auto client = [&caller] {
      const ActingAs other(caller);
      return TestClient();
    };
    checkIn(client(), *service);
  }
  bool isKnown() const { return recordOf(identifier) != nullptr; }

  std::optional<ScriptedService> service;
};

TEST_F(RulesThatAreReadAgain, KeepWhatTheyGrantStill) {
  runDaemon([&] {
    checkInAs({}, {});
    const TestClient client = clientOf("client");
    EXPECT_EQ(client.setState("a", 1), std::nullopt);
    read("(" + servingRule("User = root") + ", " + rule("User = client", "CLIENT_ENTITLEMENT") + ")");
    EXPECT_TRUE(isKnown());
    EXPECT_EQ(client.setState("a", 2), std::nullopt);
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(RulesThatAreReadAgain, EndServicesThatTheyLeaveOut) {
  runDaemon([&] {
    checkInAs({}, {});
    read(rule("User = root", "CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT"));
    EXPECT_FALSE(isKnown());
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"ClientInterface::endUnentitledServices the rules do not let com.example.cache "
                                       "be a service any more: pid 100, uid 0"});
    EXPECT_TRUE(TestClient()
                    .purge(Value::Dictionary{{keys::volume, volume}, {keys::amount, 1}, {keys::urgency, 1}})
                    .isDictionary());
    EXPECT_EQ(service->count("servicePurge 1"), 0u);
    read(servingRule("User = root"));
    checkInAs({}, {});
    EXPECT_TRUE(isKnown());
  });
}

TEST_F(RulesThatAreReadAgain, EndServicesWhoseIdentifierTheyLeaveOut) {
  runDaemon([&] {
    checkInAs({}, {});
    read("{ User = root; Entitlements = (CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT); Identifiers = (\"com.other.*\"); }");
    EXPECT_FALSE(isKnown());
  });
}

TEST_F(RulesThatAreReadAgain, EndServicesThatMayNotConnect) {
  runDaemon([&] {
    checkInAs({}, {});
    read(rule("User = root", "SERVICE_ENTITLEMENT"));
    EXPECT_FALSE(isKnown());
  });
}

TEST_F(RulesThatAreReadAgain, LookAtTheEndpointsProcessAsWell) {
  runDaemon([&] {
    checkInAs({.uid = 0}, {.uid = 0, .executable = "/usr/bin/cache"});
    read(servingRule("Executable = \"/usr/bin/cache\""));
    EXPECT_TRUE(isKnown());
  });
}

TEST_F(RulesThatAreReadAgain, DoNotLookAtTheEndpointsProcessWhenItIsAnotherUsers) {
  runDaemon([&] {
    checkInAs({.uid = 0}, {.uid = 7, .executable = "/usr/bin/cache"});
    read(servingRule("Executable = \"/usr/bin/cache\""));
    EXPECT_FALSE(isKnown());
  });
}

TEST_F(RulesThatAreReadAgain, LeaveDescribedServicesAlone) {
  run([&] {
    writeEntitlements(*simulation);
    describe("/System/Library/Kelvane/a", "<key>KELVANE_ID</key><string>com.example.described</string>");
    kelvane = Kelvane::init();
    read("()");
    EXPECT_TRUE(recordOf("com.example.described"));
    kelvane.reset();
  });
}

TEST_F(RulesThatAreReadAgain, HoldForACheckInThatHasWaited) {
  for (const bool isGranted : {false, true}) {
    runDaemon([&] {
      const ScriptedService waiting(identifier);
      kelvane->collection_queue().suspend();
      const TestClient client;
      const auto answer = client.checkIn(identifier, waiting.endpoint(), Value::Dictionary{{"PURGE", true}});
      simulation->settle();
      // Another rule, by which the connection stays in any case.
      read(isGranted ? servingRule("User = root") : rule("User = root", "CLIENT_ENTITLEMENT"));
      kelvane->collection_queue().resume();
      simulation->settle();
      EXPECT_EQ(answer->arrived, isGranted);
      EXPECT_EQ(isKnown(), isGranted);
      EXPECT_FALSE(client.connection().hasEnded());
    });
  }
}

TEST_F(RulesThatAreReadAgain, HoldForRequestsOnConnectionsFromBefore) {
  runDaemon([&] {
    const TestClient client = clientOf("client");
    const Value info = Value::Dictionary{{keys::volume, volume}, {keys::amount, 0}, {keys::urgency, 1}};
    EXPECT_TRUE(client.purge(info).isDictionary());
    read(rule("User = client", "CLIENT_ENTITLEMENT"));
    EXPECT_TRUE(client.purge(info).isAbsent());
    EXPECT_EQ(client.setState("a", 1), std::nullopt);
    read(rule("User = client", "CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT"));
    EXPECT_TRUE(client.purge(info).isDictionary());
  });
}

TEST_F(RulesThatAreReadAgain, DropWhatWasNotDeliveredOfThoseWhomTheyCutOff) {
  runDaemon([&] {
    const TestClient client = clientOf("client");
    kelvane->purge_queue().suspend();
    const Value info = Value::Dictionary{{keys::volume, volume}, {keys::amount, 0}, {keys::urgency, 1}};
    // The first is being delivered, and what follows on its connection waits for it.
    const auto purge = client.send(KelvaneClientProtocol::clientPurge, {info});
    const auto set = client.send(KelvaneClientProtocol::clientSetState, {Value(1), Value("a")});
    simulation->settle();
    read(rule("User = root", "CLIENT_ENTITLEMENT"));
    kelvane->purge_queue().resume();
    simulation->settle();
    EXPECT_TRUE(purge->failed);
    EXPECT_TRUE(set->failed);
    EXPECT_TRUE(TestClient().state("a").isAbsent());
  });
}

}  // namespace
}  // namespace kelvane::test
