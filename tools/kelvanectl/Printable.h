// SPDX-License-Identifier: Apache-2.0
// Text of others' making, for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace kelvane::ctl {

/// Peers choose identifiers, keys and values, and the terminal obeys control characters, so each becomes a question
/// mark; but those in spared, such as "\n\t".
std::string printable(std::string_view text, std::string_view spared = "");

}  // namespace kelvane::ctl
