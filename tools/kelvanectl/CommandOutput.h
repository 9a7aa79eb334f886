// SPDX-License-Identifier: Apache-2.0
// What commands say, and whether it got out.
#pragma once

#include <string>
#include <string_view>

#include "tools/kelvanectl/ExitStatus.h"

namespace kelvane::ctl {

/// Sees to it that the standard descriptors are taken: a connection that got the number of standard output would be
/// written to. Whatever was closed cannot be written to then. To be called before anything is opened.
void holdStandardDescriptors();

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
