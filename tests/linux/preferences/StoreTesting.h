// SPDX-License-Identifier: Apache-2.0
// Whole writes of stores, and what is written.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/Result.h"
#include "platform/Value.h"
#include "platform/linux/preferences/PreferencesStore.h"
#include "tests/harness/ResultText.h"

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

/// What a write logs, which has to go well.
inline std::string logOfWriting(PreferencesStore& store, const std::string& text) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(textOf(writeTo(store, dictionary(text))), "");
  return testing::internal::GetCapturedStderr();
}

}  // namespace kelvane::test
