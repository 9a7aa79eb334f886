// SPDX-License-Identifier: Apache-2.0
// The values of a suite, of which dictionaries can be changed in place.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "platform/Value.h"

namespace kelvane {

/// A change of one entry of the dictionary under a key. An absent value removes it.
struct SuiteChange {
  std::string key;
  std::string entry;
  Value value;
};

/// A dictionary whose values are known to be dictionaries or not, so that changing an entry of one costs the same
/// however many it has. Not safe for concurrent use.
class SuiteValues {
 public:
  explicit SuiteValues(const Value::Dictionary& values);

  /// A dictionary is copied.
  Value value(const std::string& key) const;
  /// None unless there is a dictionary under the key.
  std::optional<Value> entry(const std::string& key, const std::string& entry) const;
  /// Where there is no dictionary an empty one takes the place. Returns what was there before, which may take its time
  /// to go.
  Value apply(const SuiteChange& change);

  /// All of it, shared: nothing may be changed while a copy of the value lives.
  Value shared() const;

 private:
  using Entries = std::shared_ptr<Value::Dictionary>;
  std::map<std::string, std::variant<Value, Entries>, std::less<>> values_;
};

}  // namespace kelvane
