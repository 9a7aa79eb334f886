// SPDX-License-Identifier: Apache-2.0
// The values of one preferences suite, and who writes them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Value.h"
#include "platform/linux/system/PreferencesStore.h"

namespace kelvane {

/// A suite's values in memory in front of its store. Callers that synchronise at once share writes: one of
/// them writes what all have set so far while the others wait, and whoever came too late for that write
/// shares the next. Any thread may call any function.
class PreferencesSuiteCore {
 public:
  PreferencesSuiteCore(std::string name, std::unique_ptr<PreferencesStore> store);

  Value value(const std::string& key) const;
  void set(const std::string& key, Value value);
  /// Waits until what was set before the call is on disk; false when the write that was to do so failed.
  [[nodiscard]] bool synchronize();
  /// Waits for a write under way and closes the store; synchronising fails from then on.
  void close();

 private:
  /// Writes all values, without the lock while it lasts.
  void writeAll(std::unique_lock<std::mutex>& lock);

  const std::string name_;
  /// Touched by the one thread that writes, or under mutex_ when none does.
  std::unique_ptr<PreferencesStore> store_;

  mutable std::mutex mutex_;
  // Guarded by mutex_:
  Value::Dictionary values_;
  /// How many changes there were, and how many of them the last write covered or, when it succeeded, made
  /// durable.
  std::uint64_t changes_ = 0;
  std::uint64_t attempted_ = 0;
  std::uint64_t durable_ = 0;
  std::uint64_t attempts_ = 0;
  bool isWriting_ = false;
  bool hasFailed_ = false;
  std::condition_variable written_;
};

}  // namespace kelvane
