// SPDX-License-Identifier: Apache-2.0
// Services that die when they are asked what they could free, or answer that as they should not.
#include <cmath>
#include <limits>

#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"
#include "tests/linux/testing/Eventually.h"

namespace kelvane {
namespace {

using test::Append;
using test::Client;
using test::eventually;
using test::mebibyte;
using test::Message;
using test::reply;
using test::Service;

constexpr char hostile[] = "com.example.hostile";

class AQuery : public test::HostileServiceTest {
 protected:
  static void begin(Client& client) {
    EXPECT_TRUE(client.send("clientPurgeableSpace", test::info({{keys::volume, test::volume}, {keys::urgency, 1}})));
  }
  static Value result() {
    Client client;
    begin(client);
    return client.nextResult();
  }
  /// Nobody is waiting for an answer any more, so this is what a query finds that asks nobody.
  static bool eventuallyCounts(const std::string& identifier, const Value& amount) {
    return eventually([&] { return result()[identifier] == amount; });
  }

  /// The request that the service gets for a query.
  Message nextQuery(Client& client) {
    begin(client);
    return service().expect("servicePurgeable");
  }
  /// The result that counts an answer of the service. A slow one counts the next time only.
  Value resultOf(const Append& answer) {
    forget();
    Client client;
    service().bus().answer(nextQuery(client), answer);
    EXPECT_TRUE(client.nextResult().isDictionary());
    EXPECT_TRUE(eventually([] { return result().contains(hostile); }));
    return result();
  }
  /// What is counted as nothing.
  void expectNothing(const Append& answer) {
    const Value counted = resultOf(answer);
    EXPECT_EQ(counted[hostile], Value(0));
    EXPECT_EQ(counted[keys::totalAvailable], Value(0));
  }
  /// Has the daemon ask again.
  static void forget() {
    const auto answer = Client().call("clientSetState", [](sd_bus_message* message) {
      return sd_bus_message_append(message, "vs", "o", "/", keys::recentServiceStats);
    });
    EXPECT_EQ(answer.error, "");
  }
};

TEST_F(AQuery, ThatIsAnsweredTwiceCountsTheFirst) {
  Client client;
  const Message call = nextQuery(client);
  service().bus().answer(call, reply({{keys::amount, 5}}));
  service().bus().answer(call, reply({{keys::amount, 7}}));
  service().bus().answerWithError(call, "com.example.Error", "and an error");
  EXPECT_TRUE(client.nextResult().isDictionary());
  EXPECT_TRUE(eventuallyCounts(hostile, Value(5)));
  // The other two were before this one.
  EXPECT_EQ(resultOf(reply({{keys::amount, 9}}))[hostile], Value(9));
}

TEST_F(AQuery, ThatIsAnsweredLateCountsThatTheNextTime) {
  Client client;
  const Message call = nextQuery(client);
  EXPECT_FALSE(client.nextResult().contains(hostile));
  service().bus().answer(call, reply({{keys::amount, 5}}));
  // Those that come before it ask again.
  EXPECT_TRUE(eventuallyCounts(hostile, Value(5)));
}

TEST_F(AQuery, ThatIsAnsweredWithNoDictionaryCountsNothing) {
  expectNothing(test::variant("5"));
  expectNothing(test::variant(5));
  expectNothing(test::dataOf(100));
  expectNothing(test::nestedArrays(5));
  expectNothing([](sd_bus_message* message) { return sd_bus_message_append(message, "v", "o", "/"); });
  expectNothing([](sd_bus_message* message) { return sd_bus_message_append(message, "v", "g", "v"); });
}

TEST_F(AQuery, ThatIsAnsweredWithAnotherSignatureCountsNothing) {
  expectNothing(test::nothing);
  expectNothing(test::info({{keys::amount, 5}}));
  expectNothing([](sd_bus_message* message) { return sd_bus_message_append(message, "s", "text"); });
  expectNothing([](sd_bus_message* message) { return sd_bus_message_append(message, "vv", "x", 5, "x", 5); });
}

TEST_F(AQuery, ThatIsAnsweredTooDeeplyCountsNothing) {
  expectNothing(reply({{keys::amount, 5}, {"Extra", test::nestedDictionaries(limits::wireDictionaryDepth + 1)}}));
}

TEST_F(AQuery, ThatIsAnsweredWithAnErrorCountsNothing) {
  Client client;
  service().bus().answerWithError(nextQuery(client), "com.example.Error", std::string(10'000, 'e'));
  EXPECT_TRUE(client.nextResult().isDictionary());
  EXPECT_TRUE(eventuallyCounts(hostile, Value(0)));
}

TEST_F(AQuery, ThatIsAnsweredWithoutAnAmountIsAskedAgain) {
  for (const Append& answer : {reply({}), reply({{keys::amount, test::dataOf(limits::recentAmountBytes + 1)}})}) {
    Client client;
    service().bus().answer(nextQuery(client), answer);
    EXPECT_FALSE(client.nextResult().contains(hostile));
  }
  EXPECT_EQ(resultOf(reply({{keys::amount, 9}}))[hostile], Value(9));
}

TEST_F(AQuery, ThatIsAnsweredWithAnAmountThatIsNoNumberDoesNotAddIt) {
  for (const Append& amount : {test::variant("5"), test::nestedDictionaries(3), test::nestedArrays(3)}) {
    const Value counted = resultOf(reply({{keys::amount, amount}}));
    EXPECT_FALSE(counted[hostile].isNumber()) << counted.description();
    EXPECT_EQ(counted[keys::totalAvailable], Value(0));
  }
}

TEST_F(AQuery, ThatIsAnsweredWithAnyNumberAddsIt) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
  const auto total = [this](const Append& amount) {
    return resultOf(reply({{keys::amount, amount}}))[keys::totalAvailable].int64Value();
  };
  EXPECT_EQ(total(test::variant(-1)), -1);
  EXPECT_EQ(total(test::variant(most)), most);
  EXPECT_EQ(total(test::variant(std::uint64_t{1} << 63)), least);
  EXPECT_EQ(total(test::variant(std::numeric_limits<std::uint64_t>::max())), -1);
  EXPECT_EQ(total(test::variant(std::numeric_limits<double>::infinity())), most);
  EXPECT_EQ(total(test::variant(-1e300)), least);
  EXPECT_EQ(total(test::variant(std::nan(""))), 0);
}

TEST_F(AQuery, ThatTwoServicesAnswerWithTheMostThereIsAddsThatUp) {
  Service second("com.example.second");
  second.checkIn();
  Client client;
  const Append most = reply({{keys::amount, std::numeric_limits<std::int64_t>::max()}});
  service().bus().answer(nextQuery(client), most);
  second.bus().answer(second.expect("servicePurgeable"), most);
  EXPECT_TRUE(client.nextResult().isDictionary());
  EXPECT_TRUE(eventually([] { return result()[keys::totalAvailable] == Value(-2); }));
}

TEST_F(AQuery, ThatIsAnsweredWithAMebibyteEndsTheConnection) {
  Client client;
  service().bus().answer(nextQuery(client), reply({{keys::amount, 5}, {"Extra", test::dataOf(mebibyte)}}));
  EXPECT_EQ(service().bus().nextCall(), nullptr);
  EXPECT_FALSE(client.nextResult().contains(hostile));
}

TEST_F(AQuery, IsAnsweredWithAsMuchAsCanBe) {
  EXPECT_EQ(resultOf(reply({{keys::amount, 5}, {"Extra", test::dataOf(limits::serviceReplyBytes - 256)}}))[hostile],
            Value(5));
}

TEST_F(AQuery, PassesOverAnswersToWhatWasNeverAsked) {
  for (std::uint32_t serial : {0U, 1U, 77U, 0xffffffffU}) {
    service().sendBytes(test::answerTo(serial));
  }
  EXPECT_EQ(resultOf(reply({{keys::amount, 9}}))[hostile], Value(9));
}

TEST_F(AQuery, MayBeAnsweredWithTheDaemonsOwnKeys) {
  const Value counted = resultOf(
      reply({{keys::amount, 5}, {keys::volume, "/"}, {keys::totalAvailable, 7}, {keys::optOut, true}, {hostile, 8}}));
  EXPECT_EQ(counted[hostile], Value(5));
  EXPECT_EQ(counted[keys::totalAvailable], Value(5));
  EXPECT_EQ(counted[keys::volume], Value(test::volume));
}

TEST_F(AQuery, HasItsOwnKeysWhateverServicesAreCalled) {
  Service total(keys::totalAvailable);
  Service volume(keys::volume);
  total.checkIn();
  volume.checkIn();
  Client client;
  service().bus().answer(nextQuery(client), reply({{keys::amount, 1}}));
  total.bus().answer(total.expect("servicePurgeable"), reply({{keys::amount, 2}}));
  volume.bus().answer(volume.expect("servicePurgeable"), reply({{keys::amount, 4}}));
  EXPECT_TRUE(client.nextResult().isDictionary());
  EXPECT_TRUE(eventually([] { return result()[keys::totalAvailable] == Value(7); }));
  EXPECT_EQ(result()[keys::volume], Value(test::volume));
}

using AQueryOfAServiceThatDies = AQuery;

TEST_F(AQueryOfAServiceThatDies, BeforeItReadsItCountsNothing) {
  Client client;
  begin(client);
  ASSERT_TRUE(service().bus().hasArrival());
  service().hangUp();
  EXPECT_FALSE(client.nextResult().contains(hostile));
  EXPECT_FALSE(result().contains(hostile));
}

TEST_F(AQueryOfAServiceThatDies, AfterItHasReadItCountsNothing) {
  Client client;
  const Message call = nextQuery(client);
  service().hangUp();
  EXPECT_FALSE(client.nextResult().contains(hostile));
  EXPECT_FALSE(result().contains(hostile));
}

TEST_F(AQueryOfAServiceThatDies, InTheMiddleOfItsAnswerCountsNothing) {
  Service second("com.example.second");
  Service third("com.example.third");
  second.checkIn();
  third.checkIn();
  Client client;
  service().sendBytes(test::answerTo(nextQuery(client)).substr(0, 1));
  const std::string another = test::answerTo(second.expect("servicePurgeable"));
  second.sendBytes(another.substr(0, another.size() / 2));
  const std::string last = test::answerTo(third.expect("servicePurgeable"));
  third.sendBytes(last.substr(0, last.size() - 1));
  service().hangUp();
  second.hangUp();
  third.hangUp();
  EXPECT_EQ(client.nextResult()[keys::totalAvailable], Value(0));
  EXPECT_EQ(result().dictionary()->size(), 2U);
}

TEST_F(AQueryOfAServiceThatDies, AfterItsAnswerCountsThat) {
  Client client;
  service().sendBytes(test::answerTo(nextQuery(client)));
  service().hangUp();
  EXPECT_TRUE(client.nextResult().isDictionary());
  EXPECT_TRUE(eventuallyCounts(hostile, Value(1)));
}

TEST_F(AQueryOfAServiceThatDies, AndComesBackIsAskedAgain) {
  Client client;
  const Message call = nextQuery(client);
  service().hangUp();
  Service again(hostile);
  again.checkIn();
  EXPECT_FALSE(client.nextResult().contains(hostile));
  begin(client);
  again.bus().answer(again.expect("servicePurgeable"), reply({{keys::amount, 5}}));
  EXPECT_TRUE(client.nextResult().isDictionary());
  EXPECT_TRUE(eventuallyCounts(hostile, Value(5)));
}

TEST_F(AQueryOfAServiceThatDies, BySignalCountsNothing) {
  expectDeathBySignalIn("servicePurgeable", [] { EXPECT_EQ(result()[keys::totalAvailable], Value(0)); });
}

}  // namespace
}  // namespace kelvane
