// SPDX-License-Identifier: Apache-2.0
// Clients that send, connect or hold too much.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>

#include <csignal>
#include <deque>

#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/RawConnection.h"
#include "tests/hostile/WireMessage.h"
#include "tests/linux/testing/Eventually.h"

namespace kelvane {
namespace {

using test::Client;
using test::eventually;
using test::MessageCounter;
using test::purgeOf;
using test::RawConnection;
using test::scaled;
using test::WireCall;

class AClient : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    startDaemon();
  }
};

TEST_F(AClient, ThatSendsRequestsWithoutWaitingHasEachAnswered) {
  const int count = scaled(100'000);
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  std::string requests;
  for (int request = 1; request <= count; ++request) {
    requests += WireCall{.serial = static_cast<std::uint32_t>(request)}.bytes();
  }
  MessageCounter answers;
  for (std::string_view unsent = requests; answers.count() < count;) {
    const auto sent = connection.trySend(unsent);
    ASSERT_TRUE(sent) << "after " << answers.count() << " answers";
    unsent.remove_prefix(*sent);
    pollfd state{.fd = connection.socket(), .events = POLLIN, .revents = 0};
    if (unsent.empty() || *sent == 0 || poll(&state, 1, 0) == 1) {
      answers.take(connection.receive());
    }
  }
  EXPECT_EQ(answers.count(), count);
}

TEST_F(AClient, ThatWantsNoAnswersIsServedToo) {
  const int count = scaled(100'000);
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  const std::string request = WireCall{.expectsReply = false}.bytes();
  for (int sent = 0; sent < count; ++sent) {
    ASSERT_TRUE(connection.send(request));
  }
  ASSERT_TRUE(connection.send(WireCall().bytes()));
  MessageCounter answers;
  answers.take(connection.receive());
  EXPECT_EQ(answers.count(), 1);
}

TEST_F(AClient, ThatSendsAndNeverReadsIsDropped) {
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  std::string requests;
  for (int request = 0; request < 100; ++request) {
    requests += WireCall().bytes();
  }
  // Each answer counts, so there is an end to what can be sent.
  std::size_t sent = 0;
  while (connection.send(requests)) {
    sent += requests.size();
    ASSERT_LT(sent, 100 * limits::unsentBytesPerConnection);
  }
  EXPECT_TRUE(connection.ends());
}

TEST_F(AClient, ThatSendsLongRequestsAndNeverReadsIsDropped) {
  Client client;
  const auto resident = daemon_.residentBytes();
  // The info comes back, for its amount is no number.
  const auto request = purgeOf(0, {{keys::amount, "none"}, {"Extra", test::dataOf(limits::requestBytes - 64 * 1024)}});
  bool sent = true;
  for (int count = 0; sent; ++count) {
    ASSERT_LT(count, 100);
    sent = client.send("clientPurge", request);
  }
  EXPECT_LT(daemon_.residentBytes(), resident + 128 * test::mebibyte);
}

TEST_F(AClient, ThatNeverReadsHoldsUpNobody) {
  std::deque<RawConnection> connections(50);
  for (RawConnection& connection : connections) {
    ASSERT_TRUE(connection.shakeHands());
    std::string requests;
    for (int request = 0; request < 1'000; ++request) {
      requests += WireCall().bytes();
    }
    ASSERT_TRUE(connection.send(requests));
  }
  purgeForAnotherClient();
}

TEST_F(AClient, WithALongInfoCostsNoServiceItsPlace) {
  std::deque<test::BehavingService> services;
  for (int number = 0; number < 40; ++number) {
    services.emplace_back("com.example.service" + std::to_string(number), 16 * 4096);
  }
  // Each of them gets it, all at once.
  EXPECT_TRUE(Client().purge(purgeOf(test::mebibyte, {{"Extra", test::dataOf(512 * 1024)}})).isDictionary());
}

TEST_F(AClient, ThatHasManyPurgesWaitHoldsUpNoCheckIn) {
  // Each holds its place until the pass is over.
  Client client;
  for (int purge = 0; purge < limits::unansweredRequestsPerConnection; ++purge) {
    ASSERT_TRUE(client.send("clientPurge", purgeOf(test::mebibyte, {{keys::purgeTimeout, 300}})));
  }
  std::deque<Client> more(3);
  for (Client& another : more) {
    for (int purge = 0; purge < limits::unansweredRequestsPerConnection; ++purge) {
      ASSERT_TRUE(another.send("clientPurge", purgeOf(test::mebibyte, {{keys::purgeTimeout, 300}})));
    }
  }
  test::Service service("com.example.late");
  service.checkIn();
  EXPECT_TRUE(Client().isServed());
  // There is no way to take back what waits for 300 seconds but to begin anew.
  daemon_.send(SIGTERM);
  EXPECT_EQ(daemon_.wait(), "exit 0");
  startDaemon();
}

class ManyConnections : public AClient {
 protected:
  void SetUp() override {
    AClient::SetUp();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GT(limit.rlim_cur, 5'100U) << "The test needs descriptors for its connections";
    ASSERT_TRUE(Client().isServed());
    descriptors_ = daemon_.openDescriptors();
  }
  [[nodiscard]] bool eventuallyAllAreGone() {
    return eventually([this] { return daemon_.openDescriptors() <= descriptors_ + test::ownDescriptors; });
  }

 private:
  std::size_t descriptors_ = 0;
};

TEST_F(ManyConnections, OneAfterTheOtherAreServed) {
  for (int connection = 0; connection < scaled(5'000); ++connection) {
    ASSERT_TRUE(Client().isServed()) << connection;
  }
  EXPECT_TRUE(eventuallyAllAreGone());
}

TEST_F(ManyConnections, AtOnceAreServedUpToTheUsersLimit) {
  std::deque<RawConnection> connections(5'000);
  int served = 0;
  for (RawConnection& connection : connections) {
    served += connection.shakeHands() ? 1 : 0;
  }
  EXPECT_LE(served, limits::connectionsPerUser);
  // Connections of before may still have been on their way out.
  EXPECT_GE(served, limits::connectionsPerUser - 4);
  EXPECT_FALSE(Client().isServed());
  connections.clear();
  EXPECT_TRUE(eventuallyAllAreGone());
}

TEST_F(ManyConnections, ThatComeAndGoAtOnceLeaveNothingBehind) {
  for (int connection = 0; connection < scaled(5'000); ++connection) {
    const RawConnection shortLived;
  }
  EXPECT_TRUE(eventuallyAllAreGone());
}

TEST_F(ManyConnections, ThatEndInTheMiddleOfARequestLeaveNothingBehind) {
  const std::string request = WireCall().bytes();
  for (std::size_t size = 0; size < request.size(); ++size) {
    RawConnection connection;
    ASSERT_TRUE(connection.shakeHands());
    ASSERT_TRUE(connection.send(request.substr(0, size)));
  }
  EXPECT_TRUE(eventuallyAllAreGone());
}

TEST_F(ManyConnections, ThatEndBeforeTheirAnswersLeaveNothingBehind) {
  const std::string request = WireCall().bytes();
  for (int count = 0; count < scaled(2'000); ++count) {
    RawConnection connection;
    ASSERT_TRUE(connection.shakeHands());
    ASSERT_TRUE(connection.send(request + request + request));
  }
  EXPECT_TRUE(eventuallyAllAreGone());
}

}  // namespace
}  // namespace kelvane
