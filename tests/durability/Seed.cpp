// SPDX-License-Identifier: Apache-2.0
// What a test leaves to chance.
#include "tests/durability/Seed.h"

#include <cstdlib>
#include <string>

namespace kelvane::test {

std::uint64_t seed() {
  static const std::uint64_t ofThisRun = [] {
    const char* const wanted = std::getenv("KELVANE_TEST_SEED");
    return wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : std::random_device()();
  }();
  return ofThisRun;
}

}  // namespace kelvane::test
