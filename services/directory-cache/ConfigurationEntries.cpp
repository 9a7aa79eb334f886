// SPDX-License-Identifier: Apache-2.0
// Reading typed entries of a configuration's dictionaries.
#include "services/directory-cache/ConfigurationEntries.h"

#include <charconv>
#include <utility>

namespace kelvane::directoryCache {

ConfigurationEntries::ConfigurationEntries(const Value& value, std::string where)
    : where_(std::move(where)), dictionary_(value.dictionary()) {
  if (!dictionary_) {
    error_ = (where_.empty() ? "" : where_ + ": ") + "expected a dictionary";
  }
}

bool ConfigurationEntries::has(const std::string& key) {
  return !take(key).isAbsent();
}

std::string ConfigurationEntries::requiredString(const std::string& key) {
  const Value value = take(key);
  if (value.isString() && !value.string()->empty()) {
    return *value.string();
  }
  fail(key, "a string that is not empty");
  return {};
}

std::string ConfigurationEntries::string(const std::string& key, const std::string& fallback) {
  return take(key).isAbsent() ? fallback : requiredString(key);
}

bool ConfigurationEntries::boolean(const std::string& key, bool fallback) {
  const Value value = take(key);
  if (value.isAbsent()) {
    return fallback;
  }
  if (value.isBoolean()) {
    return value.boolValue();
  }
  if (value == Value("YES") || value == Value("NO")) {
    return value == Value("YES");
  }
  fail(key, "true or false (YES or NO in the text format)");
  return fallback;
}

std::uint64_t ConfigurationEntries::bytes(const std::string& key, std::uint64_t fallback) {
  const Value value = take(key);
  if (value.isAbsent()) {
    return fallback;
  }
  if (const auto number = unsignedNumber(value)) {
    return *number;
  }
  fail(key, "a number of bytes");
  return fallback;
}

std::vector<std::string> ConfigurationEntries::strings(const std::string& key) {
  std::vector<std::string> strings;
  for (const Value& element : array(key)) {
    if (element.isString() && !element.string()->empty()) {
      strings.push_back(*element.string());
    } else {
      fail(key, "an array of strings that are not empty");
    }
  }
  return strings;
}

std::vector<Value> ConfigurationEntries::array(const std::string& key) {
  const Value value = take(key);
  if (value.isArray()) {
    return *value.array();
  }
  if (!value.isAbsent()) {
    fail(key, "an array");
  }
  return {};
}

void ConfigurationEntries::fail(const std::string& key, const std::string& expected) {
  if (!error_) {
    error_ = (where_.empty() ? "" : where_ + ": ") + key + ": expected " + expected;
  }
}

std::optional<std::string> ConfigurationEntries::error() const {
  if (error_ || !dictionary_) {
    return error_;
  }
  for (const auto& [key, value] : *dictionary_) {
    if (!known_.contains(key)) {
      return (where_.empty() ? "" : where_ + ": ") + key + ": there is no such key";
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> ConfigurationEntries::unsignedNumber(const Value& value) {
  if (const std::string* text = value.string()) {
    std::uint64_t number = 0;
    const auto [end, failure] = std::from_chars(text->data(), text->data() + text->size(), number);
    return failure == std::errc() && end == text->data() + text->size() ? std::optional(number) : std::nullopt;
  }
  if (value.isUnsigned() || (value.isSigned() && value.int64Value() >= 0)) {
    return value.uint64Value();
  }
  return std::nullopt;
}

Value ConfigurationEntries::take(const std::string& key) {
  known_.insert(key);
  if (!dictionary_) {
    return {};
  }
  const auto entry = dictionary_->find(key);
  return entry == dictionary_->end() ? Value() : entry->second;
}

}  // namespace kelvane::directoryCache
