// SPDX-License-Identifier: Apache-2.0
// What commands say when something went wrong.
#include "tools/kelvanectl/CommandOutput.h"

#include <fmt/core.h>

namespace kelvane::ctl {

void printError(const std::string& text) {
  if (!text.empty()) {
    fmt::print(stderr, "kelvanectl: {}\n", text);
  }
}

ExitStatus reportFailure(const RequestFailure& failure) {
  printError(failureText(failure));
  return exitStatusOf(failure.ending);
}

}  // namespace kelvane::ctl
