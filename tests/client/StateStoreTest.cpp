// SPDX-License-Identifier: Apache-2.0
// The state store: what is set, what is read, and who is told.
#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

constexpr char suite[] = "com.tessaly.kelvane";
constexpr char getName[] = "-[Kelvane _clientGetState:replyBlock:]";
constexpr char getSyncName[] = "-[Kelvane clientGetStateSync:]";

class TheState : public DaemonTest {
 protected:
  /// What the suite holds for the store.
  Value stored() { return simulation->preferences().contents(suite)[keys::userDefaults]; }
  Value onDisk() { return simulation->preferences().onDisk(suite)[keys::userDefaults]; }

  std::vector<std::string> logOf(const std::function<void()>& body) {
    log().clear();
    body();
    return log().texts();
  }
  static std::string line(const std::string& text) { return std::string(getName) + " " + text; }

  Value plainSync(const Value& key) {
    StateObject object;
    onDefaultsQueue([&] { object = kelvane->clientGetStateSync(key); });
    return std::get<Value>(object);
  }
};

TEST_F(TheState, OfAFreshSuiteIsItsDefaultsWithoutALogLineAndNoneAsAWhole) {
  runDaemon([&] {
    const TestClient client;
    const std::vector<std::string> lines = {line("ENTRY"), line("EXIT")};
    EXPECT_EQ(logOf([&] { EXPECT_EQ(client.state("KELVANE_CACHE_ENABLED"), Value(true)); }), lines);
    EXPECT_EQ(logOf([&] { EXPECT_TRUE(client.state("KELVANE_USER_DEFAULTS").isAbsent()); }), lines);
    EXPECT_EQ(logOf([&] { EXPECT_TRUE(client.state("unknown").isAbsent()); }), lines);
  });
}

TEST_F(TheState, AsAWholeIsAFilledInCopyOnceSomethingIsStored) {
  runDaemon([&] {
    const TestClient client;
    EXPECT_EQ(client.setState("x", 1), std::nullopt);
    EXPECT_EQ(client.state("KELVANE_USER_DEFAULTS"),
              Value(Value::Dictionary{{"x", 1}, {"KELVANE_CACHE_ENABLED", true}}));
    EXPECT_EQ(stored(), Value(Value::Dictionary{{"x", 1}})) << "defaults are never stored";
    EXPECT_EQ(logOf([&] { EXPECT_EQ(client.state("KELVANE_CACHE_ENABLED"), Value(true)); }),
              (std::vector<std::string>{line("ENTRY"), line("using default value: 1 for key: KELVANE_CACHE_ENABLED"),
                                        line("EXIT")}));
    EXPECT_EQ(log().texts(5).size(), 3u) << "all of it traces";
    EXPECT_EQ(client.state("x"), Value(1));
    EXPECT_TRUE(client.state("y").isAbsent());
  });
}

TEST_F(TheState, IsTheOneEntryOfItsSuite) {
  runDaemon([&] {
    const TestClient client;
    client.setState("x", 1);
    client.state("x");
    EXPECT_EQ(Value(simulation->preferences().contents(suite)),
              Value(Value::Dictionary{{"KELVANE_USER_DEFAULTS", Value::Dictionary{{"x", 1}}}}));
  });
}

