// SPDX-License-Identifier: Apache-2.0
// What the daemon was called with.
#pragma once

#include <optional>

namespace kelvane {

/// The daemon serves when it is called without arguments. Any are for somebody at a terminal: answers --help and
/// --version, refuses the rest, and gives the status that the process is to end with; none when it is to serve. Runs on
/// the main thread, before there is anything else.
[[nodiscard]] std::optional<int> answerArguments(int argc, const char* const* argv);

}  // namespace kelvane
