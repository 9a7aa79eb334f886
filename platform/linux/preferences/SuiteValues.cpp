// SPDX-License-Identifier: Apache-2.0
// The values of a suite, of which dictionaries can be changed in place.
#include "platform/linux/preferences/SuiteValues.h"

#include <utility>

namespace kelvane {

namespace {

Value exchanged(Value::Dictionary& entries, const std::string& key, const Value& value) {
  if (!value.isAbsent()) {
    return std::exchange(entries[key], value);
  }
  auto removed = entries.extract(key);
  return removed ? std::move(removed.mapped()) : Value();
}

}  // namespace

SuiteValues::SuiteValues(const Value::Dictionary& values) {
  for (const auto& [key, value] : values) {
    apply({.key = key, .entry = {}, .value = value});
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
  if (!change.entry && change.value.isAbsent()) {
    const Value before = value(change.key);
    values_.erase(change.key);
    return before;
  }
  auto& place = values_[change.key];
  if (change.entry) {
    if (!std::holds_alternative<Entries>(place)) {
      place = std::make_shared<Value::Dictionary>();
    }
    return exchanged(*std::get<Entries>(place), *change.entry, change.value);
  }
  if (change.value.isDictionary()) {
    place = std::make_shared<Value::Dictionary>(*change.value.dictionary());
  } else {
    place = change.value;
  }
  return {};
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
