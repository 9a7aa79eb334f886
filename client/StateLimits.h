// SPDX-License-Identifier: Apache-2.0
// What clients may leave with the daemon, and how much of it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>

#include "platform/Value.h"
#include "support/KelvaneExportedObject.h"

namespace kelvane {

/// Why a value can be no part of the state: it is too large or too deep to travel on, or holds none somewhere.
std::optional<KelvaneExportedObject::StateError> whyUnstorable(const Value& value);

/// Why a value cannot be stored in the place of the record of recent answers, for which room is kept.
std::optional<KelvaneExportedObject::StateError> whyNoRecord(const Value& value);

/// What the state comes to, but for the record of recent answers, which has room of its own. Kept as sums, so that a
/// change costs what changes and not what is there. Whoever changes the state owns it.
class StateTotals {
 public:
  StateTotals() = default;
  explicit StateTotals(const Value::Dictionary& state);

  /// As they are with another value under the key; either may be absent.
  [[nodiscard]] StateTotals with(const std::string& key, const Value& before, const Value& after) const;
  /// The most bytes that the state may take as a binary property list, with the largest record of recent answers in it;
  /// or why it is more than the store takes.
  std::variant<std::size_t, KelvaneExportedObject::StateError> room() const;

 private:
  std::size_t keys_ = 0;
  std::size_t bytes_ = 0;
  std::size_t room_ = 0;
};

/// Why a service cannot be known by its identifier and its notifications, which are kept for as long as it lives.
std::optional<std::string> whyTooMuchToKeep(const std::string& identifier, const Value& notifications);

}  // namespace kelvane
