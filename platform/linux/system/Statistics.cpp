// SPDX-License-Identifier: Apache-2.0
// The counters and distributions of this process, as numbers in memory.
#include "platform/linux/system/Statistics.h"

#include <prometheus/text_serializer.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "platform/Limits.h"

namespace kelvane::reporting {

namespace {

template <typename Key>
prometheus::ClientMetric labelled(const Key& key) {
  prometheus::ClientMetric metric;
  metric.label = {{"domain", key.first}, {"name", key.second}};
  return metric;
}

prometheus::MetricFamily family(const char* name, const char* help, prometheus::MetricType type) {
  prometheus::MetricFamily result;
  result.name = name;
  result.help = help;
  result.type = type;
  return result;
}

}  // namespace

template <typename Entry>
Entry& Statistics::entry(Table<Entry>& table, std::string_view domain, std::string_view name) {
  const Key key(domain, name);
  const auto found = table.find(key);
  if (found != table.end()) {
    return found->second;
  }
  const bool fits = (table.size() < limits::statisticNames || reserved_.contains(key)) &&
                    domain.size() <= limits::statisticNameBytes && name.size() <= limits::statisticNameBytes;
  return table[fits ? key : Key("overflow", "overflow")];
}

void Statistics::addToCounter(std::string_view domain, std::string_view name, std::int64_t count) {
  const runtime::Lock lock(mutex_);
  std::int64_t& counter = entry(counters_, domain, name);
  counter = static_cast<std::int64_t>(static_cast<std::uint64_t>(counter) + static_cast<std::uint64_t>(count));
}

void Statistics::addSample(std::string_view domain, std::string_view name, double value) {
  if (std::isnan(value)) {
    return;
  }
  const runtime::Lock lock(mutex_);
  Distribution& distribution = entry(distributions_, domain, name);
  ++distribution.count;
  distribution.sum += value;
  distribution.least = std::min(distribution.least, value);
  distribution.greatest = std::max(distribution.greatest, value);
}

void Statistics::reserveNames(std::string_view domain, std::span<const char* const> names) {
  const runtime::Lock lock(mutex_);
  for (const char* name : names) {
    reserved_.emplace(domain, name);
  }
}

void Statistics::setGauge(std::string_view name, std::string_view help, std::int64_t value) {
  const runtime::Lock lock(mutex_);
  gauges_.insert_or_assign(std::string(name), Gauge{.help = std::string(help), .value = value});
}

std::string Statistics::prometheusText() const {
  std::vector<prometheus::MetricFamily> families = {
      family("kelvane_events_total", "What happened, counted by name.", prometheus::MetricType::Counter),
      family("kelvane_distribution", "Samples by name; quantiles 0 and 1 are the least and the greatest.",
             prometheus::MetricType::Summary),
  };
  {
    const runtime::Lock lock(mutex_);
    for (const auto& [key, count] : counters_) {
      prometheus::ClientMetric& metric = families[0].metric.emplace_back(labelled(key));
      metric.counter.value = static_cast<double>(count);
    }
    for (const auto& [key, distribution] : distributions_) {
      prometheus::ClientMetric& metric = families[1].metric.emplace_back(labelled(key));
      metric.summary.sample_count = distribution.count;
      metric.summary.sample_sum = distribution.sum;
      metric.summary.quantile = {{0, distribution.least}, {1, distribution.greatest}};
    }
    for (const auto& [name, gauge] : gauges_) {
      families.push_back(family(name.c_str(), gauge.help.c_str(), prometheus::MetricType::Gauge));
      families.back().metric.emplace_back().gauge.value = static_cast<double>(gauge.value);
    }
  }
  return prometheus::TextSerializer().Serialize(families);
}

}  // namespace kelvane::reporting
