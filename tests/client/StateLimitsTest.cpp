// SPDX-License-Identifier: Apache-2.0
// What the state store refuses, and when it acknowledges.
#include <gtest/gtest.h>

#include "client/StateLimits.h"
#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "platform/common/PropertyListReaders.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

constexpr char tooMuch[] = "org.freedesktop.DBus.Error.LimitsExceeded: ";

Value nestedDictionaries(int count) {
  Value value = 1;
  for (int level = 0; level < count; ++level) {
    value = Value::Dictionary{{"in", value}};
  }
  return value;
}

Value nestedArrays(int count) {
  Value value = 1;
  for (int level = 0; level < count; ++level) {
    value = Value::Array{value};
  }
  return value;
}

class TheStateStore : public DaemonTest {
 protected:
  Value stored() { return simulation->preferences().contents("com.tessaly.kelvane")[keys::userDefaults]; }
};

TEST_F(TheStateStore, RefusesAValueThatIsTooLargeAndKeepsTheOldOne) {
  runDaemon([&] {
    const TestClient client;
    const std::string error = std::string(tooMuch) + "The value takes more than 1048576 bytes";
    EXPECT_EQ(client.setState("x", std::string(limits::stateValueBytes, 'x')), std::nullopt);
    EXPECT_EQ(client.setState("x", Data(limits::stateValueBytes, 7)), std::nullopt);
    EXPECT_EQ(client.setState("x", "old"), std::nullopt);
    EXPECT_EQ(client.setState("x", std::string(limits::stateValueBytes + 1, 'x')), error);
    EXPECT_EQ(client.setState("x", Data(limits::stateValueBytes + 1, 7)), error);
    EXPECT_EQ(client.setState("x", Value::Dictionary{{std::string(limits::stateValueBytes - 63, 'k'), 1}}), error);
    EXPECT_EQ(client.setState("x", Value::Array(limits::stateValueBytes / limits::stateElementBytes + 1, true)), error);
    EXPECT_EQ(client.state("x"), Value("old"));
    EXPECT_EQ(client.setState("x", Value::Array(limits::stateValueBytes / limits::stateElementBytes, true)),
              std::nullopt);
    EXPECT_EQ(client.setState("x", Value::Dictionary{{std::string(limits::stateValueBytes - 64, 'k'), 1}}),
              std::nullopt);
  });
}

TEST_F(TheStateStore, RefusesAValueThatIsTooDeepToTravelOn) {
  runDaemon([&] {
    const TestClient client;
    const std::string error =
        std::string(tooMuch) + "The value has more than 19 dictionaries, or too many arrays, within each other";
    EXPECT_EQ(client.setState("x", nestedDictionaries(19)), std::nullopt);
    EXPECT_EQ(client.setState("x", nestedDictionaries(20)), error);
    EXPECT_EQ(client.state("x"), nestedDictionaries(19));
    EXPECT_EQ(client.setState("x", nestedArrays(30)), std::nullopt);
    EXPECT_EQ(client.setState("x", nestedArrays(31)), error);
    EXPECT_EQ(client.setState("x", Value::Dictionary{{"a", nestedArrays(28)}}), std::nullopt);
    EXPECT_EQ(client.setState("x", Value::Dictionary{{"a", nestedArrays(29)}}), error);
  });
}

TEST_F(TheStateStore, MeasuresTheDepthOfEmptyContainersToo) {
  EXPECT_FALSE(whyUnstorable(nestedDictionaries(18)));
  Value value = Value::Dictionary{};
  for (int level = 1; level < limits::stateDictionaryDepth; ++level) {
    value = Value::Dictionary{{"in", value}};
  }
  EXPECT_FALSE(whyUnstorable(value)) << "the innermost is empty, the nineteenth";
  EXPECT_TRUE(whyUnstorable(Value::Dictionary{{"in", value}}));
}

