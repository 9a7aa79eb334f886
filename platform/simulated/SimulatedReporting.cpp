// SPDX-License-Identifier: Apache-2.0
// Log and statistics, kept in memory.
#include <algorithm>

#include "platform/Reporting.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

namespace simulated {

std::vector<std::string> Log::texts() const {
  std::vector<std::string> texts;
  for (const LogMessage& message : messages_) {
    texts.push_back(message.message);
  }
  return texts;
}

std::vector<std::string> Log::texts(std::int32_t level) const {
  std::vector<std::string> texts;
  for (const LogMessage& message : messages_) {
    if (message.level == level) {
      texts.push_back(message.message);
    }
  }
  return texts;
}

std::vector<std::string> Log::textsOf(std::string_view function) const {
  std::vector<std::string> texts;
  for (const LogMessage& message : messages_) {
    if (message.function == function) {
      texts.push_back(message.message);
    }
  }
  return texts;
}

std::size_t Log::count(std::string_view text) const {
  return static_cast<std::size_t>(std::count_if(messages_.begin(), messages_.end(), [text](const LogMessage& message) {
    return message.message.find(text) != std::string::npos;
  }));
}

std::size_t Log::count(std::string_view text, std::int32_t level) const {
  return static_cast<std::size_t>(std::count_if(messages_.begin(), messages_.end(), [&](const LogMessage& message) {
    return message.level == level && message.message.find(text) != std::string::npos;
  }));
}

bool Statistics::hasCounter(const std::string& name, const std::string& domain) const {
  return counters_.count({domain, name}) > 0;
}

std::int64_t Statistics::counter(const std::string& name, const std::string& domain) const {
  const auto found = counters_.find({domain, name});
  return found == counters_.end() ? 0 : found->second;
}

std::vector<double> Statistics::samples(const std::string& name, const std::string& domain) const {
  const auto found = samples_.find({domain, name});
  return found == samples_.end() ? std::vector<double>() : found->second;
}

std::vector<std::string> Statistics::counterNames(const std::string& domain) const {
  std::vector<std::string> names;
  for (const auto& [key, count] : counters_) {
    if (key.first == domain) {
      names.push_back(key.second);
    }
  }
  return names;
}

void Statistics::addToCounter(std::string domain, std::string name, std::int64_t count) {
  // Wraps, as every sum of this system does.
  std::int64_t& counter = counters_[{std::move(domain), std::move(name)}];
  counter = static_cast<std::int64_t>(static_cast<std::uint64_t>(counter) + static_cast<std::uint64_t>(count));
}

void Statistics::addSample(std::string domain, std::string name, double value) {
  samples_[{std::move(domain), std::move(name)}].push_back(value);
}

}  // namespace simulated

void reporting::writeLog(std::int32_t level, std::string_view category, std::string_view function,
                         std::string_view message) {
  if (simulated::World* world = simulated::worldIfAny()) {
    world->log.add({level, std::string(category), std::string(function), std::string(message)});
  }
}

void reporting::addToCounter(std::string_view domain, std::string_view name, std::int64_t count) {
  simulated::world().statistics.addToCounter(std::string(domain), std::string(name), count);
}

void reporting::reserveNames(std::string_view domain, std::span<const char* const> names) {
  for (const char* name : names) {
    simulated::world().statistics.reserve(std::string(domain), name);
  }
}

void reporting::setGauge(std::string_view name, std::string_view, std::int64_t value) {
  simulated::world().statistics.setGauge(std::string(name), value);
}

void reporting::addSample(std::string_view domain, std::string_view name, double value) {
  simulated::world().statistics.addSample(std::string(domain), std::string(name), value);
}

}  // namespace kelvane
