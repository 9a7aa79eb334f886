// SPDX-License-Identifier: Apache-2.0
// The statistics as a test reads them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::simulated {

/// Every counter and distribution, by domain and name. The name may be empty.
class Statistics {
 public:
  static constexpr const char* daemonDomain = "com.tessaly.kelvane";

  bool hasCounter(const std::string& name, const std::string& domain = daemonDomain) const;
  /// 0 for a counter that nothing was added to.
  std::int64_t counter(const std::string& name, const std::string& domain = daemonDomain) const;
  /// In the order recorded; empty for a distribution without samples.
  std::vector<double> samples(const std::string& name, const std::string& domain = daemonDomain) const;
  /// The names of a domain's counters, sorted.
  std::vector<std::string> counterNames(const std::string& domain = daemonDomain) const;

  bool isReserved(const std::string& name, const std::string& domain = daemonDomain) const {
    return reserved_.contains({domain, name});
  }
  /// None when it was never set.
  std::optional<std::int64_t> gauge(const std::string& name) const {
    const auto found = gauges_.find(name);
    return found == gauges_.end() ? std::nullopt : std::optional(found->second);
  }

  void reserve(std::string domain, std::string name) { reserved_.emplace(std::move(domain), std::move(name)); }
  void setGauge(const std::string& name, std::int64_t value) { gauges_[name] = value; }
  void addToCounter(std::string domain, std::string name, std::int64_t count);
  void addSample(std::string domain, std::string name, double value);

 private:
  using Key = std::pair<std::string, std::string>;
  std::map<Key, std::int64_t> counters_;
  std::map<Key, std::vector<double>> samples_;
  std::set<Key> reserved_;
  std::map<std::string, std::int64_t> gauges_;
};

}  // namespace kelvane::simulated
