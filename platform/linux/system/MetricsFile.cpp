// SPDX-License-Identifier: Apache-2.0
// Publishes the statistics of this process as a file.
#include <atomic>
#include <string>

#include "platform/Reporting.h"
#include "platform/linux/runtime/DelayedItem.h"
#include "platform/linux/system/AtomicFile.h"
#include "platform/linux/system/Paths.h"
#include "platform/linux/system/Statistics.h"

namespace kelvane::reporting {

namespace {

constexpr std::chrono::milliseconds publishingDelay{1000};

/// Never destroyed: threads of the pool may count until the process ends.
Statistics& statistics() {
  static auto* const shared = new Statistics;
  return *shared;
}

void publish() {
  static std::atomic<bool> failed = false;
  const std::string file = paths::metricsFile;
  const std::size_t slash = file.rfind('/');
  const auto replaced = replaceFile(file.substr(0, slash), file.substr(slash + 1), statistics().prometheusText());
  // Statistics are worth one line, not one a second.
  if (!failed.exchange(!replaced) && !replaced) {
    reportFailure("reporting::publish", "Unable to write " + file + ": " + replaced.failure().text());
  }
}

void publishSoon() {
  static auto* const publication = new DelayedItem(publishingDelay, publish);
  publication->request();
}

}  // namespace

void addToCounter(std::string_view domain, std::string_view name, std::int64_t count) {
  statistics().addToCounter(domain, name, count);
  publishSoon();
}

void addSample(std::string_view domain, std::string_view name, double value) {
  statistics().addSample(domain, name, value);
  publishSoon();
}

void reserveNames(std::string_view domain, std::span<const char* const> names) {
  statistics().reserveNames(domain, names);
}

void setGauge(std::string_view name, std::string_view help, std::int64_t value) {
  statistics().setGauge(name, help, value);
  publishSoon();
}

}  // namespace kelvane::reporting
