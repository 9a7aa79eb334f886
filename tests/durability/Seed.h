// SPDX-License-Identifier: Apache-2.0
// What a test leaves to chance.
#pragma once

#include <cstdint>
#include <random>

namespace kelvane::test {

/// Of this run of the program: another each time, unless KELVANE_TEST_SEED says which. The same seed makes the same
/// choices; how the processes' steps fall together with them is the system's.
std::uint64_t seed();

/// A source of choices of its own for each use.
class Random {
 public:
  explicit Random(std::uint64_t use) : engine_(seed() + use) {}

  /// 0 to most.
  std::uint64_t upTo(std::uint64_t most) { return std::uniform_int_distribution<std::uint64_t>(0, most)(engine_); }
  /// True once in so many times.
  bool oneIn(std::uint64_t count) { return upTo(count - 1) == 0; }

 private:
  std::mt19937_64 engine_;
};

}  // namespace kelvane::test
