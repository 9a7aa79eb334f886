// SPDX-License-Identifier: Apache-2.0
// Waiting for what no event tells of.
#include "tests/linux/testing/Eventually.h"

#include <poll.h>

namespace kelvane::test {

bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    // Leaves the processor to whom this waits for.
    poll(nullptr, 0, 1);
  }
  return true;
}

}  // namespace kelvane::test
