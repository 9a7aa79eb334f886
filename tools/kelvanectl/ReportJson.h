// SPDX-License-Identifier: Apache-2.0
// A purge's report for programs.
#pragma once

#include <string>

#include "tools/kelvanectl/PurgeReport.h"

namespace kelvane::ctl {

/// One JSON object on one line, with the members that docs/kelvanectl.md lists.
std::string jsonReport(const PurgeReport& report);
/// The ending's name in JSON: "freed", "short", ...
std::string_view endingName(Ending ending);

}  // namespace kelvane::ctl
