// SPDX-License-Identifier: Apache-2.0
// A small persistent store of property-list values, opened by name.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace kelvane {

/// One preferences suite. What is set is readable at once, in memory, and on disk some time later; who has to know
/// when asks whenDurable(). Any thread may call any function; each is atomic.
class PreferencesSuite {
 public:
  /// None, or what went wrong, in words.
  using Outcome = std::optional<std::string>;
  using OutcomeHandler = std::function<void(const Outcome&)>;

  /// None when the store cannot be opened or made. A damaged store is kept aside, logged and replaced by an
  /// empty one.
  [[nodiscard]] static std::unique_ptr<PreferencesSuite> open(const std::string& name);
  /// Waits for a write under way, and until the handlers of all that was asked for have run.
  ~PreferencesSuite();

  Value operator[](const std::string& key) const;
  /// An absent value removes the entry. Costs the same however much the suite holds. Written to disk within seconds
  /// even when nobody asks for it.
  void set(const std::string& key, Value value);
  /// Has what was set so far written to disk, returns at once, and has the handler called with how that went.
  /// Callers share writes: one covers all that was set before it began. What could not be written stays in memory
  /// for the next attempt. The handler runs on the thread that writes, so it must return soon.
  void whenDurable(OutcomeHandler handler);
  /// Makes sure that the suite can be written with contents of so many bytes (as a binary property list), even
  /// when the disk is full by then. May block; the first limits::preferencesRoom bytes are always there.
  [[nodiscard]] Outcome makeRoom(std::size_t bytes);

  struct State;
  explicit PreferencesSuite(std::unique_ptr<State> state);

 private:
  std::unique_ptr<State> state_;
};

}  // namespace kelvane
