// SPDX-License-Identifier: Apache-2.0
// Outcomes as tests compare them.
#pragma once

#include <string>

#include "platform/Result.h"

namespace kelvane::test {

/// Empty when it went well.
template <typename Type>
std::string textOf(const Result<Type>& result) {
  return result ? std::string() : result.failure().text();
}

}  // namespace kelvane::test
