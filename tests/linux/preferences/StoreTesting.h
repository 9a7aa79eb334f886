// SPDX-License-Identifier: Apache-2.0
// Whole writes of stores, and what is written.
#pragma once

#include <string>

#include "platform/Result.h"
#include "platform/Value.h"
#include "platform/linux/preferences/PreferencesStore.h"

namespace kelvane::test {

/// Of one entry, under "key".
inline Value::Dictionary dictionary(const std::string& text) {
  return {{"key", text}};
}

/// Replaces the contents, durably when it succeeds.
inline Result<> writeTo(PreferencesStore& store, const Value& contents) {
  auto written = store.handOver(contents);
  return written ? store.flush() : written;
}

}  // namespace kelvane::test
