// SPDX-License-Identifier: Apache-2.0
// A dictionary that several holders share and see change.
#pragma once

#include <memory>
#include <string_view>

#include "platform/Value.h"

namespace kelvane {

/// A property-list dictionary that may still change while others hold it, such as the operation info of a
/// pass inside a purge's result. A copy of the object refers to the same dictionary; copied() makes a new
/// one. Any thread may call any function; each is atomic, and reads give snapshots. It must not be stored within
/// itself, however indirectly: it would never be released, and comparing it would not end.
class MutableDictionary {
 public:
  /// A new, empty dictionary.
  MutableDictionary();
  /// A new dictionary with the entries of contents; empty when that is no dictionary.
  explicit MutableDictionary(const Value& contents);

  Value operator[](std::string_view key) const;
  /// Stores value under key; an absent value removes the entry.
  void set(std::string_view key, Value value) const;
  void remove(std::string_view key) const;
  /// The mutable dictionary stored under key; when there is none, a new and empty one, stored in the place of
  /// whatever was there.
  MutableDictionary nested(std::string_view key) const;

  /// The entries of this moment. Cheap when nothing changed since the last snapshot.
  std::shared_ptr<const Value::Dictionary> snapshot() const;
  /// A new, independent dictionary with the same entries.
  MutableDictionary copied() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kelvane
