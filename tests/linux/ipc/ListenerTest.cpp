// SPDX-License-Identifier: Apache-2.0
// Listeners: their sockets, whom they admit and what they tell about connections.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include "platform/Queues.h"
#include "platform/linux/ipc/EventLoop.h"
#include "platform/linux/ipc/ListeningSocket.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;
using test::SampleListener;
using test::TemporaryDirectory;
using testing::HasSubstr;
using testing::Not;
namespace sample = test::sample;

std::optional<ipc::ListeningSocket> listeningAt(const std::string& path, std::string* error = nullptr) {
  auto made = ipc::ListeningSocket::at(path, 0640);
  if (auto* refused = std::get_if<ipc::ListeningSocket::Error>(&made)) {
    if (error != nullptr) {
      *error = refused->text;
    }
    return std::nullopt;
  }
  return std::get<ipc::ListeningSocket>(std::move(made));
}

bool isReachable(const std::string& path) {
  const FileDescriptor socket(test::connectedSocket(path));
  return static_cast<bool>(socket);
}

TEST(AListeningSocket, HasTheModeItIsGivenInDirectoriesThatEveryoneMayEnter) {
  const TemporaryDirectory directory;
  const mode_t before = umask(0077);
  const auto socket = listeningAt(directory.path("a/b/socket"));
  umask(before);
  ASSERT_TRUE(socket);
  struct stat status {};
  ASSERT_EQ(stat(directory.path("a/b/socket").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  ASSERT_EQ(stat(directory.path("a/b").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755U);
  EXPECT_TRUE(isReachable(directory.path("a/b/socket")));
}

TEST(AListeningSocket, IsRemovedWithItsDirectoryEntry) {
  const TemporaryDirectory directory;
  auto socket = listeningAt(directory.path("socket"));
  socket.reset();
  EXPECT_NE(access(directory.path("socket").c_str(), F_OK), 0);
}

TEST(AListeningSocket, ReplacesOneThatNobodyListensAt) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("socket");
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  {
    const FileDescriptor left(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(left.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ASSERT_FALSE(isReachable(path));
  EXPECT_TRUE(listeningAt(path));
}

TEST(AListeningSocket, DoesNotTakeOneThatSomebodyListensAt) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("socket");
  const auto first = listeningAt(path);
  std::string error;
  EXPECT_FALSE(listeningAt(path, &error));
  EXPECT_THAT(error, HasSubstr("another process listens there"));
  EXPECT_TRUE(isReachable(path));
}

TEST(AListeningSocket, DoesNotReplaceAFile) {
  const TemporaryDirectory directory;
  std::ofstream(directory.path("file")) << "precious";
  std::string error;
  EXPECT_FALSE(listeningAt(directory.path("file"), &error));
  EXPECT_THAT(error, HasSubstr("is no socket"));
  EXPECT_EQ(access(directory.path("file").c_str(), F_OK), 0);
}

TEST(AListeningSocket, LeavesNothingBehindWhenItCannotBeMade) {
  const TemporaryDirectory directory;
  std::string error;
  EXPECT_FALSE(listeningAt(directory.path(std::string(120, 'x')), &error));
  EXPECT_THAT(error, HasSubstr("too long"));
  EXPECT_FALSE(listeningAt("/proc/self/nowhere/socket", &error));
  EXPECT_THAT(error, HasSubstr("/proc/self/nowhere"));
  // What the system says of it depends on who asks, but is about the path.
  EXPECT_FALSE(listeningAt("/proc/self/socket", &error));
  EXPECT_THAT(error, HasSubstr("/proc/self/socket: "));
  EXPECT_THAT(error, Not(HasSubstr("Bad file descriptor")));
}

TEST(AListener, SaysWhyItCannotListen) {
  const TemporaryDirectory directory;
  const auto socket = listeningAt(directory.path("socket"));
  const auto listener = ipc::listenAt(directory.path("socket"), 0600, sample::interface, [](const ipc::Request&) {});
  const auto error = listener.resume();
  ASSERT_TRUE(error);
  EXPECT_THAT(*error, HasSubstr("another process listens there"));
}

TEST(AListener, RefusesNamesThatAreNone) {
  for (const char* name : {"", ".hidden", "a/b"}) {
    EXPECT_TRUE(ipc::Listener::named(name, sample::interface, [](const ipc::Request&) {}).resume()) << name;
  }
}

TEST(AListener, ServesOnlyWhomItAdmits) {
  test::Mailbox<std::string> asked;
  std::atomic<bool> admits = false;
  SampleListener listener([](const ipc::Request& request) { request.reply.send(); });
  listener.listener().setAdmission([&](const ipc::Peer& peer) {
    asked.put(peer.description());
    return admits.load();
  });
  listener.resume();
  EXPECT_NE(RawClient(listener.path()).call("ping").error, "");
  EXPECT_EQ(asked.take(), "pid " + std::to_string(getpid()) + ", uid " + std::to_string(getuid()));
  admits = true;
  EXPECT_EQ(RawClient(listener.path()).call("ping").error, "");
}

TEST(AListener, CutsOffWhomItDoesNotReadmit) {
  test::Mailbox<const void*> ended;
  std::atomic<int> refused = -1;
  std::atomic<int> asked = 0;
  SampleListener listener([](const ipc::Request& request) { request.reply.send(); });
  // All are of one process, so it goes by how many have been asked about.
  listener.listener().setAdmission([&](const ipc::Peer&) { return asked++ != refused; });
  listener.listener().setDisconnectHandler(
      [&](const ipc::Connection& connection) { ended.put(connection.identity()); });
  listener.resume();
  RawClient first(listener.path());
  RawClient second(listener.path());
  EXPECT_EQ(first.call("ping").error, "");
  EXPECT_EQ(second.call("ping").error, "");
  EXPECT_EQ(asked, 2);

  listener.listener().readmit();
  EXPECT_TRUE(test::eventually([&] { return asked == 4; }));
  EXPECT_EQ(first.call("ping").error, "");
  EXPECT_EQ(second.call("ping").error, "");

  refused = 4;
  listener.listener().readmit();
  EXPECT_TRUE(ended.take());
  test::settleEnds();
  EXPECT_EQ(asked, 6);
  EXPECT_EQ(ended.size(), 0U);
  EXPECT_NE(first.call("ping").error.empty(), second.call("ping").error.empty());
}

TEST(AListener, DecidesAgainAboutWhomItWasDecidingAboutWhenItReadmits) {
  test::Mailbox<bool> asking;
  const Semaphore decided(0);
  std::atomic<bool> hasChanged = false;
  SampleListener listener([](const ipc::Request& request) { request.reply.send(); });
  listener.listener().setAdmission([&](const ipc::Peer&) {
    const bool admits = !hasChanged;
    asking.put(admits);
    if (admits) {
      decided.wait();
    }
    return admits;
  });
  listener.resume();
  const RawClient client(listener.path());
  EXPECT_EQ(asking.take(), true);
  hasChanged = true;
  listener.listener().readmit();
  test::settleEventLoop();
  decided.signal();
  EXPECT_EQ(asking.take(), false) << "it was admitted by what no longer held";
}

TEST(AListener, TellsOnceWhichConnectionHasEnded) {
  test::Mailbox<const void*> ended;
  SampleListener listener;
  listener.listener().setDisconnectHandler(
      [&](const ipc::Connection& connection) { ended.put(connection.identity()); });
  listener.resume();
  auto client = std::make_optional<RawClient>(listener.path());
  ASSERT_TRUE(client->send("ping"));
  ASSERT_TRUE(client->send("ping"));
  const auto first = listener.take();
  const auto second = listener.take();
  EXPECT_EQ(first->connection.identity(), second->connection.identity());
  client.reset();
  EXPECT_EQ(ended.take(), first->connection.identity());
  first->reply.send();
  test::settleEnds();
  EXPECT_EQ(ended.size(), 0U);
}

TEST(AListener, StopsServingWithItsLastReference) {
  SampleListener listener;
  listener.resume();
  RawClient client(listener.path());
  ASSERT_TRUE(client.send("ping"));
  ASSERT_TRUE(client.send("ping"));
  const auto held = listener.take();
  listener.drop();
  EXPECT_EQ(client.nextReply(), 0U);
  EXPECT_TRUE(test::eventually([&] { return !isReachable(listener.path()); }));
  held->reply.send();
}

TEST(AListener, ServesTheEndpointsItHandedOutBeforeItWasResumed) {
  const auto listener =
      ipc::Listener::anonymous(sample::interface, [](const ipc::Request& request) { request.reply.send(); });
  test::SampleCaller caller(ipc::Connection::toEndpoint(*listener.endpoint()));
  caller.connection().resume();
  caller.call(sample::ping, {});
  test::settleEventLoop();
  EXPECT_EQ(caller.outcomes().size(), 0U);
  EXPECT_FALSE(listener.resume());
  EXPECT_TRUE(caller.outcomes().take()->reply);
}

TEST(AListener, LetsGoOfItsHandlersWhereThatMayTakeItsTime) {
  test::Mailbox<bool> gone;
  {
    const std::shared_ptr<int> held(new int(), [&gone](const int* number) {
      gone.put(!ipc::EventLoop::shared().isCurrent());
      delete number;
    });
    SampleListener listener([held](const ipc::Request& request) { request.reply.send(); });
    listener.listener().setAdmission([held](const ipc::Peer&) { return true; });
    listener.listener().setDisconnectHandler([held](const ipc::Connection&) {});
    listener.resume();
    EXPECT_EQ(RawClient(listener.path()).call("ping").error, "");
  }
  EXPECT_EQ(gone.take(), true);
}

}  // namespace
}  // namespace kelvane
