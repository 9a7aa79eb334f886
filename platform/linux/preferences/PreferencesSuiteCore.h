// SPDX-License-Identifier: Apache-2.0
// The values of one preferences suite, and who writes them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Preferences.h"
#include "platform/Value.h"
#include "platform/linux/preferences/PreferencesStore.h"
#include "platform/linux/preferences/SuiteValues.h"
#include "platform/linux/runtime/Mutex.h"

namespace kelvane {

/// A suite's values in memory in front of its store. One item at a time, the flusher, writes what all have set so
/// far, again and again until nobody waits: whoever comes too late for one write shares the next. It is on the
/// global queue only while there is something to do, and has the values a second time, which it brings up to date
/// with what has changed since it last did. Any thread may call any function.
class PreferencesSuiteCore : public std::enable_shared_from_this<PreferencesSuiteCore> {
 public:
  PreferencesSuiteCore(std::string name, std::unique_ptr<PreferencesStore> store);

  Value value(const std::string& key) const;
  std::optional<Value> entry(const std::string& key, const std::string& entry) const;
  void set(SuiteChange change);
  /// The handler runs on the flusher's thread once what was set before the call is on disk, or could not be written.
  void whenDurable(PreferencesSuite::OutcomeHandler handler);
  /// Waits until what was set before the call has been handed to the kernel, or could not be; or so long, but not at
  /// all while the disk has already kept somebody waiting so long and still does. Whether it was handed over.
  bool handOver(std::chrono::milliseconds patience);
  /// Waits as long for the room.
  PreferencesSuite::Outcome makeRoom(std::size_t bytes, std::chrono::milliseconds patience);
  /// Waits for the flusher and closes the store; writing fails from then on.
  void close();

  /// Has the metrics say whether what is set gets written.
  static void showWhetherWritten(bool isWritten);

 private:
  /// What one write is to bring about.
  struct Round {
    /// Room for so many bytes, 0 for none; and how often some was asked for.
    std::size_t room = 0;
    std::uint64_t roomRequests = 0;
    /// How often a handing over was asked for.
    std::uint64_t handOverRequests = 0;
    std::vector<SuiteChange> changes;
    /// How many changes there were when it began.
    std::uint64_t covered = 0;
    bool isToWrite = false;
    bool isToFlush = false;
    std::vector<PreferencesSuite::OutcomeHandler> handlers;
  };

  /// A count that is waited for.
  struct Progress {
    const std::uint64_t& count;
    std::uint64_t wanted = 0;
  };

  void startFlusher() KELVANE_REQUIRES(mutex_);
  void flush();
  Round nextRound() KELVANE_REQUIRES(mutex_);
  void awaitFlusher(runtime::Lock& lock, std::chrono::milliseconds patience, std::initializer_list<Progress> either)
      KELVANE_REQUIRES(mutex_);
  void makeRoomFor(Round& round);
  void handOverRound(const Round& round, PreferencesSuite::Outcome& outcome);
  void flushRound(const Round& round, PreferencesSuite::Outcome& outcome);
  void setCondition(bool isStuck, bool hasFailed) KELVANE_REQUIRES(mutex_);
  void report(const Failure& failure) const;

  /// A key, and an entry of the dictionary under it.
  using ChangedName = std::pair<std::string, std::string>;

  const std::string name_;

  mutable runtime::Mutex mutex_;
  SuiteValues values_ KELVANE_GUARDED_BY(mutex_);
  /// What of it the flusher does not know yet.
  std::set<ChangedName> changed_ KELVANE_GUARDED_BY(mutex_);
  /// How many changes there were, how many of them the kernel has, and how many are on disk.
  std::uint64_t changes_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t handedOver_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t durable_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::vector<PreferencesSuite::OutcomeHandler> waiting_ KELVANE_GUARDED_BY(mutex_);
  /// How often a handing over was asked for, and how often of these it was tried.
  std::uint64_t handOverRequests_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t handOversTried_ KELVANE_GUARDED_BY(mutex_) = 0;
  /// How much room is waited for, 0 for none; how often some was asked for, and how often of these it was tried, with
  /// what came of the last.
  std::size_t roomWanted_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t roomRequests_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t roomTried_ KELVANE_GUARDED_BY(mutex_) = 0;
  PreferencesSuite::Outcome roomOutcome_ KELVANE_GUARDED_BY(mutex_);
  /// Somebody has waited for the disk long enough, and it still keeps the flusher.
  bool isStuck_ KELVANE_GUARDED_BY(mutex_) = false;
  /// A write has, and none since has been flushed.
  bool hasFailed_ KELVANE_GUARDED_BY(mutex_) = false;
  bool isFlushing_ KELVANE_GUARDED_BY(mutex_) = false;
  runtime::Condition changedState_;

  /// The store's.
  std::atomic<std::size_t> room_;

  runtime::Mutex storeMutex_;
  std::unique_ptr<PreferencesStore> store_ KELVANE_GUARDED_BY(storeMutex_);
  SuiteValues written_ KELVANE_GUARDED_BY(storeMutex_);
};

}  // namespace kelvane
