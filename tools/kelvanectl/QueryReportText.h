// SPDX-License-Identifier: Apache-2.0
// What services could free, for people and for programs.
#pragma once

#include <string>

#include "tools/kelvanectl/Query.h"
#include "tools/kelvanectl/TableRow.h"

namespace kelvane::ctl {

/// A table for each volume: the services, the largest figure first, each with a bar, and the total.
std::string queryText(const QueryReport& report, int width = unlimitedWidth);
/// One JSON object on one line, with the members that docs/kelvanectl.md lists.
std::string queryJson(const QueryReport& report);

}  // namespace kelvane::ctl
