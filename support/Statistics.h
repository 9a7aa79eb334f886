// SPDX-License-Identifier: Apache-2.0
// Counters and distributions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelvane {

/// Adds to a named counter of a domain; without a name, to the domain's nameless one.
void addReportStat(const std::string& domain, const std::optional<std::string>& name, std::int64_t count);

/// Records one sample of a named distribution of a domain.
void addDistributionStat(const std::string& domain, const std::string& name, double value);

}  // namespace kelvane
