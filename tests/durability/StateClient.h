// SPDX-License-Identifier: Apache-2.0
// A client of the state store.
#pragma once

#include <string>

#include "tests/hostile/Service.h"

namespace kelvane::test {

/// The arguments that set a key to a value, which is in a variant.
Append setting(const std::string& key, const Append& value);
/// In place of a value: removes the key.
int none(sd_bus_message* message);

class StateClient : public Client {
 public:
  /// The error, and what it says in its text; neither when it was acknowledged.
  Answer set(const std::string& key, const Append& value) { return call("clientSetState", setting(key, value)); }
  Answer set(const std::string& key, const std::string& value) { return set(key, variant(value)); }
  Answer unset(const std::string& key) { return set(key, none); }
  Value get(const std::string& key);
  /// All that is stored, without what stands for keys that are not.
  Value::Dictionary all();
};

}  // namespace kelvane::test
