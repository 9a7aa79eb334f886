// SPDX-License-Identifier: Apache-2.0
// Reading typed entries of a configuration's dictionaries.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Value.h"

namespace kelvane::directoryCache {

/// One dictionary of a configuration. Remembers which keys were asked for and the first thing that was wrong, so
/// that a reader can take all entries first and test once. In the old-style text format every number is a
/// string, so strings of digits count as numbers.
class ConfigurationEntries {
 public:
  /// where says which dictionary it is, as in "Directories[2]"; empty for the outermost.
  ConfigurationEntries(const Value& value, std::string where);

  bool has(const std::string& key);
  std::string requiredString(const std::string& key);
  std::string string(const std::string& key, const std::string& fallback);
  bool boolean(const std::string& key, bool fallback);
  std::uint64_t bytes(const std::string& key, std::uint64_t fallback);
  std::vector<std::string> strings(const std::string& key);
  /// The elements; empty when there is no such entry.
  std::vector<Value> array(const std::string& key);

  void fail(const std::string& key, const std::string& expected);
  /// What was wrong first: an entry, or a key that was never asked for.
  std::optional<std::string> error() const;

  /// A number that is not negative, or a string of digits.
  static std::optional<std::uint64_t> unsignedNumber(const Value& value);

 private:
  Value take(const std::string& key);

  const std::string where_;
  std::shared_ptr<const Value::Dictionary> dictionary_;
  std::set<std::string> known_;
  std::optional<std::string> error_;
};

}  // namespace kelvane::directoryCache