TEST_F(TheStateStore, CarriesWhatItTakesToThoseWhoAreNotified) {
  runDaemon([&] {
    ScriptedService service("a");
    checkIn(TestClient(), service, {{"KELVANE_NOTIFICATIONS", Value::Array{"KELVANE_CACHE_ENABLED"}}});
    EXPECT_EQ(TestClient().setState("KELVANE_CACHE_ENABLED", nestedDictionaries(19)), std::nullopt);
    EXPECT_NE(TestClient().setState("KELVANE_CACHE_ENABLED", nestedDictionaries(20)), std::nullopt);
    simulation->settle();
    EXPECT_EQ(service.infos(),
              std::vector<Value>{Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", nestedDictionaries(19)}})})
        << "of what was refused nobody is told";
  });
}

TEST_F(TheStateStore, RefusesAValueThatHoldsNone) {
  runDaemon([&] {
    const TestClient client;
    const char error[] = "org.freedesktop.DBus.Error.InvalidArgs: The value holds none, which cannot be stored";
    EXPECT_EQ(client.setState("x", Value::Array{Value()}), error);
    EXPECT_EQ(client.setState("x", Value::Dictionary{{"a", Value::Dictionary{{"b", Value()}}}}), error);
    EXPECT_TRUE(stored().isAbsent());
  });
}

TEST_F(TheStateStore, RefusesWhatIsBeyondTheQuotaOfAllKeys) {
  runDaemon([&] {
    const TestClient client;
    // Eight of these with their keys are the quota.
    const std::size_t each = limits::stateBytes / 8 - limits::stateElementBytes - 2;
    for (int index = 0; index < 8; ++index) {
      EXPECT_EQ(client.setState("k" + std::to_string(index), std::string(each, 'x')), std::nullopt);
    }
    const std::string error = std::string(tooMuch) + "All state takes more than 8388608 bytes";
    EXPECT_EQ(client.setState("y", 1), error);
    EXPECT_EQ(client.setState("k0", std::string(each + 1, 'y')), error);
    EXPECT_EQ(client.state("k0"), Value(std::string(each, 'x')));
    EXPECT_EQ(client.setState("k0", std::string(each, 'z')), std::nullopt);
    EXPECT_EQ(client.setState("k0", Value()), std::nullopt);
    EXPECT_EQ(client.setState("y", 1), std::nullopt);
  });
}

TEST_F(TheStateStore, HasRoomForTheRecordBesideTheQuota) {
  runDaemon([&] {
    const TestClient client;
    const std::size_t each = limits::stateBytes / 8 - limits::stateElementBytes - 2;
    for (int index = 0; index < 8; ++index) {
      client.setState("k" + std::to_string(index), std::string(each, 'x'));
    }
    EXPECT_EQ(client.setState(keys::recentServiceStats, Data(limits::archiveBytes, 7)), std::nullopt);
    EXPECT_NE(client.setState(keys::recentServiceStats, Data(limits::archiveBytes + 1, 7)), std::nullopt);
    EXPECT_EQ(client.setState("k0", std::string(each, 'y')), std::nullopt) << "it does not count";
  });
}

class AStateStoreWithManyKeys : public TheStateStore {
 protected:
  void prepare() override {
    Value::Dictionary state;
    for (std::size_t index = 0; index < limits::stateKeys; ++index) {
      state[std::to_string(index)] = 1;
    }
    simulation->preferences().set("com.tessaly.kelvane", keys::userDefaults, state);
  }
};

TEST_F(AStateStoreWithManyKeys, HasSoManyAndNoMore) {
  runDaemon([&] {
    const TestClient client;
    EXPECT_EQ(client.setState("one more", 1), std::string(tooMuch) + "The state has more than 4096 keys");
    EXPECT_EQ(client.setState("0", 2), std::nullopt);
    EXPECT_EQ(client.setState(keys::recentServiceStats, Value(Data(1))), std::nullopt);
    EXPECT_EQ(client.setState("0", 3), std::nullopt) << "the record is not among the keys of clients";
    EXPECT_EQ(client.setState("0", Value()), std::nullopt);
    EXPECT_EQ(client.setState("0", Value()), std::nullopt);
    EXPECT_EQ(client.setState("one more", 1), std::nullopt) << "in the place of the one that is gone";
    EXPECT_NE(client.setState("0", 2), std::nullopt);
  });
}

TEST(TheTotalsOfTheState, AreThoseOfACountHoweverTheyCameAbout) {
  const Value::Dictionary state = {{"a", Value::Array{1, "text"}}, {"b", std::string(1000, 'x')}};
  const StateTotals totals = StateTotals(state)
                                 .with("c", Value(), Value::Dictionary{{"in", Data(500)}})
                                 .with("a", state.at("a"), Value())
                                 .with(keys::recentServiceStats, Value(), Data(5000))
                                 .with("b", state.at("b"), "y")
                                 .with("d", Value(), Value());
  const StateTotals counted({{"b", "y"}, {"c", Value::Dictionary{{"in", Data(500)}}}});
  EXPECT_EQ(std::get<std::size_t>(totals.room()), std::get<std::size_t>(counted.room()));
  EXPECT_NE(std::get<std::size_t>(totals.room()), std::get<std::size_t>(StateTotals().room()));
}

TEST_F(TheStateStore, NeverOutgrowsItsSuite) {
  // Texts that take two bytes for each of their own, or nearly so, and the smallest elements there are.
  Value::Dictionary texts;
  Value::Dictionary elements;
  for (int index = 0; index < 8; ++index) {
    const std::size_t each = limits::stateBytes / 8 - limits::stateElementBytes - 1;
    texts[std::to_string(index)] = "\u00e4" + std::string(each - 2, 'x');
    elements[std::to_string(index)] = Value::Array(each / limits::stateElementBytes, 0.5);
  }
  for (const Value::Dictionary& state : {texts, elements}) {
    const auto room = StateTotals(state).room();
    ASSERT_TRUE(std::holds_alternative<std::size_t>(room));
    Value::Dictionary all = state;
    all[keys::recentServiceStats] = Data(limits::archiveBytes);
    const auto written =
        propertyList::writeBinary(Value::Dictionary{{keys::userDefaults, all}},
                                  {limits::preferencesBytes, limits::preferencesEntries, limits::preferencesBytes});
    ASSERT_TRUE(std::holds_alternative<Data>(written));
    EXPECT_LE(std::get<Data>(written).size(), std::get<std::size_t>(room));
    EXPECT_LE(std::get<std::size_t>(room), limits::preferencesBytes);
  }
}

TEST_F(TheStateStore, RefusesInTheRecordsPlaceWhatItsRoomDoesNotHold) {
  runDaemon([&] {
    const TestClient client;
    simulation->preferences().setRoom(limits::preferencesRoom);
    // Takes two bytes for each of its own when it is written.
    const std::string wide = "\u00e4" + std::string(limits::archiveBytes / 2, 'x');
    const auto error = client.setState(keys::recentServiceStats, wide);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->rfind(tooMuch, 0), 0u) << *error;
    EXPECT_EQ(client.state(keys::recentServiceStats), Value());
    EXPECT_EQ(client.setState(keys::recentServiceStats, wide.substr(0, limits::archiveBytes / 4)), std::nullopt);
    EXPECT_EQ(client.setState("x", 1), std::nullopt);
  });
}

TEST_F(TheStateStore, RefusesWhatAFullDiskHasNoRoomFor) {
  runDaemon([&] {
    const TestClient client;
    EXPECT_EQ(client.setState("x", std::string(1000, 'x')), std::nullopt);
    simulation->preferences().setRoom(limits::preferencesRoom);
    const char error[] = "org.freedesktop.DBus.Error.IOError: writing: No space left on device";
    EXPECT_EQ(client.setState("x", std::string(200'000, 'y')), error);
    EXPECT_EQ(client.state("x"), Value(std::string(1000, 'x')));
    EXPECT_EQ(client.setState("x", std::string(100'000, 'z')), std::nullopt);
    EXPECT_EQ(client.setState("y", 1), std::nullopt);
    EXPECT_EQ(client.setState("x", Value()), std::nullopt);
  });
}

TEST_F(TheStateStore, AcknowledgesWhenTheDiskHasTheValueAndNotBefore) {
  for (std::uint64_t seed = 0; seed < 30; ++seed) {
    runDaemon(
        [&] {
          const TestClient client;
          EXPECT_EQ(client.setState("x", static_cast<int>(seed)), std::nullopt);
          EXPECT_EQ(simulation->preferences().onDisk("com.tessaly.kelvane")[keys::userDefaults]["x"],
                    Value(static_cast<int>(seed)));
        },
        seed);
  }
}

TEST_F(TheStateStore, SaysWhenTheDiskFailed) {
  runDaemon([&] {
    const TestClient client;
    simulation->preferences().setFailing(true);
    EXPECT_EQ(client.setState("x", 1), "org.freedesktop.DBus.Error.IOError: flushing: Input/output error");
    simulation->preferences().setFailing(false);
    EXPECT_EQ(client.setState("y", 2), std::nullopt);
    EXPECT_EQ(simulation->preferences().onDisk("com.tessaly.kelvane")[keys::userDefaults]["x"], Value(1))
        << "what failed is written with the next";
  });
}

TEST_F(TheStateStore, ServesOthersWhileAClientWaitsForTheDisk) {
  runDaemon([&] {
    onDefaultsQueue([&] {
      kelvane->clientSetState(1, "x", [](const auto&) {});
      kelvane->clientSetState(2, "x", [](const auto&) {});
    });
    Value seen;
    kelvane->clientGetState("x", [&](const Value& value) { seen = value; });
    simulation->settle();
    EXPECT_EQ(seen, Value(2));
  });
}

}  // namespace
}  // namespace kelvane::test
