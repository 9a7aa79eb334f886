// SPDX-License-Identifier: Apache-2.0
// Services that die while they are told of a state's change, or do not answer.
#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

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

TEST_F(ANotification, ThatIsNeverAnsweredHoldsUpNobodyAndIsOutstandingForGood) {
  Service silent("com.example.silent");
  Service other("com.example.other");
  checkIn(silent);
  checkIn(other);
  const auto changeStateForBoth = [&] {
    changeState();
    other.bus().answer(other.expect("serviceNotify"));
  };
  for (int change = 0; change < limits::outstandingCallsPerService; ++change) {
    changeStateForBoth();
    EXPECT_TRUE(silent.expect("serviceNotify"));
  }
  purgeForAnotherClient();
  // One more than it may owe answers to.
  changeStateForBoth();
  EXPECT_FALSE(silent.bus().nextCall()) << "the daemon has not hung up";
  changeStateForBoth();
  // It is forgotten, so it is pinged as one who was never there.
  Service successor("com.example.silent");
  checkIn(successor);
}

}  // namespace
}  // namespace kelvane
