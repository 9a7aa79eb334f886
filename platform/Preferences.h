// SPDX-License-Identifier: Apache-2.0
// A small persistent store of property-list values, opened by name.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace kelvane {

/// One preferences suite. Values set are readable at once, in memory; synchronize() makes them durable.
/// Any thread may call any function; each is atomic.
class PreferencesSuite {
 public:
  /// None when the store cannot be opened or made. A damaged store is kept aside, logged and replaced by an
  /// empty one.
  [[nodiscard]] static std::unique_ptr<PreferencesSuite> open(const std::string& name);
  ~PreferencesSuite();

  Value operator[](const std::string& key) const;
  /// An absent value removes the entry.
  void set(const std::string& key, Value value);
  /// Writes what was set since the last time to disk and waits for it; false when that failed, and what was
  /// set stays in memory for the next attempt.
  [[nodiscard]] bool synchronize();

  struct State;
  explicit PreferencesSuite(std::unique_ptr<State> state);

 private:
  std::unique_ptr<State> state_;
};

}  // namespace kelvane
