// SPDX-License-Identifier: Apache-2.0
// Endpoints among the arguments of requests.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/Limits.h"
#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;
using test::SampleCaller;
using test::SampleListener;
using testing::EndsWith;
namespace sample = test::sample;

struct SocketPair {
  explicit SocketPair(int type = SOCK_STREAM) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
    near = FileDescriptor(ends[0]);
    far = FileDescriptor(ends[1]);
  }
  FileDescriptor near;
  FileDescriptor far;
};

bool hasHungUp(int fd) {
  pollfd state{.fd = fd, .events = POLLRDHUP, .revents = 0};
  return poll(&state, 1, std::chrono::milliseconds(test::patience).count()) == 1;
}

class AnEndpoint : public testing::Test {
 protected:
  AnEndpoint() { listener.resume(); }

  RawClient::Answer attach(int fd) {
    RawClient client(listener.path());
    return client.call(
        "attach", [fd](sd_bus_message* message) { return sd_bus_message_append(message, "sha{sv}", "name", fd, 0); });
  }
  void expectRefused(int fd, const std::string& why) {
    const auto answer = attach(fd);
    EXPECT_EQ(answer.error, SD_BUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(answer.text, "attach: argument \"endpoint\" " + why);
  }
  bool send(RawClient& client, int fd) {
    return client.send(
        "attach", [fd](sd_bus_message* message) { return sd_bus_message_append(message, "sha{sv}", "name", fd, 0); });
  }

  SampleListener listener;
};

TEST_F(AnEndpoint, IsNoFileAndNoPipe) {
  const FileDescriptor file(open("/dev/null", O_RDWR | O_CLOEXEC));
  expectRefused(file.get(), "is no socket");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor reading(ends[0]);
  const FileDescriptor writing(ends[1]);
  expectRefused(writing.get(), "is no socket");
  EXPECT_EQ(listener.requests().size(), 0U);
}

TEST_F(AnEndpoint, IsAnAfUnixStreamSocket) {
  const FileDescriptor internet(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  expectRefused(internet.get(), "is no AF_UNIX stream socket");
  const SocketPair datagrams(SOCK_DGRAM);
  expectRefused(datagrams.near.get(), "is no AF_UNIX stream socket");
  const SocketPair packets(SOCK_SEQPACKET);
  expectRefused(packets.near.get(), "is no AF_UNIX stream socket");
}

TEST_F(AnEndpoint, IsConnected) {
  const FileDescriptor unconnected(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  expectRefused(unconnected.get(), "is not connected");
  const FileDescriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un anywhere{.sun_family = AF_UNIX, .sun_path = {}};
  ASSERT_EQ(bind(listening.get(), reinterpret_cast<sockaddr*>(&anywhere), sizeof(sa_family_t)), 0);
  ASSERT_EQ(listen(listening.get(), 1), 0);
  expectRefused(listening.get(), "is not connected");
}

TEST_F(AnEndpoint, HasNotHungUp) {
  SocketPair pair;
  pair.far = FileDescriptor();
  expectRefused(pair.near.get(), "has hung up");
  SocketPair half;
  ASSERT_EQ(shutdown(half.far.get(), SHUT_WR), 0);
  expectRefused(half.near.get(), "has hung up");
  EXPECT_EQ(listener.requests().size(), 0U);
}

TEST_F(AnEndpoint, IsClosedWhenNobodyWantsIt) {
  SocketPair pair;
  RawClient client(listener.path());
  ASSERT_TRUE(send(client, pair.near.get()));
  pair.near = FileDescriptor();
  ASSERT_TRUE(listener.take());
  EXPECT_TRUE(hasHungUp(pair.far.get()));
}

TEST_F(AnEndpoint, StaysOpenWhileItIsHeld) {
  SocketPair pair;
  RawClient client(listener.path());
  ASSERT_TRUE(send(client, pair.near.get()));
  pair.near = FileDescriptor();
  std::optional<ipc::Endpoint> endpoint = listener.take()->endpoint(1);
  test::settleEventLoop();
  pollfd state{.fd = pair.far.get(), .events = POLLRDHUP, .revents = 0};
  EXPECT_EQ(poll(&state, 1, 0), 0);
  endpoint.reset();
  EXPECT_TRUE(hasHungUp(pair.far.get()));
}

TEST_F(AnEndpoint, LetsTheDaemonCallTheServiceThatHandedItIn) {
  const auto service = ipc::Listener::anonymous(
      sample::interface, [](const ipc::Request& request) { request.reply.send(Value("served")); });
  ASSERT_FALSE(service.resume());
  SampleCaller client(ipc::connectAt(listener.path()));
  client.connection().resume();
  client.call(sample::attach, {Value("name"), *service.endpoint(), Value(Value::Dictionary{})});
  auto request = listener.take();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->value(0), Value("name"));
  SampleCaller daemon(ipc::Connection::toEndpoint(request->endpoint(1)));
  request.reset();
  daemon.connection().resume();
  EXPECT_EQ(daemon.ask(sample::work, {Value(1), Value()}), Value("served"));
}

TEST_F(AnEndpoint, MakesOneConnection) {
  const auto service =
      ipc::Listener::anonymous(sample::interface, [](const ipc::Request& request) { request.reply.send(); });
  ASSERT_FALSE(service.resume());
  const ipc::Endpoint endpoint = *service.endpoint();
  SampleCaller first(ipc::Connection::toEndpoint(endpoint));
  SampleCaller second(ipc::Connection::toEndpoint(endpoint));
  first.connection().resume();
  second.connection().resume();
  EXPECT_EQ(second.ends().take(), "interruption");
  EXPECT_EQ(first.ask(sample::ping, {}), Value());
}

TEST_F(AnEndpoint, IsRefusedBeyondTheLimit) {
  RawClient client(listener.path());
  SocketPair pair;
  // Unanswered requests are limited to far fewer, so the endpoints are kept and the requests answered.
  std::vector<ipc::Endpoint> held;
  for (int number = 0; number < limits::endpoints; ++number) {
    ASSERT_TRUE(send(client, pair.near.get()));
    auto request = listener.take();
    ASSERT_TRUE(request);
    held.push_back(request->endpoint(1));
    request->reply.send();
  }
  const auto answer = attach(pair.near.get());
  EXPECT_EQ(answer.error, SD_BUS_ERROR_LIMITS_EXCEEDED);
  EXPECT_THAT(answer.text, EndsWith("is one endpoint too many"));
  held.pop_back();
  ASSERT_TRUE(send(client, pair.near.get()));
  EXPECT_TRUE(listener.take());
}

TEST_F(AnEndpoint, CountsAgainstTheLimitUntilItsConnectionEnds) {
  RawClient client(listener.path());
  std::vector<SocketPair> pairs(2);
  std::vector<ipc::Endpoint> held;
  for (int number = 0; number < limits::endpoints; ++number) {
    ASSERT_TRUE(send(client, pairs[number == 0 ? 0 : 1].near.get()));
    auto request = listener.take();
    ASSERT_TRUE(request);
    held.push_back(request->endpoint(1));
    request->reply.send();
  }
  SampleCaller connection(ipc::Connection::toEndpoint(held.front()));
  held.erase(held.begin());
  connection.connection().resume();
  EXPECT_EQ(attach(pairs[1].near.get()).error, SD_BUS_ERROR_LIMITS_EXCEEDED);
  connection.connection().invalidate();
  EXPECT_EQ(connection.ends().take(), "invalidation");
  ASSERT_TRUE(send(client, pairs[1].near.get()));
  EXPECT_TRUE(listener.take());
}

}  // namespace
}  // namespace kelvane
