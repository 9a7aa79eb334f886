// SPDX-License-Identifier: Apache-2.0
// The values of a suite, of which dictionaries can be changed in place.
#include "platform/linux/preferences/SuiteValues.h"

#include <utility>

namespace kelvane {

SuiteValues::SuiteValues(const Value::Dictionary& values) {
  for (const auto& [key, value] : values) {
    if (value.isDictionary()) {
      values_.emplace(key, std::make_shared<Value::Dictionary>(*value.dictionary()));
    } else {
      values_.emplace(key, value);
    }
  }
}

Value SuiteValues::value(const std::string& key) const {
  const auto found = values_.find(key);
  if (found == values_.end()) {
    return {};
  }
  const Entries* entries = std::get_if<Entries>(&found->second);
  return entries != nullptr ? Value(**entries) : std::get<Value>(found->second);
}

std::optional<Value> SuiteValues::entry(const std::string& key, const std::string& entry) const {
  const auto found = values_.find(key);
  const Entries* entries = found == values_.end() ? nullptr : std::get_if<Entries>(&found->second);
  if (entries == nullptr) {
    return std::nullopt;
  }
  const auto wanted = (*entries)->find(entry);
  return wanted == (*entries)->end() ? Value() : wanted->second;
}

Value SuiteValues::apply(const SuiteChange& change) {
  auto& place = values_[change.key];
  if (!std::holds_alternative<Entries>(place)) {
    place = std::make_shared<Value::Dictionary>();
  }
  Value::Dictionary& entries = *std::get<Entries>(place);
  if (!change.value.isAbsent()) {
    return std::exchange(entries[change.entry], change.value);
  }
  auto removed = entries.extract(change.entry);
  return removed ? std::move(removed.mapped()) : Value();
}

Value SuiteValues::shared() const {
  Value::Dictionary all;
  for (const auto& [key, place] : values_) {
    const Entries* entries = std::get_if<Entries>(&place);
    all[key] = entries != nullptr ? Value(std::shared_ptr<const Value::Dictionary>(*entries)) : std::get<Value>(place);
  }
  return all;
}

}  // namespace kelvane
