// SPDX-License-Identifier: Apache-2.0
// What a client of many stores and reads.
#include <gtest/gtest.h>

#include <iterator>

#include "protocols/Keys.h"
#include "tests/load/Arguments.h"
#include "tests/load/LoadClient.h"

namespace kelvane::test {

std::string LoadClient::ownKey() {
  return std::next(state_.begin(), pick(static_cast<unsigned>(state_.size())))->first;
}

Value LoadClient::randomValue() {
  const std::string text(pick(2'000), static_cast<char>('a' + pick(26)));
  switch (pick(7)) {
    case 0:
      return Value();
    case 1:
      return pick(2) == 0;
    case 2:
      return static_cast<std::int64_t>(random_()) - 1'000'000'000;
    case 3:
      return Data(pick(3'000), static_cast<std::uint8_t>(pick(256)));
    case 4:
      return Value::Array{text, pick(1'000) / 3.0, Value::Array{}};
    case 5:
      return Value::Dictionary{{"text", text}, {"inner", Value::Dictionary{{"number", random_()}}}};
    default:
      return text;
  }
}

void LoadClient::setState() {
  const std::string key = ownKey();
  const Value value = randomValue();
  state_[key] = value;
  requester_.send("clientSetState", stateOf(value, key), Requester::nothingIn());
}

void LoadClient::getState() {
  const std::string key = ownKey();
  requester_.send("clientGetState", keyOf(key), Requester::equal(state_[key]));
}

void LoadClient::getWholeState() {
  sendLong("clientGetState", keyOf(keys::userDefaults),
           Requester::value([expected = state_](const Value& store) -> std::string {
             for (const auto& [key, value] : expected) {
               if (store[key] != value) {
                 return "the whole state has " + store[key].description() + " for " + key + " instead of " +
                        value.description();
               }
             }
             return "";
           }));
}

/// What services are told of, and what makes the daemon ask them anew.
void LoadClient::changeSharedState() {
  if (pick(4) == 0) {
    requester_.send("clientSetState", stateOf(Value(pick(2) == 0), keys::cacheEnabled), Requester::nothingIn());
    requester_.send("clientGetState", keyOf(keys::cacheEnabled), Requester::value([](const Value& value) {
                      return value.isBoolean() ? "" : "neither true nor false, " + value.description();
                    }));
  } else {
    requester_.send("clientSetState", stateOf(Value(), keys::recentServiceStats), Requester::nothingIn());
  }
}

void LoadClient::expectStored(Client& reader) const {
  for (const auto& [key, value] : state_) {
    EXPECT_TRUE(reader.send("clientGetState", keyOf(key)));
    const Value stored = reader.nextResult();
    EXPECT_EQ(stored, value) << key << " is " << stored.description() << " and not " << value.description();
  }
}

}  // namespace kelvane::test
