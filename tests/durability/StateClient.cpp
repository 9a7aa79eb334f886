// SPDX-License-Identifier: Apache-2.0
// A client of the state store.
#include "tests/durability/StateClient.h"

#include <gtest/gtest.h>

#include "protocols/Keys.h"

namespace kelvane::test {

Append setting(const std::string& key, const Append& value) {
  return [=](sd_bus_message* message) {
    const int result = value(message);
    return result < 0 ? result : sd_bus_message_append(message, "s", key.c_str());
  };
}

int none(sd_bus_message* message) {
  return sd_bus_message_append(message, "v", "o", "/");
}

Value StateClient::get(const std::string& key) {
  EXPECT_TRUE(send("clientGetState",
                   [&](sd_bus_message* message) { return sd_bus_message_append(message, "s", key.c_str()); }));
  return nextResult();
}

Value::Dictionary StateClient::all() {
  const auto state = get(keys::userDefaults).dictionary();
  Value::Dictionary stored = state ? *state : Value::Dictionary();
  stored.erase(keys::cacheEnabled);
  return stored;
}

}  // namespace kelvane::test
