// SPDX-License-Identifier: Apache-2.0
// Calls that are made on many connections, as one message each.
#include <gtest/gtest.h>

#include <deque>
#include <fstream>

#include "platform/Limits.h"
#include "tests/linux/ipc/IdleService.h"

namespace kelvane {
namespace {

using test::IdleService;
namespace sample = test::sample;

std::size_t residentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * 4096;
}

TEST(ANotificationToManyServices, IsHeldOnceHoweverManyOfThemReadNothing) {
  constexpr std::size_t size = 1024 * 1024;
  std::deque<IdleService> services(64);
  const std::size_t before = residentBytes();
  for (char letter = 'a'; letter < 'e'; ++letter) {
    const Value notification = test::notification("large", Value(std::string(size, letter)));
    for (IdleService& service : services) {
      service.tell(notification);
    }
    test::settleEventLoop();
  }
  EXPECT_LT(residentBytes(), before + 32 * size);
  for (IdleService* service : {&services.front(), &services.back()}) {
    for (char letter = 'a'; letter < 'e'; ++letter) {
      const auto call = service->bus().nextCall();
      const char* name = nullptr;
      const char* text = nullptr;
      ASSERT_GT(sd_bus_message_read(call.get(), "a{sv}", 1, &name, "s", &text), 0);
      EXPECT_EQ(std::string(text), std::string(size, letter));
      EXPECT_TRUE(service->bus().answer(call));
    }
  }
}

TEST(ANotification, ThatIsMadeTwiceOnOneConnectionIsAnsweredTwice) {
  IdleService service;
  const Value notification = test::notification("name", Value(7));
  service.tell(notification);
  service.tell(notification);
  // Both are read before either is answered.
  test::settleEventLoop();
  EXPECT_EQ(service.takeNumber(), 7);
  EXPECT_EQ(service.takeNumber(), 7);
  EXPECT_TRUE(service.caller().outcomes().take()->reply);
  EXPECT_TRUE(service.caller().outcomes().take()->reply);
}

TEST(ANotification, IsThatOfItsOwnOperationAndValue) {
  IdleService first;
  IdleService second(sample::interface);
  for (int number = 0; number < 100; ++number) {
    const Value notification = test::notification("name", Value(number));
    first.tell(notification);
    second.caller().call(sample::work, {Value(1), notification});
    second.tell(notification);
  }
  for (int number = 0; number < 100; ++number) {
    ASSERT_EQ(first.takeNumber(), number);
    const auto work = second.bus().nextCall();
    ASSERT_GT(sd_bus_message_is_method_call(work.get(), nullptr, "work"), 0);
    EXPECT_TRUE(second.bus().answer(work));
    ASSERT_EQ(second.takeNumber(), number);
  }
}

}  // namespace
}  // namespace kelvane
