// SPDX-License-Identifier: Apache-2.0
// Services that take their time: to read, to answer and to end an answer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <deque>

#include "platform/Limits.h"
#include "tests/linux/ipc/IdleService.h"

namespace kelvane {
namespace {

using std::chrono::seconds;
using test::IdleService;
using testing::HasSubstr;
namespace sample = test::sample;

constexpr seconds stall = limits::serviceStall;
/// More than a socket takes.
const Value large(std::string(limits::requestBytes / 2, 'x'));

void expectConnected(IdleService& service) {
  test::settleEnds();
  EXPECT_EQ(service.caller().ends().size(), 0U);
}

void expectCutOff(IdleService& service) {
  EXPECT_EQ(service.caller().ends().take(), "invalidation");
  EXPECT_THAT(service.nextError(), HasSubstr("takes nothing"));
}

TEST(AServiceThatTakesNothing, IsCutOffWhenThatHasLastedTooLong) {
  IdleService service;
  service.caller().call(sample::echo, {large});
  service.lookAfter(stall - seconds(30));
  expectConnected(service);
  service.lookAfter(stall);
  expectCutOff(service);
}

TEST(AServiceThatTakesNothing, IsCutOffAlsoWhenShortCallsHaveFilledItsPlaces) {
  IdleService service;
  for (int call = 0; call < limits::outstandingCallsPerService; ++call) {
    service.ping();
  }
  service.lookAfter(2 * stall);
  expectConnected(service);
  // Until now nothing has waited to be sent.
  service.tell(1);
  service.lookAfter(stall - seconds(30));
  expectConnected(service);
  service.lookAfter(stall);
  expectCutOff(service);
}

TEST(AServiceThatTakesNothing, IsLookedAtAgainAndAgainUntilThatHasLastedTooLong) {
  static constexpr ipc::Interface interface = {.objectPath = sample::interface.objectPath,
                                               .name = sample::interface.name,
                                               .operations = sample::operations,
                                               .maximumStall = seconds(1)};
  IdleService service(interface);
  service.caller().call(sample::echo, {large});
  expectCutOff(service);
}

TEST(AServiceThatReadsNoMore, IsCutOffByTheNextCall) {
  IdleService service;
  ASSERT_EQ(shutdown(service.bus().socket(), SHUT_RD), 0);
  service.ping();
  EXPECT_EQ(service.caller().ends().take(), "interruption");
  EXPECT_THAT(service.nextError(), HasSubstr("Connection terminated"));
}

TEST(AServiceThatTakesLittle, StaysConnected) {
  IdleService service;
  service.caller().call(sample::echo, {large});
  service.caller().call(sample::echo, {large});
  service.lookAfter(stall - seconds(30));
  EXPECT_TRUE(service.bus().nextCall());
  const seconds seen = 2 * stall - seconds(60);
  service.lookAfter(seen);
  service.lookAfter(seen + stall - seconds(30));
  expectConnected(service);
  service.lookAfter(seen + stall + seconds(60));
  expectCutOff(service);
}

TEST(AServiceThatTakesAllAndAnswersNothing, StaysConnectedForGood) {
  IdleService service;
  service.oweAllItMay();
  service.tell(1);
  for (int time = 1; time <= 10; ++time) {
    service.lookAfter(time * stall);
  }
  expectConnected(service);
  service.answerOne();
  EXPECT_EQ(service.takeNumber(), 1);
}

TEST(AServiceThatDoesNotRead, IsSentCallsOneAfterTheOther) {
  IdleService service;
  for (int call = 0; call < limits::outstandingCallsPerService; ++call) {
    service.caller().call(sample::echo, {large});
  }
  test::settleEventLoop();
  expectConnected(service);
  EXPECT_EQ(service.caller().outcomes().size(), 0U);
  for (int call = 0; call < limits::outstandingCallsPerService; ++call) {
    EXPECT_TRUE(service.bus().answer(service.bus().nextCall()));
  }
}

TEST(AServiceThatIsSlowToEndItsAnswer, KeepsItsConnectionHoweverManyThereAre) {
  constexpr int count = 3 * limits::partialMessagesPerUser;
  std::deque<IdleService> services(count);
  for (IdleService& service : services) {
    service.ping();
    EXPECT_TRUE(service.bus().nextCall());
    EXPECT_EQ(send(service.bus().socket(), "l\2\1\1", 4, MSG_NOSIGNAL), 4);
  }
  for (IdleService& service : services) {
    expectConnected(service);
  }
}

TEST(AServiceThatIsSlowToEndItsAnswer, CannotMakeItLongerThanAnAnswerMayBe) {
  IdleService service;
  service.ping();
  EXPECT_TRUE(service.bus().nextCall());
  const auto length = static_cast<std::uint32_t>(limits::serviceReplyBytes);
  std::string header("l\2\1\1....\1\0\0\0\0\0\0\0", 16);
  std::memcpy(header.data() + 4, &length, sizeof length);
  EXPECT_EQ(send(service.bus().socket(), header.data(), header.size(), MSG_NOSIGNAL), 16);
  EXPECT_EQ(service.caller().ends().take(), "invalidation");
}

/// A call that is wanted until the test says otherwise.
class Wish {
 public:
  void call(IdleService& service, const ipc::Operation& operation, ipc::Arguments arguments) {
    service.caller()
        .connection()
        .remoteProxy([errors = errors_](const auto& error) { errors->put(error ? error->text : "none"); },
                     [wanted = wanted_] { return wanted->load(); })
        .call(operation, std::move(arguments), [](const Value&) {});
  }
  void ping(IdleService& service) { call(service, sample::ping, {}); }
  void end() { *wanted_ = false; }
  std::string nextError() { return errors_->take().value_or("none in time"); }

