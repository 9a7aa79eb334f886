// SPDX-License-Identifier: Apache-2.0
// A client that changes state until the daemon dies, and knows what must be left of it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/durability/Progress.h"
#include "tests/durability/Seed.h"
#include "tests/durability/StateClient.h"

namespace kelvane::test {

/// Sets and removes keys of its own, several at a time. Whatever becomes of the daemon, the state has to be that after
/// some number of its changes: at least as many as were acknowledged, at most as many as were sent.
class StateWriter {
 public:
  /// Its keys begin with its name. Now and then a value has close to most bytes.
  StateWriter(std::string name, std::uint64_t number, std::size_t most, Progress& progress);

  /// Connects, and goes on on a thread of its own.
  void begin();
  /// From here on an error is no acknowledgement, and nothing else.
  void expectErrors() { mayFail_ = true; }
  /// To be called when the daemon is dead.
  void join();

  /// Whether the state can be what it left. From then on that is what it must stay.
  [[nodiscard]] testing::AssertionResult agreesWith(const Value::Dictionary& state);
  /// How many of its changes were acknowledged in all, and how large the largest was.
  std::uint64_t acknowledged() const { return acknowledged_; }
  std::size_t largest() const { return largest_; }

 private:
  using Entries = std::map<std::string, std::string>;
  struct Change {
    std::string key;
    /// None removes the key.
    std::optional<std::string> value;
    std::uint64_t cookie = 0;
  };

  void change();
  [[nodiscard]] bool sendNext();
  [[nodiscard]] bool takeAnswer();
  std::string nextValue();
  static void apply(const Change& change, Entries& entries);

  const std::string name_;
  const std::size_t most_;
  Random random_;
  Progress& progress_;
  std::optional<StateClient> client_;
  std::thread thread_;
  std::atomic<bool> mayFail_ = false;

  // The thread's while there is one:
  /// What was there before the changes.
  Entries entries_;
  std::vector<Change> changes_;
  /// So many of them, from the first.
  std::size_t acknowledgedChanges_ = 0;
  std::size_t answers_ = 0;
  std::uint64_t numberOfValue_ = 0;
  std::uint64_t acknowledged_ = 0;
  std::size_t largest_ = 0;
};

}  // namespace kelvane::test
