// SPDX-License-Identifier: Apache-2.0
// The values of one preferences suite, and who writes them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Preferences.h"
#include "platform/Value.h"
#include "platform/linux/preferences/PreferencesStore.h"

namespace kelvane {

/// A suite's values in memory in front of its store. One item at a time, the flusher, writes what all have set so
/// far, again and again until nobody waits: whoever comes too late for one write shares the next. It is on the
/// global queue only while there is something to do. Any thread may call any function.
class PreferencesSuiteCore : public std::enable_shared_from_this<PreferencesSuiteCore> {
 public:
  PreferencesSuiteCore(std::string name, std::unique_ptr<PreferencesStore> store);

  Value value(const std::string& key) const;
  void set(const std::string& key, Value value);
  /// The handler runs on the flusher's thread once what was set before the call is on disk, or could not be written.
  void whenDurable(PreferencesSuite::OutcomeHandler handler);
  [[nodiscard]] PreferencesSuite::Outcome makeRoom(std::size_t bytes);
  /// Waits for the flusher and closes the store; writing fails from then on.
  void close();

 private:
  void flush();
  PreferencesSuite::Outcome write(const Value::Dictionary& values);
  void report(const PreferencesSuite::Outcome& outcome);

  const std::string name_;

  mutable std::mutex mutex_;
  // Guarded by mutex_:
  Value::Dictionary values_;
  /// How many changes there were, and how many of them are on disk.
  std::uint64_t changes_ = 0;
  std::uint64_t durable_ = 0;
  std::vector<PreferencesSuite::OutcomeHandler> waiting_;
  bool isFlushing_ = false;
  std::condition_variable flushed_;

  /// The store's; it only grows.
  std::atomic<std::size_t> room_;

  std::mutex storeMutex_;
  // Guarded by storeMutex_:
  std::unique_ptr<PreferencesStore> store_;
  bool hasFailed_ = false;
};

}  // namespace kelvane
