// SPDX-License-Identifier: Apache-2.0
// A small persistent store of property-list values, opened by name.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Result.h"
#include "platform/Value.h"

namespace kelvane {

/// One preferences suite. What is set is readable at once, in memory, and on disk some time later; who has to know
/// when asks whenDurable(). Any thread may call any function; each is atomic.
class PreferencesSuite {
 public:
  using Outcome = Result<>;
  using OutcomeHandler = std::function<void(const Outcome&)>;

  /// A damaged store is kept aside, logged and replaced by an empty one. One that cannot be read, or was written by a
  /// later version, is left alone, which the log says; and so is one whose disk has not answered within
  /// limits::openingPatience. Fails with EBUSY while another process has it open.
  static Result<std::unique_ptr<PreferencesSuite>> open(const std::string& name);
  /// Waits for a write under way, and until the handlers of all that was asked for have run.
  ~PreferencesSuite();

  /// A dictionary is copied.
  Value operator[](const std::string& key) const;
  /// An entry of the dictionary under a key, absent when it has no such entry; none when there is no dictionary.
  std::optional<Value> entry(const std::string& key, const std::string& entry) const;
  /// Changes an entry of the dictionary under the key, or removes it when the value is absent; an empty dictionary
  /// takes the place of anything else. Written to disk within seconds even when nobody asks for it. Costs the same
  /// however much the suite holds.
  void setEntry(const std::string& key, const std::string& entry, Value value);
  /// Has what was set so far written to disk, returns at once, and has the handler called with how that went.
  /// Callers share writes: one covers all that was set before it began. What could not be written stays in memory
  /// for the next attempt. The handler runs on the thread that writes, so it must return soon.
  void whenDurable(OutcomeHandler handler);
  /// Has what was set so far handed to the system, so that it outlives this process, though no loss of power, and waits
  /// for that: at most limits::diskPatience, and not at all while the disk has kept somebody waiting so long and still
  /// does. Costs nothing when nothing was set since. A failure is logged.
  void handOver();
  /// Makes sure that the suite can be written with contents of so many bytes (as a binary property list), even
  /// when the disk is full by then. Waits as handOver() does; the first limits::preferencesRoom bytes are there
  /// from the start unless the disk had no room for them when the suite was opened.
  Outcome makeRoom(std::size_t bytes);

  struct State;
  explicit PreferencesSuite(std::unique_ptr<State> state);

 private:
  std::unique_ptr<State> state_;
};

}  // namespace kelvane
