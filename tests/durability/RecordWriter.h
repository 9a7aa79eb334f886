// SPDX-License-Identifier: Apache-2.0
// A service and a client that keep the record of recent answers changing until the daemon dies.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>

#include "tests/durability/StateClient.h"

namespace kelvane::test {

/// The client asks what could be freed, the service answers with a number that grows, and once that is in the record
/// the client removes it. So no number from before a removal that was acknowledged may come back. That a number is in
/// the record is promised to nobody.
class RecordWriter {
 public:
  /// Checks in, connects, and goes on on threads of its own.
  void begin();
  /// To be called when the daemon is dead.
  void join();

  /// Whether the state can be what it left.
  [[nodiscard]] testing::AssertionResult agreesWith(const Value::Dictionary& state) const;
  /// The last number that the service gave.
  std::uint64_t given() const { return given_; }

 private:
  void serve();
  void ask();

  std::optional<Service> service_;
  std::optional<StateClient> client_;
  std::thread serving_;
  std::thread asking_;
  std::atomic<std::uint64_t> given_ = 0;
  /// The least that the record may tell of.
  std::uint64_t least_ = 0;
};

}  // namespace kelvane::test
