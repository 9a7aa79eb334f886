// SPDX-License-Identifier: Apache-2.0
// Values as they look at one moment.
#include "platform/simulated/FrozenValue.h"

namespace kelvane::simulated {

Value frozen(const Value& value) {
  if (const auto dictionary = value.dictionary()) {
    Value::Dictionary entries;
    for (const auto& [key, entry] : *dictionary) {
      entries.emplace(key, frozen(entry));
    }
    return entries;
  }
  if (const Value::Array* array = value.array()) {
    Value::Array elements;
    for (const Value& element : *array) {
      elements.push_back(frozen(element));
    }
    return elements;
  }
  return value;
}

}  // namespace kelvane::simulated
