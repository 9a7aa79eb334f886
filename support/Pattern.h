// SPDX-License-Identifier: Apache-2.0
// Patterns for names.
#pragma once

#include <string_view>

namespace kelvane {

/// Whether a text is as the pattern has it, from end to end: "*" stands for any characters or none, "?" for any one
/// byte, and everything else for itself. Takes no longer than the lengths multiplied.
[[nodiscard]] bool matchesPattern(std::string_view text, std::string_view pattern);

}  // namespace kelvane
