// SPDX-License-Identifier: Apache-2.0
// A purge's report for people.
#pragma once

#include <string>

#include "tools/kelvanectl/PurgeReport.h"
#include "tools/kelvanectl/TableRow.h"

namespace kelvane::ctl {

/// What is known before the first request.
std::string textHeading(const PurgeOrder& order, std::uint64_t available);
/// What each request and service gave, and what came of it all; several lines.
std::string textReport(const PurgeReport& report, int width = unlimitedWidth);
/// What went wrong, for standard error; empty when nothing did or the report tells already.
std::string errorText(const PurgeReport& report);

}  // namespace kelvane::ctl
