// SPDX-License-Identifier: Apache-2.0
// Services that die while they are told of a state's change, or do not answer.
#include <deque>

#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

using test::Client;
using test::Message;
using test::Service;

class ANotification : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    startDaemon();
  }

  static void checkIn(Service& service) {
    service.beginCheckIn(test::info({{keys::notifications, [](sd_bus_message* message) {
                                        return sd_bus_message_append(message, "v", "as", 1, keys::cacheEnabled);
                                      }}}));
    service.bus().answer(service.expect("servicePing"));
    EXPECT_TRUE(service.endCheckIn().isDictionary());
  }
  static void changeState() {
    const auto answer = test::Client().call("clientSetState", [](sd_bus_message* message) {
      return sd_bus_message_append(message, "vs", "b", 1, keys::cacheEnabled);
    });
    EXPECT_EQ(answer.error, "");
  }
};

TEST_F(ANotification, ForServicesThatDieReachesTheOthers) {
  Service first("com.example.first");
  Service second("com.example.second");
  Service third("com.example.third");
  Service last("com.example.zz-last");
  for (Service* service : {&first, &second, &third, &last}) {
    checkIn(*service);
  }
  changeState();
  // One without reading it, one before it answers, one in the middle of its answer.
  ASSERT_TRUE(first.bus().hasArrival());
  first.hangUp();
  const Message call = second.expect("serviceNotify");
  second.hangUp();
  const Message another = third.expect("serviceNotify");
  third.sendBytes(test::answerTo(1).substr(0, 20));
  third.hangUp();
  last.bus().answer(last.expect("serviceNotify"));
  changeState();
  last.bus().answer(last.expect("serviceNotify"));
}

TEST_F(ANotification, ThatIsNeverAnsweredHoldsUpNobody) {
  Service silent("com.example.silent");
  Service other("com.example.other");
  checkIn(silent);
  checkIn(other);
  // As many as it may owe answers to, and more.
  Message first;
  for (int change = 0; change < 2 * limits::outstandingCallsPerService; ++change) {
    changeState();
    other.bus().answer(other.expect("serviceNotify"));
    if (change < limits::outstandingCallsPerService) {
      const Message call = silent.expect("serviceNotify");
      first = first ? std::move(first) : Message(sd_bus_message_ref(call.get()));
    }
  }
  purgeForAnotherClient();
  EXPECT_FALSE(silent.bus().pendingCall());
  // The others wait for it.
  silent.bus().answer(first);
  EXPECT_TRUE(silent.expect("serviceNotify"));
  first = nullptr;
}

TEST_F(ANotification, ReachesAServiceThatWasBusyInItsTurn) {
  constexpr int count = 300;
  Service busy("com.example.busy");
  checkIn(busy);
  Client client;
  for (int number = 0; number < count; ++number) {
    const auto answer = client.call("clientSetState", [number](sd_bus_message* message) {
      return sd_bus_message_append(message, "vs", "x", std::int64_t{number}, keys::cacheEnabled);
    });
    ASSERT_EQ(answer.error, "");
  }
  for (int number = 0; number < count; ++number) {
    const Message call = busy.expect("serviceNotify");
    ASSERT_TRUE(call);
    EXPECT_EQ(test::nextValue(call)[keys::cacheEnabled], Value(number));
    ASSERT_TRUE(busy.bus().answer(call));
  }
  EXPECT_TRUE(busy.isServed());
}

TEST_F(ANotification, ThatManyServicesDoNotReadIsHeldOnce) {
  const std::string text(test::mebibyte - 64, 'x');
  std::deque<Service> services;
  for (int number = 0; number < test::scaled(100); ++number) {
    services.emplace_back("com.example.service" + std::to_string(number));
    checkIn(services.back());
  }
  const auto set = [&text](sd_bus_message* message) {
    return sd_bus_message_append(message, "vs", "s", text.c_str(), keys::cacheEnabled);
  };
  const std::size_t before = daemon_.residentBytes();
  for (int change = 0; change < 3; ++change) {
    EXPECT_EQ(Client().call("clientSetState", set).error, "");
  }
  // The last is queued for all of them when this is answered.
  for (Service& service : services) {
    ASSERT_TRUE(service.bus().hasArrival());
  }
  purgeForAnotherClient();
  EXPECT_LT(daemon_.residentBytes(), before + 40 * test::mebibyte);
  Service& one = services.front();
  for (int change = 0; change < 3; ++change) {
    one.bus().answer(one.expect("serviceNotify"));
  }
}

}  // namespace
}  // namespace kelvane
