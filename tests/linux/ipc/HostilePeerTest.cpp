// SPDX-License-Identifier: Apache-2.0
// Peers that write what no library would.
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <ctime>
#include <deque>

#include "platform/Limits.h"
#include "platform/Queues.h"
#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/Handshake.h"
#include "platform/linux/ipc/Hub.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;
using test::SampleCaller;
using test::SampleListener;
using testing::HasSubstr;
namespace sample = test::sample;

constexpr std::uint8_t methodCall = 1;
constexpr std::uint8_t methodReturn = 2;

void pad(std::string& bytes, std::size_t alignment) {
  bytes.resize((bytes.size() + alignment - 1) / alignment * alignment, '\0');
}

void addNumber(std::string& bytes, std::uint32_t number) {
  pad(bytes, 4);
  bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
}

void addField(std::string& fields, char code, char type, const std::string& text) {
  pad(fields, 8);
  fields += code;
  fields += std::string("\1") + type + '\0';
  addNumber(fields, static_cast<std::uint32_t>(text.size()));
  fields += text + '\0';
}

/// A message without a body, in this machine's byte order.
std::string messageOf(std::uint8_t type, const std::string& fields, std::uint32_t serial) {
  const std::uint16_t one = 1;
  std::string bytes = *reinterpret_cast<const char*>(&one) == 1 ? "l" : "B";
  bytes += static_cast<char>(type);
  bytes += std::string("\0\1", 2);
  addNumber(bytes, 0);
  addNumber(bytes, serial);
  addNumber(bytes, static_cast<std::uint32_t>(fields.size()));
  bytes += fields;
  pad(bytes, 8);
  return bytes;
}

std::string callOf(const std::string& path, const std::string& interface, const std::string& member,
                   std::uint32_t serial = 1) {
  std::string fields;
  addField(fields, 1, 'o', path);
  addField(fields, 2, 's', interface);
  addField(fields, 3, 's', member);
  return messageOf(methodCall, fields, serial);
}

std::string ping(std::uint32_t serial = 1) {
  return callOf("/", "org.freedesktop.DBus.Peer", "Ping", serial);
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  DIR* const directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) {
    ++count;
  }
  closedir(directory);
  return count;
}

