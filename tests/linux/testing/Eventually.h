// SPDX-License-Identifier: Apache-2.0
// Waiting for what no event tells of.
#pragma once

#include <chrono>
#include <functional>

namespace kelvane::test {

/// Far more than anything takes on a busy machine.
inline constexpr auto patience = std::chrono::seconds(60);

/// Polls until the condition holds; false when it does not in time.
[[nodiscard]] bool eventually(const std::function<bool()>& condition);

}  // namespace kelvane::test
