// SPDX-License-Identifier: Apache-2.0
// A question to whoever sits at the terminal.
#pragma once

#include <string>

namespace kelvane::ctl {

class Interruption;

enum class Consent { Given, Withheld, Interrupted };

/// Whether there is somebody to ask: both standard input and standard error are terminals.
[[nodiscard]] bool isSomebodyThere();
/// Asks on standard error and waits for a line of standard input. Only "y" and "yes" are consent.
[[nodiscard]] Consent askFor(const std::string& question, const Interruption& interruption);

}  // namespace kelvane::ctl
