// SPDX-License-Identifier: Apache-2.0
// The form of texts in the log.
#pragma once

#include <string>
#include <string_view>

namespace kelvane::reporting {

/// The text on one line, printable, so that no peer's string can pass for a line of its own or steer a terminal, and
/// cut to limits::logMessageBytes at the end of a character.
[[nodiscard]] std::string singleLine(std::string_view text);

}  // namespace kelvane::reporting
