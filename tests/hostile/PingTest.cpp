// SPDX-License-Identifier: Apache-2.0
// A service that dies before it has answered its ping. What waits behind that ping waits for good, and only the
// service manager, whose watchdog goes unfed, can end it.
#include <poll.h>

#include <csignal>

#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"
#include "tests/linux/testing/DatagramSocket.h"

namespace kelvane {
namespace {

using test::Client;
using test::Message;
using test::purgeOf;
using test::Service;

constexpr char notifySocket[] = "/run/test/notify";
constexpr char fed[] = "WATCHDOG=1";

class APing : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    test::writeFile(std::string(test::descriptions) + "described",
                    "{ KELVANE_ID = \"com.example.described\"; KELVANE_SERVICES = (); }");
    manager_.emplace(notifySocket);
    startSupervised();
    service_.emplace("com.example.hostile");
  }
  void TearDown() override {
    service_.reset();
    HostileTest::TearDown();
  }

  Service& service() { return *service_; }
  [[nodiscard]] bool isFed() const { return manager_->receiveBeginningWith(fed) == fed; }

  /// Of before now.
  void forgetFeeding() const {
    while (!manager_->receive(0).empty()) {
    }
  }
  /// Returns when the watchdog has gone unfed for several times as long as it takes to feed it.
  void expectFeedingToStop() const {
    int late = 0;
    while (!manager_->receive(1'000).empty()) {
      ASSERT_LT(++late, 100) << "the watchdog is still being fed";
    }
  }

  /// All that waits behind the ping gets no answer, the rest does; then the service manager does its work.
  void expectTheQueueToBeHeld() {
    Client purger;
    Client canceller;
    Service another("com.example.another");
    ASSERT_TRUE(purger.send("clientPurge", purgeOf(test::mebibyte)));
    ASSERT_TRUE(canceller.send("clientCancelPurge", test::info({})));
    another.beginCheckIn();
    expectFeedingToStop();
    for (const int socket : {purger.socket(), canceller.socket(), another.bus().socket()}) {
      pollfd state{.fd = socket, .events = POLLIN, .revents = 0};
      EXPECT_EQ(poll(&state, 1, 0), 0);
    }
    Service described("com.example.described");
    described.beginCheckIn();
    EXPECT_TRUE(described.endCheckIn().isAbsent());
    EXPECT_NE(Client().call("clientPurge").error, "");

    daemon_.send(SIGKILL);
    EXPECT_EQ(daemon_.wait(), "signal 9");
    startSupervised();
    EXPECT_TRUE(isFed());
  }

 private:
  void startSupervised() {
    startDaemon({.environment = {std::string("NOTIFY_SOCKET=") + notifySocket, "WATCHDOG_USEC=100000"}});
  }

  std::optional<test::DatagramSocket> manager_;
  std::optional<Service> service_;
};

TEST_F(APing, ThatIsNeverReadHoldsTheQueue) {
  service().beginCheckIn();
  ASSERT_TRUE(service().bus().shakeHands());
  ASSERT_TRUE(service().bus().hasArrival());
  service().hangUp();
  expectTheQueueToBeHeld();
}

TEST_F(APing, ThatIsReadAndNotAnsweredHoldsTheQueue) {
  service().beginCheckIn();
  const Message ping = service().expect("servicePing");
  service().hangUp();
  expectTheQueueToBeHeld();
}

TEST_F(APing, WhoseAnswerIsCutShortHoldsTheQueue) {
  service().beginCheckIn();
  const Message ping = service().expect("servicePing");
  service().sendBytes(test::answerTo(1).substr(0, 20));
  service().hangUp();
  expectTheQueueToBeHeld();
}

TEST_F(APing, OfAServiceThatLivesAndDoesNotAnswerHoldsTheQueueUntilItDoes) {
  service().beginCheckIn();
  const Message ping = service().expect("servicePing");
  Client client;
  ASSERT_TRUE(client.send("clientCancelPurge", test::info({})));
  expectFeedingToStop();
  service().bus().answer(ping);
  EXPECT_EQ(service().endCheckIn()[keys::id], Value("com.example.hostile"));
  EXPECT_NE(client.nextAnswer(), nullptr);
  EXPECT_TRUE(isFed());
}

TEST_F(APing, ThatIsAnsweredLeavesTheWatchdogFedWhateverElseWaits) {
  service().checkIn();
  Client client;
  // The service holds its request and so the purge, and with it all other purges.
  ASSERT_TRUE(client.send("clientPurge", purgeOf(test::mebibyte, {{keys::purgeTimeout, 300}})));
  const Message call = service().expect("servicePurge");
  Client second;
  ASSERT_TRUE(second.send("clientPurge", purgeOf(test::mebibyte)));
  forgetFeeding();
  for (int time = 0; time < 5; ++time) {
    EXPECT_TRUE(isFed());
  }
  service().bus().answer(call, test::reply({}));
  EXPECT_TRUE(client.nextResult().isDictionary());
}

}  // namespace
}  // namespace kelvane
