// SPDX-License-Identifier: Apache-2.0
// Values as they look at one moment.
#include "platform/common/FrozenValue.h"

#include <optional>
#include <utility>

#include "platform/Limits.h"

namespace kelvane {

namespace {

std::optional<Value> frozenIfLive(const Value& value, int depth);

std::optional<Value> frozenIfLive(const Value::Array& elements, int depth) {
  std::optional<Value::Array> copy;
  for (std::size_t index = 0; index < elements.size(); ++index) {
    if (auto element = frozenIfLive(elements[index], depth)) {
      if (!copy) {
        copy = elements;
      }
      (*copy)[index] = std::move(*element);
    }
  }
  return copy ? std::optional(Value(std::move(*copy))) : std::nullopt;
}

std::optional<Value> frozenIfLive(const Value::Dictionary& entries, bool isLive, int depth) {
  std::optional<Value::Dictionary> copy;
  if (isLive) {
    copy = entries;
  }
  for (const auto& [key, value] : entries) {
    if (auto entry = frozenIfLive(value, depth)) {
      if (!copy) {
        copy = entries;
      }
      (*copy)[key] = std::move(*entry);
    }
  }
  return copy ? std::optional(Value(std::move(*copy))) : std::nullopt;
}

/// The frozen value when it differs from the value. Only a live view that holds itself reaches the limit.
std::optional<Value> frozenIfLive(const Value& value, int depth) {
  const bool isLive = value.mutableDictionary() != nullptr;
  if (depth > limits::propertyListDepth) {
    return isLive ? std::optional(Value(Value::Dictionary())) : std::nullopt;
  }
  if (const Value::Array* array = value.array()) {
    return frozenIfLive(*array, depth + 1);
  }
  if (const auto dictionary = value.dictionary()) {
    return frozenIfLive(*dictionary, isLive, depth + 1);
  }
  return std::nullopt;
}

}  // namespace

Value frozen(const Value& value) {
  return frozenIfLive(value, 0).value_or(value);
}

}  // namespace kelvane
