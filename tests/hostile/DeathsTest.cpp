// SPDX-License-Identifier: Apache-2.0
// Services that die, at each point of what the daemon has to do with them once it has answered their check-in.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "platform/linux/system/ControlSocket.h"
#include "platform/linux/system/FileDescriptor.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

using test::Client;
using test::mebibyte;
using test::Message;
using test::purgeOf;
using test::Service;

std::string wholeAnswerTo(const Message& call) {
  std::uint64_t cookie = 0;
  EXPECT_GE(sd_bus_message_get_cookie(call.get(), &cookie), 0);
  return test::answerTo(static_cast<std::uint32_t>(cookie));
}

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
  const std::string first = wholeAnswerTo(nextPurge(client));
  service().sendBytes(first.substr(0, 1));
  const std::string another = wholeAnswerTo(second.expect("servicePurge"));
  second.sendBytes(another.substr(0, another.size() / 2));
  const std::string last = wholeAnswerTo(third.expect("servicePurge"));
  third.sendBytes(last.substr(0, last.size() - 1));
  service().hangUp();
  second.hangUp();
  third.hangUp();
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
}

TEST_F(AServiceThatDies, AfterItsAnswerIsCounted) {
  Client client;
  service().sendBytes(wholeAnswerTo(nextPurge(client)));
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
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
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
  second.sendBytes(wholeAnswerTo(cancel).substr(0, 20));
  second.hangUp();
}

TEST_F(AServiceThatDies, DuringItsPeriodicWorkIsForgotten) {
  Service second("com.example.second");
  Service third("com.example.third");
  second.checkIn();
  third.checkIn();
  test::BusClient control(test::controlSocket, controlInterface);
  // The work goes on, volume by volume, until long after this test.
  ASSERT_TRUE(control.send("runActivity", [](sd_bus_message* message) {
    return sd_bus_message_append(message, "s", names::dailyActivity);
  }));
  ASSERT_TRUE(service().bus().hasArrival());
  service().hangUp();
  const Message call = second.expect("servicePeriodic");
  second.hangUp();
  third.sendBytes(wholeAnswerTo(third.expect("servicePeriodic")).substr(0, 20));
  third.hangUp();
}

TEST_F(AServiceThatDies, BySignalWithItsRequestsUnansweredGivesNothing) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const FileDescriptor reading(ends[0]);
  FileDescriptor writing(ends[1]);
  service().hangUp();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Service mortal("com.example.mortal");
    mortal.checkIn();
    [[maybe_unused]] const ssize_t told = write(writing.get(), "x", 1);
    const Message call = mortal.expect("servicePurge");
    raise(SIGKILL);
  }
  writing = FileDescriptor();
  char ignored = 0;
  ASSERT_EQ(read(reading.get(), &ignored, 1), 1);
  EXPECT_EQ(Client().purge(purgeOf(mebibyte))[keys::amountReported], Value(0));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

}  // namespace
}  // namespace kelvane
