// SPDX-License-Identifier: Apache-2.0
// Peers that want more than they may have.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>
#include <deque>
#include <filesystem>

#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/OtherUser.h"
#include "tests/hostile/RawConnection.h"

namespace kelvane {
namespace {

using test::Client;
using test::OtherUser;
using test::purgeOf;
using test::RawConnection;

class APeer : public test::HostileTest {
 protected:
  static void entitle(const std::string& file, const std::string& rule) {
    test::writeFile(test::entitlementRules + file, rule);
  }
  /// The daemon reads its rules when it starts.
  void restartWithEntitlements() {
    daemon_.send(SIGTERM);
    EXPECT_EQ(daemon_.wait(), "exit 0");
    entitleThisUser();
    startDaemon();
  }
};

/// What a peer that may do nothing finds.
bool isRefused() {
  RawConnection connection;
  return !connection.shakeHands() && !Client().isServed() &&
         Client().call("clientPurge", purgeOf(test::mebibyte)).signature.empty();
}

/// What a peer finds that may connect and no more: none for its purges, no answer to its check-ins, which yet leave it
/// its other requests.
bool isTolerated() {
  Client client;
  if (!client.purge(purgeOf(test::mebibyte)).isAbsent()) {
    return false;
  }
  for (int service = 0; service < 2 * limits::unansweredRequestsPerConnection; ++service) {
    const int endpoint = test::connectedSocket(test::daemonSocket);
    if (!client.send("clientCheckin", test::checkin("com.example.hostile", endpoint, test::purging()))) {
      return false;
    }
    close(endpoint);
  }
  return client.isServed();
}

TEST_F(APeer, WithoutEntitlementIsRefused) {
  entitle("root.plist", "{ User = 12345; Entitlements = (CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT); }");
  startDaemon();
  for (int time = 0; time < test::scaled(100); ++time) {
    ASSERT_TRUE(isRefused());
  }
  EXPECT_TRUE(eventuallyLogs("refused a connection"));
  restartWithEntitlements();
}

TEST_F(APeer, ThatMayOnlyConnectGetsNothingDone) {
  entitle("root.plist", "{ User = 0; Entitlements = (CLIENT_ENTITLEMENT); }");
  startDaemon();
  EXPECT_TRUE(isTolerated());
  EXPECT_TRUE(eventuallyLogs("-[Kelvane clientCheckin:endpoint:info:reply:] Connection is not entitled!"));
  EXPECT_TRUE(eventuallyLogs("-[Kelvane clientPurge:replyBlock:] Connection is not entitled!"));
  restartWithEntitlements();
}

TEST_F(APeer, ForWhomOnlyDamagedRulesSpeakIsRefused) {
  std::filesystem::remove(std::string(test::entitlementRules) + "root.plist");
  entitle("cut.plist", "{ User = 0; Entitlements = (CLIENT_ENTITLEMENT");
  entitle("long.plist", "{ User = 0; Entitlements = (CLIENT_ENTITLEMENT); }" + std::string(test::mebibyte, ' '));
  entitle("array.plist", "(CLIENT_ENTITLEMENT)");
  entitle("everybody.plist", "{ Entitlements = (CLIENT_ENTITLEMENT); }");
  entitle("string.plist", "{ User = 0; Entitlements = CLIENT_ENTITLEMENT; }");
  entitle("list.plist", "{ User = (0); Entitlements = (CLIENT_ENTITLEMENT); }");
  entitle("more.plist", "{ User = 0; Hour = 12; Entitlements = (CLIENT_ENTITLEMENT); }");
  ASSERT_EQ(mkfifo((std::string(test::entitlementRules) + "fifo.plist").c_str(), 0644), 0);
  std::filesystem::create_symlink("circle.plist", std::string(test::entitlementRules) + "circle.plist");
  startDaemon();
  EXPECT_TRUE(isRefused());
  std::filesystem::remove_all(test::entitlementRules);
  restartWithEntitlements();
}

/// Of which the sandbox has one only where this system's root runs the test.
class AnotherUser : public APeer {
 protected:
  void SetUp() override {
    if (!test::hasOtherUsers()) {
      GTEST_SKIP() << "Without this system's root there is but one user";
    }
    APeer::SetUp();
  }
  void TearDown() override {
    if (!IsSkipped()) {
      APeer::TearDown();
    }
  }
  void startFor(const std::string& entitlements) {
    entitle("other.plist",
            "{ User = " + std::to_string(test::otherUser) + "; Entitlements = (" + entitlements + "); }");
    startDaemon();
  }
};

TEST_F(AnotherUser, WithoutEntitlementIsRefused) {
  startFor("");
  EXPECT_TRUE(OtherUser(isRefused).succeeds());
}

TEST_F(AnotherUser, ThatMayOnlyConnectGetsNothingDone) {
  startFor("CLIENT_ENTITLEMENT");
  EXPECT_TRUE(OtherUser(isTolerated).succeeds());
}

TEST_F(AnotherUser, CannotReachTheServiceManagersDoor) {
  startFor("CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT");
  EXPECT_TRUE(OtherUser([] { return test::connectedSocket(test::controlSocket) < 0; }).succeeds());
}

TEST_F(AnotherUser, WithAllConnectionsItMayHaveTakesNobodyElses) {
  startFor("CLIENT_ENTITLEMENT");
  OtherUser other([] {
    static std::deque<RawConnection> connections(limits::connectionsPerUser + 100);
    int served = 0;
    for (RawConnection& connection : connections) {
      served += connection.shakeHands() ? 1 : 0;
    }
    return served == limits::connectionsPerUser;
  });
  EXPECT_TRUE(other.succeeds());
  purgeForAnotherClient();
}

TEST_F(AnotherUser, WhoseRequestsFillAllMemoryItMayHaveTakesNobodyElses) {
  startFor("CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT");
  OtherUser other([] {
    // They wait for one another, and with them what they hold.
    static std::deque<Client> clients(4);
    for (Client& client : clients) {
      for (int purge = 0; purge < 10; ++purge) {
        const auto request = purgeOf(test::mebibyte, {{"Extra", test::dataOf(test::mebibyte)}});
        if (!client.send("clientPurge", request)) {
          return false;
        }
      }
    }
    const test::Message answer = clients.back().nextAnswer();
    return answer && sd_bus_message_is_method_error(answer.get(), SD_BUS_ERROR_LIMITS_EXCEEDED) > 0;
  });
  EXPECT_TRUE(other.succeeds());
  EXPECT_TRUE(Client().isServed());
  // Its purges would go on for a while.
  restartWithEntitlements();
}

TEST_F(AnotherUser, WithAllMessagesIncompleteThatItMayHaveTakesNobodyElses) {
  startFor("CLIENT_ENTITLEMENT");
  OtherUser other([] {
    static std::deque<RawConnection> connections(limits::partialMessagesPerUser + 1);
    for (RawConnection& connection : connections) {
      if (!connection.shakeHands() || !connection.send("l\1")) {
        return false;
      }
    }
    return connections.back().ends();
  });
  EXPECT_TRUE(other.succeeds());
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  ASSERT_TRUE(connection.send("l\1"));
}

}  // namespace
}  // namespace kelvane
