// SPDX-License-Identifier: Apache-2.0
// Services that answer a purge as they should not.
#include <poll.h>

#include <array>
#include <cmath>
#include <limits>

#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

using test::Append;
using test::Client;
using test::mebibyte;
using test::Message;
using test::purgeOf;
using test::reply;
using test::untilAnswered;

class AnAnswer : public test::HostileServiceTest {
 protected:
  /// The bytes that the daemon counts for an answer which is less than what it asked for.
  Value reported(const Append& answer) {
    Client client;
    service().bus().answer(nextPurge(client, {untilAnswered()}), answer);
    return client.nextResult()[keys::amountReported];
  }

  /// The result of a purge in which the service answers all that it is asked in the same way.
  Value resultOfAnsweringAlways(const Append& answer) {
    Client client;
    EXPECT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
    std::array<pollfd, 2> states = {{{client.socket(), POLLIN, 0}, {service().bus().socket(), POLLIN, 0}}};
    while ((states[0].revents & POLLIN) == 0) {
      while (const Message call = service().bus().pendingCall()) {
        const bool isPurge = sd_bus_message_is_method_call(call.get(), nullptr, "servicePurge") > 0;
        service().bus().answer(call, isPurge ? answer : test::nothing);
      }
      EXPECT_GT(poll(states.data(), states.size(), 60'000), 0);
    }
    return client.nextResult();
  }
};

TEST_F(AnAnswer, ThatComesTwiceCountsOnce) {
  Client client;
  const Message call = nextPurge(client, {untilAnswered()});
  service().bus().answer(call, reply({{keys::amount, 5}}));
  service().bus().answer(call, reply({{keys::amount, 7}}));
  service().bus().answerWithError(call, "com.example.Error", "and an error");
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(5));
  EXPECT_EQ(reported(reply({{keys::amount, 9}})), Value(9));
}

TEST_F(AnAnswer, AfterTheDeadlineFindsNobodyWaiting) {
  Client client;
  const Message call = nextPurge(client);
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
  // It was told.
  const Message cancel = service().expect("serviceCancelPurge");
  service().bus().answer(call, reply({{keys::amount, 5}}));
  service().bus().answer(cancel);
  EXPECT_EQ(reported(reply({{keys::amount, 9}})), Value(9));
}

TEST_F(AnAnswer, OfNoDictionaryCountsAsNothing) {
  EXPECT_EQ(reported(test::variant("1048576")), Value(0));
  EXPECT_EQ(reported(test::variant(std::uint64_t{mebibyte})), Value(0));
  EXPECT_EQ(reported(test::dataOf(100)), Value(0));
  EXPECT_EQ(reported(test::nestedArrays(5)), Value(0));
  EXPECT_EQ(reported([](sd_bus_message* message) { return sd_bus_message_append(message, "v", "o", "/"); }), Value(0));
  EXPECT_EQ(reported([](sd_bus_message* message) { return sd_bus_message_append(message, "v", "g", "v"); }), Value(0));
}

TEST_F(AnAnswer, OfAnotherSignatureCountsAsNothing) {
  EXPECT_EQ(reported(test::nothing), Value(0));
  EXPECT_EQ(reported(test::info({{keys::amount, 5}})), Value(0));
  EXPECT_EQ(reported([](sd_bus_message* message) { return sd_bus_message_append(message, "s", "text"); }), Value(0));
  EXPECT_EQ(reported([](sd_bus_message* message) { return sd_bus_message_append(message, "vv", "x", 5, "x", 5); }),
            Value(0));
}

TEST_F(AnAnswer, WithoutAnAmountCountsAsNothing) {
  EXPECT_EQ(reported(reply({})), Value(0));
  EXPECT_EQ(reported(reply({{keys::amount, "5"}})), Value(0));
  EXPECT_EQ(reported(reply({{keys::amount, test::nestedDictionaries(3)}})), Value(0));
  EXPECT_EQ(reported(reply({{keys::amount, std::nan("")}})), Value(0));
  EXPECT_EQ(reported(reply({{keys::amount, -1.5}})), Value(0));
}

TEST_F(AnAnswer, NestedTooDeeplyCountsAsNothing) {
  EXPECT_EQ(reported(reply({{keys::amount, 5}, {"Extra", test::nestedDictionaries(limits::wireDictionaryDepth + 1)}})),
            Value(0));
}

TEST_F(AnAnswer, ThatIsAnErrorCountsAsNothing) {
  Client client;
  service().bus().answerWithError(nextPurge(client, {untilAnswered()}), "com.example.Error", std::string(10'000, 'e'));
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
  EXPECT_EQ(reported(reply({{keys::amount, 9}})), Value(9));
}

TEST_F(AnAnswer, OfNothingAtAllLetsThePassEndInItsTime) {
  Client client;
  const Message call = nextPurge(client);
  EXPECT_GE(client.nextResult()[keys::elapsedTime].doubleValue(), 1.0);
}

TEST_F(AnAnswer, OfAMebibyteEndsTheConnection) {
  Client client;
  const Message call = nextPurge(client);
  service().bus().answer(call, reply({{keys::amount, 5}, {"Extra", test::dataOf(mebibyte)}}));
  EXPECT_EQ(service().bus().nextCall(), nullptr);
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0));
}

TEST_F(AnAnswer, AsLongAsCanBeIsTaken) {
  EXPECT_EQ(reported(reply({{keys::amount, 5}, {"Extra", test::dataOf(limits::serviceReplyBytes - 256)}})), Value(5));
}

TEST_F(AnAnswer, ThatClaimsMoreThanThereIsIsNotBelieved) {
  // Whoever gives all that it is asked for may be asked again, as long as the pass lasts.
  for (const Append& claim :
       {test::variant(std::numeric_limits<std::uint64_t>::max()), test::variant(-1),
        test::variant(std::numeric_limits<double>::infinity()), test::variant(1e300), test::variant(mebibyte)}) {
    EXPECT_TRUE(resultOfAnsweringAlways(reply({{keys::amount, claim}})).isDictionary());
  }
}

TEST_F(AnAnswer, MayHoldTheDaemonsOwnKeys) {
  Client client;
  service().bus().answer(
      nextPurge(client, {untilAnswered()}),
      reply({{keys::amount, 5}, {keys::volume, "/"}, {keys::freespaceBegin, 0}, {keys::elapsedTime, "never"}}));
  const Value result = client.nextResult();
  EXPECT_EQ(result[keys::volume], Value(test::volume));
  EXPECT_EQ(result[keys::amountReported], Value(5));
}

TEST_F(AnAnswer, ToWhatWasNeverAskedIsPassedOver) {
  for (std::uint32_t serial : {0U, 1U, 77U, 0xffffffffU}) {
    service().sendBytes(test::answerTo(serial));
  }
  EXPECT_EQ(reported(reply({{keys::amount, 9}})), Value(9));
}

}  // namespace
}  // namespace kelvane
