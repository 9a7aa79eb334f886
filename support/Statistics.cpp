// SPDX-License-Identifier: Apache-2.0
// Counters and distributions.
#include "support/Statistics.h"

#include "platform/Reporting.h"

namespace kelvane {

void addReportStat(const std::string& domain, const std::optional<std::string>& name, std::int64_t count) {
  reporting::addToCounter(domain, name.value_or(""), count);
}

void addDistributionStat(const std::string& domain, const std::string& name, double value) {
  reporting::addSample(domain, name, value);
}

}  // namespace kelvane
