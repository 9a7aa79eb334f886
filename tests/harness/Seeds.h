// SPDX-License-Identifier: Apache-2.0
// How many schedules a test tries.
#pragma once

#include <cstdint>

namespace kelvane::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KELVANE_TEST_IS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KELVANE_TEST_IS_SANITIZED 1
#endif
#endif

/// So many in a plain build. Sanitizers look for what one schedule shows as well as another, and take their time.
constexpr std::uint64_t seedCount(std::uint64_t count) {
#ifdef KELVANE_TEST_IS_SANITIZED
  return (count + 19) / 20;
#else
  return count;
#endif
}

}  // namespace kelvane::test
