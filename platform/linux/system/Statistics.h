// SPDX-License-Identifier: Apache-2.0
// The counters and distributions of this process, as numbers in memory.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace kelvane::reporting {

/// Counters and distributions by domain and name.
///
/// Names come from services, so there is room for limits::statisticNames of each kind; those that come
/// later, and overlong ones, are kept as one, named "overflow" in the domain "overflow". Any thread may
/// call any function.
class Statistics {
 public:
  /// Sums wrap in two's complement.
  void addToCounter(std::string_view domain, std::string_view name, std::int64_t count);
  /// A sample that is no number is left out.
  void addSample(std::string_view domain, std::string_view name, double value);

  /// All of them in the Prometheus text format: kelvane_events_total for the counters, and summaries
  /// kelvane_distribution whose quantiles 0 and 1 are the least and the greatest sample.
  [[nodiscard]] std::string prometheusText() const;

 private:
  struct Distribution {
    std::uint64_t count = 0;
    double sum = 0;
    double least = std::numeric_limits<double>::infinity();
    double greatest = -std::numeric_limits<double>::infinity();
  };
  using Key = std::pair<std::string, std::string>;
  template <typename Entry>
  using Table = std::map<Key, Entry>;

  template <typename Entry>
  static Entry& entry(Table<Entry>& table, std::string_view domain, std::string_view name);

  mutable std::mutex mutex_;
  // Guarded by mutex_:
  Table<std::int64_t> counters_;
  Table<Distribution> distributions_;
};

}  // namespace kelvane::reporting
