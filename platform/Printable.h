// SPDX-License-Identifier: Apache-2.0
// Texts of others' making, for a terminal or a log.
#pragma once

#include <string>
#include <string_view>

namespace kelvane {

/// Peers choose identifiers, keys and values, and whatever shows them obeys some of what a text may hold. So these are
/// written out: control characters as "\n", "\t" and "\x1b" or, of the second set, "\u{9b}"; what turns the direction
/// of writing or ends a line or paragraph as "\u{202e}"; each byte that is no UTF-8 as "\xff". Those in spared, such as
/// "\n\t", stay as they are, and so do backslashes: the result is for eyes, not to be read back.
[[nodiscard]] std::string printable(std::string_view text, std::string_view spared = "");

}  // namespace kelvane
