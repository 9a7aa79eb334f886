// SPDX-License-Identifier: Apache-2.0
// What commands say, and whether it got out.
#pragma once

#include <string>
#include <string_view>

#include "tools/kelvanectl/ExitStatus.h"

namespace kelvane::ctl {

/// Columns of the terminal that standard output is; unlimitedWidth when it is none.
int outputWidth();
/// To standard output. A failure shows when the output is finished.
void print(const std::string& text);
/// The same, at once, before a wait.
void printNow(const std::string& text);
/// To standard error; nothing when the text is empty. Of what ends a line in it, only what is spared does so.
void printError(const std::string& text, std::string_view spared = "");
/// Says why a request got no answer.
ExitStatus reportFailure(const RequestFailure& failure);

/// What the process ends with: the command's status, or, if that is Done and something could not be written,
/// ExitStatus::Unwritten.
ExitStatus finishOutput(ExitStatus status);

}  // namespace kelvane::ctl
