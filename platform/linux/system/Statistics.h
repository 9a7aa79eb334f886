// SPDX-License-Identifier: Apache-2.0
// The counters and distributions of this process, as numbers in memory.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/runtime/Mutex.h"

namespace kelvane::reporting {

/// Counters and distributions by domain and name.
///
/// Most names come from services, so there is room for limits::statisticNames of each kind and for those that were
/// reserved; those that come later, and overlong ones, are kept as one, named "overflow" in the domain "overflow". Any
/// thread may call any function.
class Statistics {
 public:
  /// Sums wrap in two's complement.
  void addToCounter(std::string_view domain, std::string_view name, std::int64_t count);
  /// A sample that is no number is left out.
  void addSample(std::string_view domain, std::string_view name, double value);
  /// These have places of their own.
  void reserveNames(std::string_view domain, std::span<const char* const> names);
  void setGauge(std::string_view name, std::string_view help, std::int64_t value);

  /// All of them in the Prometheus text format: kelvane_events_total for the counters, and summaries
  /// kelvane_distribution whose quantiles 0 and 1 are the least and the greatest sample; gauges under their own names.
  [[nodiscard]] std::string prometheusText() const;

 private:
  struct Distribution {
    std::uint64_t count = 0;
    double sum = 0;
    double least = std::numeric_limits<double>::infinity();
    double greatest = -std::numeric_limits<double>::infinity();
  };
  using Key = std::pair<std::string, std::string>;
  struct Gauge {
    std::string help;
    std::int64_t value = 0;
  };
  template <typename Entry>
  using Table = std::map<Key, Entry>;

  template <typename Entry>
  Entry& entry(Table<Entry>& table, std::string_view domain, std::string_view name) KELVANE_REQUIRES(mutex_);

  mutable runtime::Mutex mutex_;
  Table<std::int64_t> counters_ KELVANE_GUARDED_BY(mutex_);
  Table<Distribution> distributions_ KELVANE_GUARDED_BY(mutex_);
  std::set<Key> reserved_ KELVANE_GUARDED_BY(mutex_);
  std::map<std::string, Gauge, std::less<>> gauges_ KELVANE_GUARDED_BY(mutex_);
};

}  // namespace kelvane::reporting