TEST_F(TheState, AsAWholeLeavesAStoredValueInADefaultsPlace) {
  runDaemon([&] {
    const TestClient client;
    client.setState("KELVANE_CACHE_ENABLED", false);
    EXPECT_EQ(client.state("KELVANE_USER_DEFAULTS"), Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", false}}));
  });
}

TEST_F(TheState, IsAWholeUnderThatKeyWhateverIsStoredThere) {
  runDaemon([&] {
    const TestClient client;
    client.setState("KELVANE_USER_DEFAULTS", "mine");
    EXPECT_EQ(client.state("KELVANE_USER_DEFAULTS"),
              Value(Value::Dictionary{{"KELVANE_USER_DEFAULTS", "mine"}, {"KELVANE_CACHE_ENABLED", true}}));
  });
}

TEST_F(TheState, LosesAKeyThatIsSetToNothingAndKeepsAnEmptyDictionary) {
  runDaemon([&] {
    const TestClient client;
    client.setState("x", 1);
    EXPECT_EQ(client.setState("x", Value()), std::nullopt);
    EXPECT_TRUE(client.state("x").isAbsent());
    EXPECT_EQ(stored(), Value(Value::Dictionary{}));
    EXPECT_EQ(client.state("KELVANE_USER_DEFAULTS"), Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", true}}));
  });
}

TEST_F(TheState, IsStoredByTheRemovalOfWhatWasNeverThere) {
  runDaemon([&] {
    EXPECT_EQ(TestClient().setState("x", Value()), std::nullopt);
    EXPECT_EQ(stored(), Value(Value::Dictionary{}));
  });
}

TEST_F(TheState, HoldsEveryKindOfValue) {
  runDaemon([&] {
    const TestClient client;
    for (const Value& value : {Value("text"), Value(-1), Value(std::uint64_t{1} << 63), Value(0.5), Value(false),
                               Value(Date{7}), Value(Data{1, 2}), Value(Value::Array{1, "2"}),
                               Value(Value::Dictionary{{"a", Value::Dictionary{{"b", 1}}}})}) {
      EXPECT_EQ(client.setState("x", value), std::nullopt);
      EXPECT_EQ(client.state("x"), value);
    }
  });
}

TEST_F(TheState, NeedsNoEntitlementButTheClients) {
  runDaemon([&] {
    const TestClient client = clientOf("partial");
    EXPECT_EQ(client.setState("x", 1), std::nullopt);
    EXPECT_EQ(client.state("x"), Value(1));
    const auto answer = clientOf("nobody").send(KelvaneClientProtocol::clientGetState, {Value("x")});
    simulation->settle();
    EXPECT_TRUE(answer->failed);
  });
}

TEST_F(TheState, SurvivesARestart) {
  runDaemon([&] { EXPECT_EQ(TestClient().setState("x", 1), std::nullopt); });
  simulation->run([&] {
    kelvane = Kelvane::init();
    EXPECT_EQ(TestClient().state("x"), Value(1));
    kelvane.reset();
  });
}

TEST_F(TheState, HasNoKeyThatIsNoString) {
  runDaemon([&] {
    for (const Value& key : {Value(7), Value(), Value(Data{1})}) {
      log().clear();
      bool isAnswered = false;
      onDefaultsQueue([&] {
        kelvane->_clientGetState(key, [&](const Value& value) {
          isAnswered = true;
          EXPECT_TRUE(value.isAbsent());
        });
      });
      EXPECT_TRUE(isAnswered);
      EXPECT_EQ(log().texts(3), std::vector<std::string>{line("key is not an OQString: ") + key.description()});
    }
  });
}

TEST_F(TheState, ThatIsNoDictionaryIsNone) {
  runDaemon([&] {
    simulation->preferences().set(suite, keys::userDefaults, Value::Array{1});
    const TestClient client;
    for (const char* key : {"x", "KELVANE_CACHE_ENABLED", "KELVANE_USER_DEFAULTS"}) {
      EXPECT_EQ(
          logOf([&] { EXPECT_TRUE(client.state(key).isAbsent()); }),
          (std::vector<std::string>{line("ENTRY"), line("persistent_state is not a dictionary: ( 1 )"), line("EXIT")}));
      EXPECT_EQ(log().texts(3).size(), 1u);
    }
  });
}

TEST_F(TheState, ThatIsNoDictionaryIsReplacedByWhatIsSet) {
  runDaemon([&] {
    simulation->preferences().set(suite, keys::userDefaults, "odd");
    EXPECT_EQ(TestClient().setState("x", 1), std::nullopt);
    EXPECT_EQ(stored(), Value(Value::Dictionary{{"x", 1}}));
  });
}

class WithoutASuite : public TheState {
 protected:
  void prepare() override { simulation->preferences().setOpenable(false); }
};

TEST_F(WithoutASuite, WhatIsSetIsLostAndAcknowledged) {
  runDaemon([&] {
    log().clear();
    const TestClient client;
    EXPECT_EQ(client.setState("x", 1), std::nullopt);
    EXPECT_TRUE(client.state("x").isAbsent());
    EXPECT_EQ(client.setState("KELVANE_CACHE_ENABLED", false), std::nullopt);
    EXPECT_EQ(client.state("KELVANE_CACHE_ENABLED"), Value(true));
    EXPECT_TRUE(client.state("KELVANE_USER_DEFAULTS").isAbsent());
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(WithoutASuite, RecipientsAreToldAllTheSame) {
  runDaemon([&] {
    ScriptedService service("a");
    checkIn(TestClient(), service, {{"KELVANE_NOTIFICATIONS", Value::Array{"KELVANE_CACHE_ENABLED"}}});
    EXPECT_EQ(TestClient().setState("KELVANE_CACHE_ENABLED", false), std::nullopt);
    simulation->settle();
    EXPECT_EQ(service.count("serviceNotify"), 1u);
  });
}

// Who is told.

TEST_F(TheState, TellsThoseWhoAskedForItOfTheCacheSwitch) {
  runDaemon([&] {
    ScriptedService asked("asked");
    ScriptedService other("other");
    const TestClient client;
    checkIn(client, asked, {{"KELVANE_NOTIFICATIONS", Value::Array{"KELVANE_CACHE_ENABLED", "x"}}});
    checkIn(client, other, {{"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    EXPECT_EQ(client.setState("KELVANE_CACHE_ENABLED", false), std::nullopt);
    simulation->settle();
    EXPECT_EQ(asked.infos(), std::vector<Value>{Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", false}})});
    EXPECT_EQ(client.state("KELVANE_CACHE_ENABLED"), Value(false));

    EXPECT_EQ(client.setState("KELVANE_CACHE_ENABLED", Value()), std::nullopt);
    simulation->settle();
    ASSERT_EQ(asked.infos().size(), 2u);
    EXPECT_EQ(asked.infos()[1], Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", Value()}}));
    EXPECT_EQ(client.state("KELVANE_CACHE_ENABLED"), Value(true));
    EXPECT_EQ(stored(), Value(Value::Dictionary{}));

    client.setState("x", 1);
    simulation->settle();
    EXPECT_EQ(asked.count("serviceNotify"), 2u) << "no other key is told of";
    EXPECT_EQ(other.count("serviceNotify"), 0u);
  });
}

TEST_F(TheState, TellsOfTheCacheSwitchWhateverItsValueWasBefore) {
  runDaemon([&] {
    const TestClient client;
    client.setState("KELVANE_CACHE_ENABLED", true);
    client.setState("KELVANE_CACHE_ENABLED", true);
    EXPECT_EQ(log().count("-[Kelvane notifyRecipients:value:] name: KELVANE_CACHE_ENABLED, value: 1"), 2u);
  });
}

TEST_F(TheState, TellsOfTheCacheSwitchBeforeItAnswers) {
  runDaemon([&] {
    kelvane->collection_queue().suspend();
    const TestClient client;
    const auto answer = client.send(KelvaneClientProtocol::clientSetState, {Value(false), Value(keys::cacheEnabled)});
    const auto read = TestClient().send(KelvaneClientProtocol::clientGetState, {Value(keys::cacheEnabled)});
    simulation->settle();
    EXPECT_FALSE(answer->arrived);
    EXPECT_FALSE(read->arrived) << "the snapshot of the services is taken on the defaults queue";
    EXPECT_EQ(stored(), Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", false}}));
    kelvane->collection_queue().resume();
    simulation->settle();
    EXPECT_TRUE(answer->arrived);
    EXPECT_EQ(read->value, Value(false));
  });
}

// On its queue.

TEST_F(TheState, AnswersItsInnerFunctionsOnTheDefaultsQueueBeforeTheyReturn) {
  runDaemon([&] {
    onDefaultsQueue([&] {
      bool isStored = false;
      kelvane->_clientSetState(1, "x", [&](const auto& error) {
        EXPECT_FALSE(error);
        EXPECT_TRUE(kelvane->defaults_queue().isCurrent());
        isStored = true;
      });
      EXPECT_TRUE(isStored);
      Value value;
      kelvane->_clientGetState("x", [&](const Value& found) {
        EXPECT_TRUE(kelvane->defaults_queue().isCurrent());
        value = found;
      });
      EXPECT_EQ(value, Value(1));
    });
  });
}

TEST_F(TheState, AnswersBeforeItLogsItsExit) {
  runDaemon([&] {
    log().clear();
    onDefaultsQueue([&] {
      kelvane->_clientGetState(
          "x", [&](const Value&) { EXPECT_EQ(log().texts(), std::vector<std::string>{line("ENTRY")}); });
    });
    EXPECT_EQ(log().texts(), (std::vector<std::string>{line("ENTRY"), line("EXIT")}));
  });
}

using TheStateDeathTest = TheState;

TEST_F(TheStateDeathTest, StopsTheProcessWhenItsInnerFunctionsAreCalledElsewhere) {
  runDaemon([&] {
    constexpr char label[] = "com.tessaly.kelvane_defaults";
    EXPECT_DEATH(kelvane->_clientSetState(1, "x", [](const auto&) {}), label);
    EXPECT_DEATH(kelvane->_clientGetState("x", [](const Value&) {}), label);
    EXPECT_DEATH(kelvane->clientSetStateSync(Value(1), "x"), label);
    EXPECT_DEATH(kelvane->clientGetStateSync("x"), label);
    EXPECT_DEATH(kelvane->collection_queue().sync([&] { kelvane->clientGetStateSync("x"); }), label);
  });
}

TEST_F(TheState, IsReadSynchronouslyWithTheseLines) {
  runDaemon([&] {
    TestClient().setState("x", "value");
    EXPECT_EQ(logOf([&] { EXPECT_EQ(plainSync("x"), Value("value")); }),
              (std::vector<std::string>{std::string(getSyncName) + " ENTRY", std::string(getSyncName) + " 619",
                                        line("ENTRY"), line("EXIT"), std::string(getSyncName) + " EXIT"}));
    EXPECT_EQ(log().texts(5).size(), 5u) << "all of it traces";
    EXPECT_EQ(plainSync("KELVANE_CACHE_ENABLED"), Value(true));
    EXPECT_TRUE(plainSync("unknown").isAbsent());
    EXPECT_TRUE(plainSync(7).isAbsent());
  });
}

TEST_F(TheState, IsReadSynchronouslyAsAWholeWithItsDataAsItIs) {
  runDaemon([&] {
    TestClient().setState("x", Data{1});
    EXPECT_EQ(plainSync("KELVANE_USER_DEFAULTS"),
              Value(Value::Dictionary{{"x", Data{1}}, {"KELVANE_CACHE_ENABLED", true}}));
  });
}

TEST_F(TheState, LogsWhatItCannotStoreSynchronously) {
  runDaemon([&] {
    log().clear();
    onDefaultsQueue([&] { kelvane->clientSetStateSync(Value(Value::Array{Value()}), "x"); });
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[Kelvane clientSetStateSync:key:] unable to store the value of "
                                       "x: The value holds none, which cannot be stored"});
  });
}

TEST_F(TheState, IsSetSynchronouslyToAnyValueOrNone) {
  runDaemon([&] {
    onDefaultsQueue([&] {
      kelvane->clientSetStateSync(Value("value"), "x");
      kelvane->clientSetStateSync(Value(Data{1, 2}), "data");
    });
    EXPECT_EQ(stored(), Value(Value::Dictionary{{"data", Data{1, 2}}, {"x", "value"}}));
    onDefaultsQueue([&] { kelvane->clientSetStateSync(Value(), "x"); });
    EXPECT_EQ(TestClient().state("x"), Value());
  });
}

}  // namespace
}  // namespace kelvane::test
