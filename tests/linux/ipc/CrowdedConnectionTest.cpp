// SPDX-License-Identifier: Apache-2.0
// More calls than may be outstanding on a connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Limits.h"
#include "tests/linux/ipc/IdleService.h"

namespace kelvane {
namespace {

using test::IdleService;
using testing::HasSubstr;
namespace sample = test::sample;

constexpr int most = limits::outstandingCallsPerService;
constexpr int mostWaiting = limits::waitingCallsPerService;

void expectConnected(IdleService& service) {
  test::settleEnds();
  EXPECT_EQ(service.caller().ends().size(), 0U);
}

TEST(ACallBeyondTheLimit, FailsAndTheConnectionStays) {
  IdleService service;
  service.oweAllItMay();
  expectConnected(service);
  EXPECT_EQ(service.caller().outcomes().size(), 0U);
  service.ping();
  EXPECT_THAT(service.nextError(), HasSubstr("Too many calls"));
  expectConnected(service);
  // There is room for one when one is answered.
  service.answerOne();
  EXPECT_TRUE(service.caller().outcomes().take()->reply);
  service.ping();
  EXPECT_TRUE(service.bus().nextCall());
  service.ping();
  EXPECT_THAT(service.nextError(), HasSubstr("Too many calls"));
}

TEST(ACallBeyondTheLimit, FailsWhetherTheOthersWereSentOrNot) {
  IdleService service;
  // Nothing after it is sent before it is read.
  service.caller().call(sample::echo, {Value(std::string(1024 * 1024, 'x'))});
  for (int call = 1; call < most; ++call) {
    service.ping();
  }
  test::settleEventLoop();
  EXPECT_EQ(service.caller().outcomes().size(), 0U);
  service.ping();
  EXPECT_THAT(service.nextError(), HasSubstr("Too many calls"));
  for (int call = 0; call < most; ++call) {
    EXPECT_TRUE(service.bus().answer(service.bus().nextCall()));
  }
  expectConnected(service);
}

TEST(ANotificationBeyondTheLimit, IsSentWhenACallBeforeItIsAnswered) {
  IdleService service;
  service.oweAllItMay();
  service.tell(1);
  service.tell(2);
  test::settleEventLoop();
  EXPECT_EQ(service.unreadBytes(), 0);
  service.answerOne();
  EXPECT_EQ(service.takeNumber(), 1);
  EXPECT_EQ(service.takeNumber(), 2);
  expectConnected(service);
}

TEST(ANotificationBeyondTheLimit, IsCountedAmongTheCallsThatAreOutstanding) {
  IdleService service;
  service.oweAllItMay();
  service.tell(1);
  service.answerOne();
  EXPECT_TRUE(service.caller().outcomes().take()->reply);
  // That place is the notification's.
  service.ping();
  EXPECT_THAT(service.nextError(), HasSubstr("Too many calls"));
  EXPECT_EQ(service.takeNumber(), 1);
}

TEST(NotificationsBeyondTheLimit, ComeInOrderUpToAsManyAsMayWait) {
  IdleService service;
  service.oweAllItMay();
  for (int number = 0; number < mostWaiting; ++number) {
    service.tell(number);
  }
  service.answerOne();
  for (int number = 0; number < mostWaiting; ++number) {
    ASSERT_EQ(service.takeNumber(), number);
  }
  expectConnected(service);
}

TEST(NotificationsBeyondTheLimit, LeaveOutTheEarliestOfTheirNameWhenMoreWouldWait) {
  IdleService service;
  service.oweAllItMay();
  for (int number = 0; number <= mostWaiting; ++number) {
    service.tell(number);
  }
  EXPECT_THAT(service.nextError(), HasSubstr("A later one"));
  service.answerOne();
  for (int number = 1; number <= mostWaiting; ++number) {
    ASSERT_EQ(service.takeNumber(), number);
  }
  expectConnected(service);
}

TEST(NotificationsBeyondTheLimit, LeaveOutNoneOfAnotherName) {
  IdleService service;
  service.oweAllItMay();
  const auto name = [](int number) { return "name" + std::to_string(number); };
  for (int number = 0; number <= mostWaiting; ++number) {
    service.tell(number, name(number));
  }
  service.tell(-1, name(7));
  EXPECT_THAT(service.nextError(), HasSubstr("A later one"));
  service.answerOne();
  for (int number = 0; number <= mostWaiting; ++number) {
    if (number != 7) {
      ASSERT_EQ(service.takeNotification(), name(number) + " " + std::to_string(number));
    }
  }
  EXPECT_EQ(service.takeNotification(), "name7 -1");
  expectConnected(service);
}

TEST(NotificationsBeyondTheLimit, LeaveOutWhatWouldTakeTooMuchMemory) {
  IdleService service;
  service.oweAllItMay();
  const std::size_t size = 1024 * 1024;
  const auto count = static_cast<int>(limits::waitingBytesPerService / size);
  for (int number = 0; number <= count; ++number) {
    service.tell(test::notification("large", Value(std::string(size, static_cast<char>('a' + number)))));
    service.tell(number, "small");
  }
  // Two, because with what is around them one fewer fits.
  EXPECT_THAT(service.nextError(), HasSubstr("A later one"));
  EXPECT_THAT(service.nextError(), HasSubstr("A later one"));
  service.answerOne();
  for (int number = 0; number <= count; ++number) {
    if (number >= 2) {
      const auto call = service.bus().nextCall();
      const char* name = nullptr;
      const char* text = nullptr;
      ASSERT_GT(sd_bus_message_read(call.get(), "a{sv}", 1, &name, "s", &text), 0);
      EXPECT_EQ(*text, 'a' + number);
      EXPECT_TRUE(service.bus().answer(call));
    }
    EXPECT_EQ(service.takeNotification(), "small " + std::to_string(number));
  }
  expectConnected(service);
}

TEST(NotificationsBeyondTheLimit, LeaveOutWhatWouldTakeTooMuchMemoryAlsoOfWhoOwesLittle) {
  IdleService service;
  const std::size_t size = 1024 * 1024;
  // The first is on its way, and as many as this wait for it to be read.
  const auto count = static_cast<int>(limits::waitingBytesPerService / size);
  for (int number = 0; number <= count; ++number) {
    service.tell(test::notification("large", Value(std::string(size, static_cast<char>('a' + number)))));
  }
  EXPECT_THAT(service.nextError(), HasSubstr("A later one"));
  expectConnected(service);
}

TEST(NotificationsThatWait, FailWithTheConnection) {
  IdleService service;
  service.oweAllItMay();
  service.tell(1);
  service.bus().close();
  EXPECT_EQ(service.caller().ends().take(), "interruption");
  for (int call = 0; call <= most; ++call) {
    EXPECT_THAT(service.nextError(), HasSubstr("Connection terminated"));
  }
}

}  // namespace
}  // namespace kelvane
