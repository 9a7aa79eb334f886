// SPDX-License-Identifier: Apache-2.0
// Bytes that are no messages, and messages that do not end.
#include <gmock/gmock.h>

#include <deque>
#include <random>

#include "platform/Limits.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/RawConnection.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

using test::Client;
using test::mebibyte;
using test::RawConnection;
using test::WireBytes;
using test::WireCall;
using testing::HasSubstr;

class Bytes : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    startDaemon();
  }

  std::string random(std::size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
      byte = static_cast<char>(random_());
    }
    return bytes;
  }

  std::mt19937 random_{1};
};

/// A call that is of this size in all.
std::string callOf(std::size_t size) {
  const auto of = [](std::size_t textSize) {
    WireBytes body;
    body.string(std::string(textSize, 'x'));
    return WireCall{.member = "clientGetState", .signature = "s", .body = body.bytes()}.bytes();
  };
  return of(size - of(0).size());
}

TEST_F(Bytes, InsteadOfAHandshakeEndTheirConnection) {
  for (const std::string& bytes : {std::string(1, '\1'), std::string("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                                   std::string(200'000, 'A'), std::string(200'000, '\0'), random(100'000)}) {
    RawConnection connection;
    connection.send(bytes);
    EXPECT_TRUE(connection.ends()) << bytes.substr(0, 30);
  }
}

TEST_F(Bytes, OfAHandshakeThatProvesNothingAreRejected) {
  // Another user, no user, and no proof at all.
  for (const char* words : {"AUTH EXTERNAL 31323334\r\n", "AUTH ANONYMOUS\r\n", "AUTH EXTERNAL zz\r\n", "BEGIN\r\n"}) {
    RawConnection connection;
    ASSERT_TRUE(connection.send(std::string(1, '\0') + words));
    EXPECT_THAT(connection.receive(), testing::AnyOf(HasSubstr("REJECTED"), HasSubstr("ERROR"), "")) << words;
    connection.send("BEGIN\r\n" + WireCall().bytes());
  }
}

TEST_F(Bytes, OfAnyKindInsteadOfAHandshakeLeaveNothingBehind) {
  for (int round = 0; round < test::scaled(1'000); ++round) {
    RawConnection connection;
    connection.send((round % 2 == 0 ? std::string(1, '\0') : "") + random(1 + random_() % 200));
  }
}

TEST_F(Bytes, OfAnyKindInsteadOfAMessageLeaveNothingBehind) {
  for (int round = 0; round < test::scaled(1'000); ++round) {
    RawConnection connection;
    ASSERT_TRUE(connection.shakeHands());
    connection.send((round % 2 == 0 ? "l\1" : "") + random(1 + random_() % 400));
  }
}

TEST_F(Bytes, ThatAreAlmostAMessageLeaveNothingBehind) {
  WireBytes body;
  body.number(0);
  body.align(8);
  const std::string request = WireCall{.member = "clientPurge", .body = body.bytes()}.bytes();
  for (int round = 0; round < test::scaled(3'000); ++round) {
    std::string changed = request;
    for (std::size_t change = random_() % 3; change < 3; ++change) {
      changed[random_() % changed.size()] = static_cast<char>(random_());
    }
    RawConnection connection;
    ASSERT_TRUE(connection.shakeHands());
    connection.send(changed + request);
  }
}

TEST_F(Bytes, ThatDeclareTooLongAMessageEndTheirConnection) {
  for (const std::uint32_t declared : {128U * 1024 * 1024, 0x7fffffffU, 0xffffffffU}) {
    RawConnection connection;
    ASSERT_TRUE(connection.shakeHands());
    connection.send(WireCall{.declaredBodyBytes = declared}.bytes());
    EXPECT_TRUE(connection.ends()) << declared;
  }
}

TEST_F(Bytes, ThatDeclareALongMessageTakeNoMemoryBeforeItComes) {
  ASSERT_TRUE(Client().isServed());
  const std::size_t before = daemon_.residentBytes();
  std::deque<RawConnection> connections(test::scaled(limits::partialMessagesPerUser));
  for (RawConnection& connection : connections) {
    ASSERT_TRUE(connection.shakeHands());
    ASSERT_TRUE(connection.send(WireCall{.declaredBodyBytes = 127U * 1024 * 1024}.bytes()));
  }
  purgeForAnotherClient();
  // A sanitizer's allocator copies what nobody has written yet.
  EXPECT_TRUE(!test::sanitizers.empty() || daemon_.residentBytes() < before + 64 * mebibyte);
}

TEST_F(Bytes, OfAMessageThatGrowsTooLongEndTheirConnection) {
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  ASSERT_TRUE(connection.send(WireCall{.declaredBodyBytes = std::uint32_t{4 * limits::requestBytes}}.bytes()));
  const std::string part(64 * 1024, 'x');
  std::size_t sent = 0;
  while (connection.send(part)) {
    sent += part.size();
    ASSERT_LT(sent, 16 * limits::requestBytes);
  }
  EXPECT_TRUE(connection.ends());
}

TEST_F(Bytes, OfMoreIncompleteMessagesThanAUserMayHaveEndTheirConnection) {
  std::deque<RawConnection> connections(limits::partialMessagesPerUser);
  for (RawConnection& connection : connections) {
    ASSERT_TRUE(connection.shakeHands());
    ASSERT_TRUE(connection.send("l\1"));
    // Other messages go through meanwhile.
    ASSERT_TRUE(Client().isServed());
  }
  RawConnection oneTooMany;
  ASSERT_TRUE(oneTooMany.shakeHands());
  ASSERT_TRUE(oneTooMany.send("l\1"));
  EXPECT_TRUE(oneTooMany.ends());
}

TEST_F(Bytes, OfARequestAsLongAsCanBeAreServed) {
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  ASSERT_TRUE(connection.send(callOf(limits::requestBytes)));
  EXPECT_THAT(connection.receive(), testing::Not(HasSubstr("LimitsExceeded")));
}

TEST_F(Bytes, OfARequestThatIsTooLongAreRefused) {
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  ASSERT_TRUE(connection.send(callOf(limits::requestBytes + 1)));
  EXPECT_THAT(connection.receive(), HasSubstr("is longer than 2097152"));
  ASSERT_TRUE(connection.send(WireCall().bytes()));
  EXPECT_NE(connection.receive(), "");
}

}  // namespace
}  // namespace kelvane