/// A socket that a test writes to as it pleases.
class RawSocket {
 public:
  explicit RawSocket(int socket) : socket_(socket) {
    const timeval time{.tv_sec = 20, .tv_usec = 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
  }

  int get() const { return socket_.get(); }
  bool write(const std::string& bytes) {
    return send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  bool writeWith(const std::string& bytes, std::size_t descriptors) {
    iovec data{.iov_base = const_cast<char*>(bytes.data()), .iov_len = bytes.size()};
    std::vector<int> numbers(descriptors, STDIN_FILENO);
    std::vector<char> control(CMSG_SPACE(descriptors * sizeof(int)));
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
    std::memcpy(CMSG_DATA(header), numbers.data(), descriptors * sizeof(int));
    return sendmsg(socket_.get(), &message, MSG_NOSIGNAL) > 0;
  }
  /// What comes next, in one piece; empty at the end.
  std::string read() {
    std::array<char, 4096> buffer;
    const ssize_t size = recv(socket_.get(), buffer.data(), buffer.size(), 0);
    return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : "";
  }
  /// Reads until the peer ends the connection; false when it does not.
  bool isEnded() {
    errno = 0;
    while (!read().empty()) {
    }
    return errno != EAGAIN;
  }

 private:
  FileDescriptor socket_;
};

class AHostilePeer : public testing::Test {
 protected:
  AHostilePeer() {
    listener.listener().setDisconnectHandler([this](const ipc::Connection&) { ended.put(true); });
    listener.resume();
  }

  std::string identity() const { return "AUTH EXTERNAL\r\nDATA\r\n"; }
  /// Connects and goes through the handshake up to its last line.
  RawSocket agreed() {
    RawSocket socket(test::connectedSocket(listener.path()));
    EXPECT_TRUE(socket.write(std::string(1, '\0') + identity() + "NEGOTIATE_UNIX_FD\r\n"));
    std::string answers;
    while (answers.find("AGREE_UNIX_FD\r\n") == std::string::npos) {
      const std::string answer = socket.read();
      EXPECT_NE(answer, "");
      if (answer.empty()) {
        break;
      }
      answers += answer;
    }
    return socket;
  }
  RawSocket connected() {
    RawSocket socket = agreed();
    EXPECT_TRUE(socket.write("BEGIN\r\n"));
    return socket;
  }

  test::Mailbox<bool> ended;
  SampleListener listener{[](const ipc::Request& request) { request.reply.send(); }};
};

TEST_F(AHostilePeer, LeavesNoDescriptorsWithMalformedMessages) {
  ASSERT_EQ(RawClient(listener.path()).call("ping").error, "");
  ASSERT_TRUE(ended.take());
  const std::size_t before = openDescriptors();
  for (int round = 0; round < 8; ++round) {
    RawSocket socket = connected();
    ASSERT_TRUE(socket.writeWith(ping(0), 250));
    EXPECT_TRUE(socket.isEnded());
    ASSERT_TRUE(ended.take());
  }
  EXPECT_TRUE(test::eventually([before] { return openDescriptors() <= before + 1; }));
}

TEST_F(AHostilePeer, IsServedAfterAMessageThatCannotBeRead) {
  RawSocket socket = connected();
  ASSERT_TRUE(socket.write(ping(0) + ping()));
  EXPECT_NE(socket.read(), "");
}

TEST_F(AHostilePeer, CannotHaveDescriptorsHeldWithAPartOfAMessage) {
  const std::size_t before = openDescriptors();
  RawSocket socket = connected();
  const std::string call = ping();
  for (const char byte : call.substr(0, call.size() - 1)) {
    if (!socket.writeWith(std::string(1, byte), 250)) {
      break;
    }
  }
  EXPECT_TRUE(socket.isEnded());
  EXPECT_TRUE(test::eventually([&] { return openDescriptors() <= before + 3; }));
}

TEST_F(AHostilePeer, MayNotSendDescriptorsInTheHandshake) {
  RawSocket socket(test::connectedSocket(listener.path()));
  // The kernel refuses them already when they come before the connection was accepted.
  EXPECT_TRUE(!socket.writeWith(std::string(1, '\0') + identity() + "NEGOTIATE_UNIX_FD\r\n", 1) || socket.isEnded());
}

TEST(APeerThatIsNotAdmitted, CannotSendDescriptorsWhereTheKernelCanRefuseThem) {
  SampleListener listener([](const ipc::Request& request) { request.reply.send(); });
  const Semaphore asked(0);
  const Semaphore decided(0);
  listener.listener().setAdmission([asked, decided](const ipc::Peer&) {
    asked.signal();
    decided.wait();
    return true;
  });
  listener.resume();
  RawSocket socket(test::connectedSocket(listener.path()));
  asked.wait();
  constexpr int passRights = 83;  // SO_PASSRIGHTS, since Linux 6.16
  int mayPass = 0;
  socklen_t size = sizeof mayPass;
  const bool isKnown = getsockopt(socket.get(), SOL_SOCKET, passRights, &mayPass, &size) == 0;
  EXPECT_EQ(socket.writeWith(std::string(1, '\0'), 1), !isKnown);
  decided.signal();
  EXPECT_TRUE(!isKnown || test::eventually([&] { return socket.writeWith(std::string(1, '\0'), 1); }));
}

TEST_F(AHostilePeer, MayNotMakeTheHandshakeLong) {
  RawSocket socket(test::connectedSocket(listener.path()));
  std::string lines(1, '\0');
  while (lines.size() <= limits::handshakeBytes) {
    lines += "AUTH\r\n";
  }
  ASSERT_TRUE(socket.write(lines));
  EXPECT_TRUE(socket.isEnded());
  RawSocket other(test::connectedSocket(listener.path()));
  ASSERT_TRUE(other.write(std::string(1, '\0') + std::string(limits::handshakeBytes, 'x')));
  EXPECT_TRUE(other.isEnded());
}

TEST_F(AHostilePeer, MayNotClaimToBeAnotherUserOrNobody) {
  EXPECT_EQ(ipc::vouchedLine("AUTH EXTERNAL 31303030\r\n", 1000), "AUTH EXTERNAL 31303030\r\n");
  EXPECT_EQ(ipc::vouchedLine("AUTH EXTERNAL 30\r\n", 1000), "AUTH\r\n");
  EXPECT_EQ(ipc::vouchedLine("DATA 30\r\n", 1000), "CANCEL\r\n");
  EXPECT_EQ(ipc::vouchedLine("DATA\r\n", 1000), "DATA\r\n");
  EXPECT_EQ(ipc::vouchedLine("BEGIN\r\n", 1000), "BEGIN\r\n");
  EXPECT_EQ(ipc::vouchedLine(std::string("\0AUTH ANONYMOUS 6b\r\n", 19), 1000), std::string("\0AUTH\r\n", 7));
  RawSocket socket(test::connectedSocket(listener.path()));
  ASSERT_TRUE(socket.write(std::string("\0AUTH ANONYMOUS\r\n", 17)));
  EXPECT_THAT(socket.read(), HasSubstr("REJECTED"));
}

TEST_F(AHostilePeer, IsCountedFromTheFirstByteAfterTheHandshake) {
  std::deque<RawSocket> sockets;
  for (int peer = 0; peer <= limits::partialMessagesPerUser; ++peer) {
    sockets.emplace_back(test::connectedSocket(listener.path()));
    ASSERT_TRUE(sockets.back().write(std::string(1, '\0') + identity() + "BEGIN\r\n" + ping().substr(0, 20)));
  }
  EXPECT_TRUE(ended.take());
}

TEST_F(AHostilePeer, IsDroppedWhenItReadsNoneOfManyAnswers) {
  RawSocket socket = connected();
  const timeval time{.tv_sec = 20, .tv_usec = 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
  std::string calls;
  for (int call = 0; call < 64; ++call) {
    calls += ping();
  }
  // Ten times what may wait, and some for the kernel.
  std::size_t sent = 0;
  while (sent < 10 * limits::unsentMessagesPerConnection && socket.write(calls)) {
    sent += 64;
  }
  EXPECT_TRUE(ended.take());
}

TEST_F(AHostilePeer, DoesNotKeepTheLoopBusyByNotReadingInTheHandshake) {
  RawSocket socket(test::connectedSocket(listener.path()));
  // The answers to these fit the limit, but not a receiver that is as small as can be.
  ASSERT_TRUE(socket.write(std::string(1, '\0') + identity()));
  std::string lines;
  while (lines.size() < limits::handshakeBytes - 200) {
    lines += "AUTH\r\n";
  }
  ASSERT_TRUE(socket.write(lines + identity() + "BEGIN\r\n"));
  timespec before{};
  timespec after{};
  test::settleEventLoop();
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
  for (int turn = 0; turn < 20; ++turn) {
    EXPECT_EQ(RawClient(listener.path()).call("ping").error, "");
  }
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
  EXPECT_LT(after.tv_sec - before.tv_sec, 5);
}

TEST_F(AHostilePeer, MaySendTheTailOfOneMessageWithTheHeadOfTheNext) {
  RawSocket socket = connected();
  const std::string call = ping();
  ASSERT_TRUE(socket.write(call.substr(0, 50)));
  for (int round = 0; round < 100; ++round) {
    ASSERT_TRUE(socket.write(call.substr(50) + call.substr(0, 50)));
    ASSERT_NE(socket.read(), "");
  }
  EXPECT_EQ(ended.size(), 0U);
}

TEST_F(AHostilePeer, MayWriteAByteAtATime) {
  RawSocket socket(test::connectedSocket(listener.path()));
  for (const char byte : std::string(1, '\0') + identity() + "BEGIN\r\n" + ping()) {
    ASSERT_TRUE(socket.write(std::string(1, byte)));
  }
  std::string answers;
  while (answers.find("DATA\r\nOK ") == std::string::npos || answers.size() < 80) {
    const std::string answer = socket.read();
    ASSERT_NE(answer, "") << answers;
    answers += answer;
  }
}

TEST_F(AHostilePeer, MaySendADescriptorTogetherWithTheEndOfTheHandshake) {
  RawSocket socket = agreed();
  ASSERT_TRUE(socket.write("BEGIN\r\n"));
  std::string fields;
  addField(fields, 1, 'o', "/com/example/Sample");
  addField(fields, 2, 's', "com.example.Sample");
  addField(fields, 3, 's', "nothing");
  pad(fields, 8);
  fields += std::string("\x09\1u\0", 4);
  addNumber(fields, 1);
  ASSERT_TRUE(socket.writeWith(messageOf(methodCall, fields, 7), 1));
  std::string answers;
  while (answers.find("UnknownMethod") == std::string::npos) {
    const std::string answer = socket.read();
    ASSERT_NE(answer, "") << answers;
    answers += answer;
  }
}

TEST_F(AHostilePeer, LeavesNoDescriptorHoweverOftenItsMessageIsNotDelivered) {
  const auto callWithDescriptor = [](const std::string& member, std::uint32_t serial) {
    std::string fields;
    addField(fields, 1, 'o', "/com/example/Sample");
    addField(fields, 3, 's', member);
    pad(fields, 8);
    fields += std::string("\x09\1u\0", 4);
    addNumber(fields, 1);
    return messageOf(methodCall, fields, serial);
  };
  ASSERT_EQ(RawClient(listener.path()).call("ping").error, "");
  ASSERT_TRUE(ended.take());
  const std::size_t before = openDescriptors();
  // No number, no count of descriptors, no such member, no such argument.
  for (const std::string& message :
       {callWithDescriptor("attach", 0), ping(), callWithDescriptor("nothing", 1), callWithDescriptor("attach", 1)}) {
    for (int round = 0; round < 50; ++round) {
      RawSocket socket = connected();
      ASSERT_TRUE(socket.writeWith(message, 1));
      // Neither that it is answered nor that it is not.
      socket.write(ping(2));
      socket.read();
    }
  }
  for (int connection = 0; connection < 200; ++connection) {
    ASSERT_TRUE(ended.take());
  }
  EXPECT_TRUE(test::eventually([before] { return openDescriptors() <= before; }));
  RawSocket socket = connected();
  ASSERT_TRUE(socket.writeWith(callWithDescriptor("nothing", 1), 1));
  EXPECT_THAT(socket.read(), HasSubstr("UnknownMethod"));
}

/// A service at the other end of an endpoint.
class AHostileService : public testing::Test {
 protected:
  AHostileService() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    duplicate = FileDescriptor(dup(ends[0]));
    service.emplace(ends[1]);
    const ipc::Endpoint endpoint(std::make_shared<ipc::Endpoint::State>(FileDescriptor(ends[0])));
    caller.emplace(ipc::Connection::toEndpoint(endpoint), sample::limitedInterface);
    caller->connection().resume();
    caller->call(sample::ping, {});
    std::string said;
    while (said.find("BEGIN\r\n") == std::string::npos) {
      said += service->read();
    }
    EXPECT_TRUE(service->write("DATA\r\nOK 00000000000000000000000000000001\r\nAGREE_UNIX_FD\r\n"));
    EXPECT_NE(service->read(), "");
  }

  /// The caller's own end, as the service kept it.
  FileDescriptor duplicate;
  std::optional<RawSocket> service;
  std::optional<SampleCaller> caller;
};

TEST_F(AHostileService, IsNotAnsweredWhenItCallsItsCaller) {
  ASSERT_TRUE(service->write(callOf("/" + std::string(2000, 'x'), "com.example.Sample", "ping")));
  test::settleEventLoop();
  test::settleEventLoop();
  char byte = 0;
  EXPECT_LT(recv(service->get(), &byte, 1, MSG_DONTWAIT), 0);
  EXPECT_EQ(caller->ends().size(), 0U);
}

TEST_F(AHostileService, MayNotSendDescriptors) {
  const std::size_t before = openDescriptors();
  ASSERT_TRUE(service->writeWith(messageOf(methodReturn, "", 0), 250));
  EXPECT_EQ(caller->ends().take(), "interruption");
  EXPECT_TRUE(test::eventually([before] { return openDescriptors() < before; }));
}

TEST_F(AHostileService, CannotSwitchOffTheLimitOnReplies) {
  for (const int offset : {-1, 0}) {
    ASSERT_EQ(setsockopt(duplicate.get(), SOL_SOCKET, SO_PEEK_OFF, &offset, sizeof offset), 0);
  }
  std::string header = messageOf(methodReturn, "", 1).substr(0, 16);
  const auto size = static_cast<std::uint32_t>(sample::limitedInterface.maximumReplyBytes);
  std::memcpy(header.data() + 4, &size, sizeof size);
  ASSERT_TRUE(service->write(header));
  EXPECT_EQ(caller->ends().take(), "invalidation");
}

TEST(AnEndpointsUser, IsWhoeverSentIt) {
  EXPECT_EQ(*ipc::takeEndpointPlace(4711), 4711U);
}

}  // namespace
}  // namespace kelvane
