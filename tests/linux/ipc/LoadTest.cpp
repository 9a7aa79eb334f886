// SPDX-License-Identifier: Apache-2.0
// Many connections, and peers that do not behave.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>

#include "platform/Limits.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;
using test::SampleListener;
namespace sample = test::sample;

void answer(const ipc::Request& request) {
  request.reply.send();
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for (int fd = 0; fd < 65536; ++fd) {
    count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  }
  return count;
}

TEST(ManyConnections, OneAfterTheOtherLeaveNothingBehind) {
  SampleListener listener(answer);
  listener.resume();
  EXPECT_EQ(RawClient(listener.path()).call("ping").error, "");
  test::settleEventLoop();
  const std::size_t before = openDescriptors();
  for (int connection = 0; connection < 5000; ++connection) {
    ASSERT_EQ(RawClient(listener.path()).call("ping").error, "");
  }
  EXPECT_TRUE(test::eventually([before] { return openDescriptors() <= before; }));
}

TEST(ManyConnections, AtOnceAreServedUpToTheUsersLimit) {
  SampleListener listener(answer);
  listener.resume();
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GT(limit.rlim_cur, 2 * limits::connectionsPerUser + 100U) << "The test needs descriptors for both ends";
  std::deque<RawClient> clients;
  for (int connection = 0; connection < limits::connectionsPerUser; ++connection) {
    clients.emplace_back(listener.path());
    ASSERT_EQ(clients.back().call("ping").error, "") << connection;
  }
  EXPECT_NE(RawClient(listener.path()).call("ping").error, "");
  EXPECT_EQ(clients.front().call("ping").error, "");
  clients.pop_front();
  EXPECT_TRUE(test::eventually([&listener] { return RawClient(listener.path()).call("ping").error.empty(); }));
}

TEST(APeerThatDoesNotRead, IsDropped) {
  const auto large = std::make_shared<std::string>(limits::requestBytes / 2, 'x');
  test::Mailbox<bool> ended;
  SampleListener listener([large](const ipc::Request& request) { request.reply.send(Value(*large)); });
  listener.listener().setDisconnectHandler([&ended](const ipc::Connection&) { ended.put(true); });
  listener.resume();
  RawClient client(listener.path());
  const auto one = [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "i", 1); };
  ASSERT_EQ(client.call("echo", one).error, "");
  const auto most = static_cast<int>(limits::unsentBytesPerConnection / large->size());
  for (int request = 0; request < most + 2; ++request) {
    ASSERT_TRUE(client.send("echo", one));
  }
  EXPECT_TRUE(ended.take());
}

TEST(APeerThatDoesNotRead, IsDroppedForManyShortAnswers) {
  test::Mailbox<bool> ended;
  SampleListener listener(answer);
  listener.listener().setDisconnectHandler([&ended](const ipc::Connection&) { ended.put(true); });
  listener.resume();
  RawClient client(listener.path());
  ASSERT_EQ(client.call("ping").error, "");
  bool sent = true;
  for (int ping = 0; sent && ping < 100'000 && ended.size() == 0; ++ping) {
    sd_bus_message* message = nullptr;
    std::uint64_t cookie = 0;
    ASSERT_GE(sd_bus_message_new_method_call(client.bus(), &message, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping"),
              0);
    sent = sd_bus_send(client.bus(), message, &cookie) >= 0 && sd_bus_flush(client.bus()) >= 0;
    sd_bus_message_unref(message);
  }
  EXPECT_TRUE(ended.take());
}

TEST(APeerThatEndsNoMessage, IsDroppedWhenThatGrowsTooLong) {
  test::Mailbox<bool> ended;
  SampleListener listener(answer);
  listener.listener().setDisconnectHandler([&ended](const ipc::Connection&) { ended.put(true); });
  listener.resume();
  RawClient client(listener.path());
  ASSERT_EQ(client.call("ping").error, "");
  // The start of a call of 64 MiB.
  const std::uint8_t header[16] = {'l', 1, 0, 1, 0, 0, 0, 4, 99, 0, 0, 0, 16, 0, 0, 0};
  ASSERT_EQ(send(client.socket(), header, sizeof header, MSG_NOSIGNAL), 16);
  const std::string part(64 * 1024, '\0');
  std::size_t sent = 0;
  while (sent < 3 * limits::requestBytes) {
    const ssize_t size = send(client.socket(), part.data(), part.size(), MSG_NOSIGNAL);
    if (size < 0) {
      ASSERT_TRUE(errno == EAGAIN || errno == EPIPE || errno == ECONNRESET);
      if (errno != EAGAIN) {
        break;
      }
    } else {
      sent += static_cast<std::size_t>(size);
    }
  }
  EXPECT_TRUE(ended.take());
}

TEST(PeersThatEndNoMessage, AreDroppedWhenThereAreTooMany) {
  test::Mailbox<bool> ended;
  SampleListener listener(answer);
  listener.listener().setDisconnectHandler([&ended](const ipc::Connection&) { ended.put(true); });
  listener.resume();
  std::deque<RawClient> clients;
  for (int peer = 0; peer <= limits::partialMessagesPerUser; ++peer) {
    EXPECT_EQ(ended.size(), 0U);
    clients.emplace_back(listener.path());
    ASSERT_EQ(clients.back().call("ping").error, "");
    ASSERT_EQ(send(clients.back().socket(), "l", 1, MSG_NOSIGNAL), 1);
    test::settleEventLoop();
  }
  EXPECT_TRUE(ended.take());
}

TEST(APeerThatSpeaksNoDBus, IsDropped) {
  test::Mailbox<bool> ended;
  SampleListener listener(answer);
  listener.listener().setDisconnectHandler([&ended](const ipc::Connection&) { ended.put(true); });
  listener.resume();
  const FileDescriptor socket(test::connectedSocket(listener.path()));
  ASSERT_GT(send(socket.get(), "GET / HTTP/1.1\r\n\r\n", 18, MSG_NOSIGNAL), 0);
  EXPECT_TRUE(ended.take());
}

TEST(RequestsBeyondWhatIsDeliveredAtOnce, WaitWithoutHoldingUpOtherKinds) {
  SampleListener listener;
  listener.resume();
  // Fewer on each connection than may be unanswered; handlers return at once, so these count until answered.
  constexpr int each = limits::unansweredRequestsPerConnection / 2;
  constexpr int connections = limits::deliveredPerKindAndUser / each + 1;
  std::deque<RawClient> clients;
  const auto number = [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "i", 1); };
  for (int connection = 0; connection < connections; ++connection) {
    clients.emplace_back(listener.path());
    for (int request = 0; request < each; ++request) {
      ASSERT_TRUE(clients.back().send("echo", number));
    }
  }
  std::deque<ipc::Request> taken;
  for (int request = 0; request < limits::deliveredPerKindAndUser; ++request) {
    auto next = listener.take();
    ASSERT_TRUE(next);
    taken.push_back(*next);
  }
  test::settleEventLoop();
  EXPECT_EQ(listener.requests().size(), 0U);
  RawClient other(listener.path());
  ASSERT_TRUE(other.send("ping"));
  EXPECT_EQ(listener.take()->operation.member, "ping");
  taken.clear();
  for (int request = 0; request < each; ++request) {
    EXPECT_TRUE(listener.take());
  }
}

}  // namespace
}  // namespace kelvane
