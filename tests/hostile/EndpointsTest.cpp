// SPDX-License-Identifier: Apache-2.0
// Endpoints that lead nowhere, or to somebody who does not speak.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <random>

#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

using test::Client;
using test::Service;
using testing::HasSubstr;

constexpr char hostile[] = "com.example.hostile";

/// Both ends of a connection.
struct Pair {
  explicit Pair(int type = SOCK_STREAM) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
    first = FileDescriptor(ends[0]);
    second = FileDescriptor(ends[1]);
  }
  FileDescriptor first;
  FileDescriptor second;
};

class AnEndpoint : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    startDaemon();
  }

  /// Checks in with the descriptor, and expects an error that says this.
  static void expectRefusal(const FileDescriptor& endpoint, const std::string& reason) {
    ASSERT_TRUE(endpoint);
    Client client;
    const auto answer = client.call("clientCheckin", test::checkin(hostile, endpoint.get(), test::purging()));
    EXPECT_EQ(answer.error, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_THAT(answer.text, HasSubstr(reason));
    EXPECT_TRUE(client.isServed());
  }
};

TEST_F(AnEndpoint, ThatIsNoSocketIsRefused) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor reading(ends[0]);
  const FileDescriptor writing(ends[1]);
  expectRefusal(reading, "is no socket");
  expectRefusal(writing, "is no socket");
  expectRefusal(FileDescriptor(open("/dev/zero", O_RDWR | O_CLOEXEC)), "is no socket");
  expectRefusal(FileDescriptor(open("/proc/self/mem", O_RDONLY | O_CLOEXEC)), "is no socket");
  expectRefusal(FileDescriptor(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), "is no socket");
  expectRefusal(FileDescriptor(open("/", O_PATH | O_CLOEXEC)), "is no socket");
  expectRefusal(FileDescriptor(open(test::daemonSocket, O_PATH | O_CLOEXEC)), "is no socket");
  expectRefusal(FileDescriptor(epoll_create1(EPOLL_CLOEXEC)), "is no socket");
  expectRefusal(FileDescriptor(memfd_create("endpoint", MFD_CLOEXEC)), "is no socket");
}

TEST_F(AnEndpoint, ThatIsAnotherKindOfSocketIsRefused) {
  expectRefusal(Pair(SOCK_DGRAM).first, "is no AF_UNIX stream socket");
  expectRefusal(Pair(SOCK_SEQPACKET).first, "is no AF_UNIX stream socket");
  expectRefusal(FileDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), "is no AF_UNIX stream socket");
  expectRefusal(FileDescriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), "is no AF_UNIX stream socket");
  expectRefusal(FileDescriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0)), "is no AF_UNIX stream socket");
}

TEST_F(AnEndpoint, ThatIsNotConnectedIsRefused) {
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  expectRefusal(socket, "is not connected");
  // Under a name that the kernel chooses.
  const sockaddr anyName{.sa_family = AF_UNIX, .sa_data = {}};
  ASSERT_EQ(bind(socket.get(), &anyName, sizeof anyName.sa_family), 0);
  ASSERT_EQ(listen(socket.get(), 1), 0);
  expectRefusal(socket, "is not connected");
}

TEST_F(AnEndpoint, WhoseOtherEndIsClosedIsRefused) {
  Pair closed;
  closed.second = FileDescriptor();
  expectRefusal(closed.first, "has hung up");
  const Pair half;
  ASSERT_EQ(shutdown(half.second.get(), SHUT_WR), 0);
  expectRefusal(half.first, "has hung up");
}

TEST_F(AnEndpoint, ThatSpeaksGarbageAfterItsPongIsDropped) {
  std::mt19937 random(1);
  for (int round = 0; round < 20; ++round) {
    Service service(hostile);
    service.checkIn();
    std::string garbage(1 + random() % 5'000, '\0');
    for (char& byte : garbage) {
      byte = static_cast<char>(random());
    }
    service.sendBytes(garbage);
    // Garbage may look like the start of a message; so the end comes from here at the latest.
    service.hangUp();
  }
}

TEST_F(AnEndpoint, ThatSaysItWillSendMoreThanAMessageCanHoldIsDropped) {
  Service service(hostile);
  service.checkIn();
  test::WireBytes header;
  header.append(std::string("l\2\1\1\xff\xff\xff\xff\1\0\0\0\xff\xff\xff\xff", 16));
  service.sendBytes(header.bytes());
  EXPECT_EQ(service.bus().nextCall(), nullptr);
}

TEST_F(AnEndpoint, ThatCallsTheDaemonInsteadOfServingItIsLeftUnanswered) {
  Service service(hostile);
  service.checkIn();
  for (int call = 0; call < 100; ++call) {
    service.sendBytes(test::WireCall().bytes());
  }
  Client client;
  ASSERT_TRUE(client.send("clientPurge", test::purgeOf(test::mebibyte, {test::untilAnswered()})));
  service.bus().answer(service.expect("servicePurge"), test::reply({{keys::amount, 3}}));
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(3));
}

TEST_F(AnEndpoint, ThatLeadsToTheDaemonItselfIsAServiceThatGivesNothing) {
  expectServicesThatCannotBeCalled();
  const FileDescriptor endpoint(test::connectedSocket(test::daemonSocket));
  Client client;
  ASSERT_TRUE(client.send("clientCheckin", test::checkin(hostile, endpoint.get(), test::purging())));
  // An error is an answer too, even to a ping.
  EXPECT_EQ(client.nextResult()[keys::id], Value(hostile));
  // Its error may come late enough to be the purge's last word; what counts is what the volume has gained.
  const std::uint64_t before = test::availableBytes();
  EXPECT_EQ(client.call("clientPurge", test::purgeOf(test::mebibyte)).error, "");
  EXPECT_EQ(test::availableBytes(), before);
  EXPECT_TRUE(client.isServed());
}

TEST_F(AnEndpoint, OfAServiceThatIsKnownAlreadyIsClosed) {
  Service service(hostile);
  service.checkIn();
  const std::size_t before = daemon_.openDescriptors();
  for (int round = 0; round < 100; ++round) {
    Service second(hostile);
    second.beginCheckIn();
    EXPECT_EQ(second.endCheckIn()[keys::id], Value(hostile));
    EXPECT_EQ(second.bus().nextCall(), nullptr);
  }
  EXPECT_LE(daemon_.openDescriptors(), before + test::ownDescriptors);
}

TEST_F(AnEndpoint, ComesAndGoesWithoutLeavingAnything) {
  Service(hostile).checkIn();
  Client client;
  ASSERT_TRUE(client.isServed());
  const std::size_t before = daemon_.openDescriptors();
  for (int round = 0; round < test::scaled(1'000); ++round) {
    Service(hostile).checkIn();
  }
  ASSERT_TRUE(client.isServed());
  EXPECT_LE(daemon_.openDescriptors(), before + test::ownDescriptors);
}

}  // namespace
}  // namespace kelvane
