// SPDX-License-Identifier: Apache-2.0
// What commands say when something went wrong.
#pragma once

#include <string>

#include "tools/kelvanectl/ExitStatus.h"

namespace kelvane::ctl {

/// To standard error; nothing when the text is empty.
void printError(const std::string& text);
/// Says why a request got no answer.
ExitStatus reportFailure(const RequestFailure& failure);

}  // namespace kelvane::ctl
