// SPDX-License-Identifier: Apache-2.0
// What must hold for every property list that a reader takes.
#include "tests/fuzz/PropertyListChecks.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/Limits.h"

namespace kelvane::fuzz {
namespace {

void require(bool condition, const char* what, const Value& value) {
  if (!condition) {
    std::fprintf(stderr, "%s: %s\n", what, value.description().c_str());
    std::abort();
  }
}

template <typename Bytes>
propertyList::Result parse(const Bytes& bytes) {
  return propertyList::parse({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

/// A written list must be read as expected.
template <typename Bytes>
void checkReading(const Bytes& written, const Value& expected, const char* what) {
  const auto again = parse(written);
  const auto* value = std::get_if<Value>(&again);
  require(value && *value == expected, what, expected);
}

/// The value with all dates in whole seconds.
Value withWholeSeconds(const Value& value) {
  if (const Date* date = value.date()) {
    return Date{std::floor(date->secondsSince1970)};
  }
  if (const Value::Array* array = value.array()) {
    Value::Array whole;
    for (const Value& element : *array) {
      whole.push_back(withWholeSeconds(element));
    }
    return whole;
  }
  if (const auto dictionary = value.dictionary()) {
    Value::Dictionary whole;
    for (const auto& [key, element] : *dictionary) {
      whole.emplace(key, withWholeSeconds(element));
    }
    return whole;
  }
  return value;
}

void checkDescription(const Value& value) {
  const std::string text = Value(Value::Array{value}).description();
  if (text.size() > limits::propertyListBytes) {
    return;
  }
  // Numbers and dates come back as strings, which look the same.
  const auto again = parse(text);
  const auto* read = std::get_if<Value>(&again);
  require(read && read->description() == text, "description", value);
}

}  // namespace

void checkResult(const propertyList::Result& result) {
  if (const auto* error = std::get_if<propertyList::Error>(&result)) {
    require(!error->text.empty(), "no words for an error", {});
    return;
  }
  const Value& value = std::get<Value>(result);
  const auto binary = propertyList::writeBinary(value);
  if (const auto* data = std::get_if<Data>(&binary)) {
    checkReading(*data, value, "binary");
  }
  const auto xml = propertyList::writeXml(value);
  if (const auto* text = std::get_if<std::string>(&xml)) {
    checkReading(*text, withWholeSeconds(value), "XML");
  }
  checkDescription(value);
}

}  // namespace kelvane::fuzz
