// SPDX-License-Identifier: Apache-2.0
// Calls that are to be answered within a time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "tests/linux/ipc/IdleService.h"

namespace kelvane {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using test::IdleService;
using testing::HasSubstr;
namespace sample = test::sample;

constexpr seconds limit{1};
/// Enough for an answer on a busy machine.
constexpr seconds ample{5};
constexpr seconds never{3600};

void expectAnsweredWithNothing(IdleService& service) {
  const auto outcome = service.caller().outcomes().take();
  ASSERT_TRUE(outcome && outcome->reply);
  EXPECT_TRUE(outcome->reply->isAbsent());
}

TEST(ACallWithALimit, IsAnsweredWithNothingWhenThatIsOverAndItsConnectionIsCut) {
  IdleService service;
  const auto called = steady_clock::now();
  service.caller().call(sample::echo, {Value(7)}, limit);
  ASSERT_TRUE(service.bus().nextCall());
  EXPECT_THAT(service.nextError(), HasSubstr("Timeout"));
  EXPECT_GE(steady_clock::now() - called, limit);
  expectAnsweredWithNothing(service);
  EXPECT_EQ(service.caller().ends().take(), "invalidation");
  EXPECT_FALSE(service.bus().nextCall()) << "the connection is still there";
}

TEST(ACallWithALimit, IsAnsweredWithNothingWhenItIsNotEvenRead) {
  IdleService service;
  service.caller().call(sample::echo, {Value(7)}, limit);
  EXPECT_THAT(service.nextError(), HasSubstr("Timeout"));
  expectAnsweredWithNothing(service);
}

TEST(ACallWithALimit, IsAnsweredOnceByAnAnswerInTimeAndHarmsNobodyAfterwards) {
  IdleService service;
  service.caller().call(sample::echo, {Value(7)}, ample);
  EXPECT_TRUE(service.bus().answer(service.bus().nextCall()));
  expectAnsweredWithNothing(service);
  // Were the first limit still there, it would come before that of this call.
  const auto called = steady_clock::now();
  service.caller().call(sample::echo, {Value(8)}, ample + limit);
  EXPECT_THAT(service.nextError(), HasSubstr("Timeout"));
  EXPECT_GE(steady_clock::now() - called, ample + limit);
  expectAnsweredWithNothing(service);
  EXPECT_EQ(service.caller().outcomes().size(), 0U);
}

TEST(ACallWithALimit, ComesBeforeOneThatHasMoreTime) {
  IdleService service;
  service.caller().call(sample::echo, {Value(7)}, never);
  service.caller().call(sample::echo, {Value(8)}, limit);
  EXPECT_THAT(service.nextError(), HasSubstr("Timeout"));
}

TEST(ACallWithALimit, IsAnsweredWithNothingAtOnceWhenItsConnectionFails) {
  IdleService service;
  service.caller().call(sample::echo, {Value(7)}, never);
  ASSERT_TRUE(service.bus().nextCall());
  service.bus().close();
  EXPECT_THAT(service.nextError(), HasSubstr("Connection terminated"));
  expectAnsweredWithNothing(service);
  EXPECT_EQ(service.caller().ends().take(), "interruption");
}

TEST(ACallWithoutALimit, IsNotAnsweredWhenItsConnectionFails) {
  IdleService service;
  service.caller().call(sample::echo, {Value(7)});
  ASSERT_TRUE(service.bus().nextCall());
  service.bus().close();
  EXPECT_THAT(service.nextError(), HasSubstr("Connection terminated"));
  test::settleEnds();
  EXPECT_EQ(service.caller().outcomes().size(), 0U);
}

}  // namespace
}  // namespace kelvane
