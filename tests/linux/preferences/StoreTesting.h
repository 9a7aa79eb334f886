// SPDX-License-Identifier: Apache-2.0
// Whole writes of stores.
#pragma once

#include "platform/Result.h"
#include "platform/Value.h"
#include "platform/linux/preferences/PreferencesStore.h"

namespace kelvane::test {

/// Replaces the contents, durably when it succeeds.
inline Result<> writeTo(PreferencesStore& store, const Value& contents) {
  auto written = store.handOver(contents);
  return written ? store.flush() : written;
}

}  // namespace kelvane::test
