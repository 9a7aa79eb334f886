// SPDX-License-Identifier: Apache-2.0
// A small seeded stream of random numbers, the same on every machine.
#pragma once

#include <cstdint>

namespace kelvane::simulated {

/// One stream of numbers. Streams of the same seed are independent of each other, so that a test that draws
/// more from one leaves the others as they were.
class Random {
 public:
  enum class Stream : std::uint64_t { Schedule = 1, Faults = 2, Load = 3, Identifiers = 4 };

  Random(std::uint64_t seed, Stream stream) : state_(mixed(seed) ^ mixed(static_cast<std::uint64_t>(stream) << 32U)) {}

  std::uint64_t next() { return mixed(state_ += 0x9E3779B97F4A7C15U); }
  /// A number from 0 to bound - 1; bound is at least 1.
  std::uint64_t below(std::uint64_t bound) { return next() % bound; }
  /// True with this probability, from 0 to 1.
  bool chance(double probability) { return static_cast<double>(next() >> 11U) * 0x1.0p-53 < probability; }

  /// A well-spread function of its argument.
  static std::uint64_t mixed(std::uint64_t value) {
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31U);
  }

 private:
  std::uint64_t state_;
};

}  // namespace kelvane::simulated
