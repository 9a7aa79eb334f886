// SPDX-License-Identifier: Apache-2.0
// Services that die, at each point of what the daemon has to do with them once it has answered their check-in.
#include <csignal>

#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

using test::Client;
using test::mebibyte;
using test::Message;
using test::purgeOf;
using test::Service;
using test::untilAnswered;

using AServiceThatDies = test::HostileServiceTest;

TEST_F(AServiceThatDies, BetweenRequestsIsForgotten) {
  for (int round = 0; round < test::scaled(500); ++round) {
    Service another("com.example.another");
    another.checkIn();
    another.hangUp();
  }
  service().hangUp();
  // Nobody is left to ask, and so nobody has anything to report.
  EXPECT_EQ(Client().purge(purgeOf(mebibyte))[keys::amountReported], Value(0));
}

TEST_F(AServiceThatDies, BeforeItReadsAPurgeGivesNothing) {
  Client client;
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
  ASSERT_TRUE(service().bus().hasArrival());
  service().hangUp();
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
}

TEST_F(AServiceThatDies, AfterItHasReadAPurgeGivesNothing) {
  Client client;
  const Message call = nextPurge(client);
  service().hangUp();
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
}

TEST_F(AServiceThatDies, InTheMiddleOfItsAnswerGivesNothing) {
  Service second("com.example.second");
  Service third("com.example.third");
  second.checkIn();
  third.checkIn();
  Client client;
  const std::string first = test::answerTo(nextPurge(client));
  service().sendBytes(first.substr(0, 1));
  const std::string another = test::answerTo(second.expect("servicePurge"));
  second.sendBytes(another.substr(0, another.size() / 2));
  const std::string last = test::answerTo(third.expect("servicePurge"));
  third.sendBytes(last.substr(0, last.size() - 1));
  service().hangUp();
  second.hangUp();
  third.hangUp();
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
}

TEST_F(AServiceThatDies, AfterItsAnswerIsCounted) {
  Client client;
  service().sendBytes(test::answerTo(nextPurge(client, {untilAnswered()})));
  service().hangUp();
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(1));
}

TEST_F(AServiceThatDies, AndComesBackInTheMiddleOfAPurgeIsKnownAgain) {
  Client client;
  const Message call = nextPurge(client);
  service().hangUp();
  Service again("com.example.hostile");
  again.checkIn();
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte, {untilAnswered()})));
  again.bus().answer(again.expect("servicePurge"), test::reply({{keys::amount, 5}}));
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(5));
}

TEST_F(AServiceThatDies, WhenItIsToldThatAPurgeIsCancelledIsForgotten) {
  Service second("com.example.second");
  second.checkIn();
  Client client;
  const Message call = nextPurge(client);
  const Message anotherCall = second.expect("servicePurge");
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
  // One without reading it, one before it answers.
  ASSERT_TRUE(service().bus().hasArrival());
  service().hangUp();
  const Message cancel = second.expect("serviceCancelPurge");
  second.sendBytes(test::answerTo(cancel).substr(0, 20));
  second.hangUp();
}

TEST_F(AServiceThatDies, WithMuchUnreadThatItSaidIsForgottenBeforeItIsBack) {
  Service again("com.example.hostile");
  ASSERT_TRUE(again.isServed());
  // The daemon finds all of it at once.
  daemon_.send(SIGSTOP);
  std::string calls;
  for (int call = 0; call < 1'000; ++call) {
    calls += test::WireCall().bytes();
  }
  service().sendBytes(calls);
  service().hangUp();
  again.beginCheckIn();
  daemon_.send(SIGCONT);
  // As one who was never there.
  again.bus().answer(again.expect("servicePing"));
  EXPECT_TRUE(again.endCheckIn().isDictionary());
}

TEST_F(AServiceThatDies, BySignalWithItsRequestsUnansweredGivesNothing) {
  expectDeathBySignalIn("servicePurge",
                        [] { EXPECT_EQ(Client().purge(purgeOf(mebibyte))[keys::amountReported], Value(0)); });
}

}  // namespace
}  // namespace kelvane