 private:
  const std::shared_ptr<std::atomic<bool>> wanted_ = std::make_shared<std::atomic<bool>>(true);
  const std::shared_ptr<test::Mailbox<std::string>> errors_ = std::make_shared<test::Mailbox<std::string>>();
};

TEST(ACallThatIsNotWantedAnyMore, IsNeverSent) {
  IdleService service;
  service.caller().call(sample::echo, {large});
  Wish wish;
  wish.ping(service);
  service.tell(1);
  test::settleEventLoop();
  wish.end();
  EXPECT_TRUE(service.bus().answer(service.bus().nextCall()));
  EXPECT_EQ(service.takeNumber(), 1);
  EXPECT_THAT(wish.nextError(), HasSubstr("not wanted"));
}

TEST(ACallThatIsNotWantedAnyMore, IsNeverSentThoughItWasNextWhenTheSocketWasFull) {
  IdleService service(sample::interface);
  Wish wish;
  // Each is taken whole or not at all; the last one is not.
  const Value part(std::string(16 * 1024, 'x'));
  int taken = -1;
  for (int before = -1; before != service.unreadBytes(); ++taken) {
    before = service.unreadBytes();
    wish.call(service, sample::echo, {part});
    test::settleEventLoop();
  }
  ASSERT_GT(taken, 0);
  wish.end();
  service.tell(1);
  for (int call = 0; call < taken; ++call) {
    EXPECT_TRUE(service.bus().answer(service.bus().nextCall()));
  }
  EXPECT_EQ(service.takeNumber(), 1);
  EXPECT_THAT(wish.nextError(), HasSubstr("not wanted"));
}

TEST(ACallThatIsNotWantedAnyMore, GivesItsPlaceToAnother) {
  IdleService service;
  service.caller().call(sample::echo, {large});
  Wish wish;
  for (int call = 1; call < limits::outstandingCallsPerService; ++call) {
    wish.ping(service);
  }
  test::settleEventLoop();
  wish.end();
  service.ping();
  EXPECT_THAT(wish.nextError(), HasSubstr("not wanted"));
  EXPECT_TRUE(service.bus().answer(service.bus().nextCall()));
  EXPECT_TRUE(service.bus().answer(service.bus().nextCall()));
  EXPECT_EQ(service.caller().outcomes().take()->reply, Value());
}

TEST(ServicesThatAreSentMuchAtOnce, KeepTheirConnectionsHoweverSlowlyTheyRead) {
  constexpr int count = 40;
  ASSERT_GT(count * limits::requestBytes, limits::unsentBytesPerUser);
  std::deque<IdleService> services(count);
  const Value largest(std::string(limits::requestBytes - 4096, 'x'));
  for (IdleService& service : services) {
    service.caller().call(sample::echo, {largest});
    service.caller().call(sample::echo, {largest});
  }
  for (IdleService& service : services) {
    expectConnected(service);
  }
  // Each gets both calls when it reads at last.
  EXPECT_TRUE(services.front().bus().nextCall());
  EXPECT_TRUE(services.front().bus().nextCall());
}

}  // namespace
}  // namespace kelvane
