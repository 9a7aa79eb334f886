// SPDX-License-Identifier: Apache-2.0
// The values of one preferences suite, and who writes them.
#include "platform/linux/preferences/PreferencesSuiteCore.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/Queues.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/BlockedScope.h"

namespace kelvane {

using runtime::Lock;

namespace {
constexpr char closed[] = "the store is closed";
}

PreferencesSuiteCore::PreferencesSuiteCore(std::string name, std::unique_ptr<PreferencesStore> store)
    : name_(std::move(name)),
      values_(store->contents()),
      room_(store->room()),
      store_(std::move(store)),
      written_(store_->takeContents()) {
  showWhetherWritten(true);
}

void PreferencesSuiteCore::showWhetherWritten(bool isWritten) {
  reporting::setGauge(
      "kelvane_preferences_written",
      "Whether what is set gets written: 0 without a store, after a failed write, and while a disk keeps "
      "everybody waiting.",
      isWritten ? 1 : 0);
}

Value PreferencesSuiteCore::value(const std::string& key) const {
  const Lock lock(mutex_);
  return values_.value(key);
}

std::optional<Value> PreferencesSuiteCore::entry(const std::string& key, const std::string& entry) const {
  const Lock lock(mutex_);
  return values_.entry(key, entry);
}

void PreferencesSuiteCore::set(SuiteChange change) {
  // What was there goes after the lock is released.
  Value before;
  const Lock lock(mutex_);
  before = values_.apply(change);
  changed_.emplace(std::move(change.key), std::move(change.entry));
  ++changes_;
}

void PreferencesSuiteCore::whenDurable(PreferencesSuite::OutcomeHandler handler) {
  const Lock lock(mutex_);
  waiting_.push_back(std::move(handler));
  startFlusher();
}

bool PreferencesSuiteCore::handOver(std::chrono::milliseconds patience) {
  {
    const Lock lock(mutex_);
    if (handedOver_ == changes_) {
      return true;
    }
  }
  const runtime::BlockedScope blocked;
  Lock lock(mutex_);
  const std::uint64_t wanted = changes_;
  awaitFlusher(lock, patience, {{handedOver_, wanted}, {handOversTried_, ++handOverRequests_}});
  return handedOver_ >= wanted;
}

PreferencesSuite::Outcome PreferencesSuiteCore::makeRoom(std::size_t bytes, std::chrono::milliseconds patience) {
  if (room_ >= bytes) {
    return {};
  }
  const runtime::BlockedScope blocked;
  Lock lock(mutex_);
  roomWanted_ = std::max(roomWanted_, bytes);
  const std::uint64_t request = ++roomRequests_;
  awaitFlusher(lock, patience, {{roomTried_, request}});
  if (roomTried_ < request) {
    return Failure{.number = ETIMEDOUT, .tried = "making room"};
  }
  return room_ < bytes ? roomOutcome_ : PreferencesSuite::Outcome();
}

/// Has it run, and waits until it has come so far in one respect. When it shows no sign of life for so long it is
/// stuck, and the first who finds it so says so, without the lock: the log may be kept waiting by the same disk.
void PreferencesSuiteCore::awaitFlusher(Lock& lock, std::chrono::milliseconds patience,
                                        std::initializer_list<Progress> either) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  startFlusher();
  bool isNews = false;
  while (!isStuck_ && std::none_of(either.begin(), either.end(),
                                   [](const Progress& progress) { return progress.count >= progress.wanted; })) {
    isNews = !changedState_.waitUntil(lock, deadline) && isFlushing_ && !isStuck_;
    if (isNews) {
      setCondition(true, hasFailed_);
    }
  }
  if (isNews) {
    mutex_.unlock();
    reporting::reportFailure("PreferencesSuite::awaitFlusher", "The disk of the preferences " + name_ +
                                                                   " keeps everybody waiting; nobody waits any more");
    mutex_.lock();
  }
}

void PreferencesSuiteCore::close() {
  const runtime::BlockedScope blocked;
  Lock lock(mutex_);
  while (isFlushing_) {
    changedState_.wait(lock);
  }
  const Lock storeLock(storeMutex_);
  store_.reset();
}

void PreferencesSuiteCore::startFlusher() {
  if (!std::exchange(isFlushing_, true)) {
    globalQueue::async([self = shared_from_this()] { self->flush(); });
  }
}

void PreferencesSuiteCore::flush() {
  Lock lock(mutex_);
  while (!waiting_.empty() || handOversTried_ < handOverRequests_ || roomWanted_ > 0) {
    Round round = nextRound();
    lock.unlock();
    PreferencesSuite::Outcome outcome;
    makeRoomFor(round);
    handOverRound(round, outcome);
    flushRound(round, outcome);
    for (const auto& handler : round.handlers) {
      handler(outcome);
    }
    lock.lock();
  }
  isFlushing_ = false;
  changedState_.notifyAll();
}

PreferencesSuiteCore::Round PreferencesSuiteCore::nextRound() {
  Round round;
  round.room = std::exchange(roomWanted_, 0);
  round.roomRequests = roomRequests_;
  for (const auto& [key, entry] : changed_) {
    round.changes.push_back({.key = key, .entry = entry, .value = values_.entry(key, entry).value_or(Value())});
  }
  changed_.clear();
  round.handlers = std::exchange(waiting_, {});
  round.covered = changes_;
  round.isToFlush = !round.handlers.empty() && durable_ != changes_;
  round.isToWrite = handedOver_ != changes_;
  round.handOverRequests = handOverRequests_;
  return round;
}

void PreferencesSuiteCore::makeRoomFor(Round& round) {
  if (round.room == 0) {
    return;
  }
  PreferencesSuite::Outcome outcome = Failure{.tried = closed};
  {
    const runtime::BlockedScope blocked;
    const Lock lock(storeMutex_);
    if (store_) {
      outcome = store_->makeRoom(round.room);
      room_ = store_->room();
    }
  }
  const Lock lock(mutex_);
  if (!outcome) {
    // What was not flushed need not be in memory any more.
    handedOver_ = durable_;
    round.isToWrite = round.covered != durable_;
  }
  roomTried_ = round.roomRequests;
  roomOutcome_ = std::move(outcome);
  setCondition(false, hasFailed_);
  changedState_.notifyAll();
}

/// The first half: from here on it outlives the process.
void PreferencesSuiteCore::handOverRound(const Round& round, PreferencesSuite::Outcome& outcome) {
  {
    const runtime::BlockedScope blocked;
    const Lock lock(storeMutex_);
    for (const SuiteChange& change : round.changes) {
      written_.apply(change);
    }
    if (!store_) {
      outcome = Failure{.tried = closed};
    } else if (round.isToWrite || (round.isToFlush && !store_->isHandedOver())) {
      outcome = store_->handOver(written_.shared());
    }
  }
  Lock lock(mutex_);
  const bool isNews = !outcome && !hasFailed_;
  handOversTried_ = round.handOverRequests;
  handedOver_ = outcome ? round.covered : handedOver_;
  setCondition(false, hasFailed_ || !outcome);
  changedState_.notifyAll();
  lock.unlock();
  if (isNews) {
    report(outcome.failure());
  }
}

/// The second half: from here on it outlives the system.
void PreferencesSuiteCore::flushRound(const Round& round, PreferencesSuite::Outcome& outcome) {
  if (!round.isToFlush || !outcome) {
    return;
  }
  {
    const runtime::BlockedScope blocked;
    const Lock lock(storeMutex_);
    outcome = store_->flush();
    room_ = store_->room();
  }
  Lock lock(mutex_);
  const bool isNews = !outcome && !hasFailed_;
  setCondition(false, !outcome);
  if (outcome) {
    durable_ = round.covered;
  } else {
    // What was not flushed need not be in memory any more.
    handedOver_ = durable_;
  }
  lock.unlock();
  if (isNews) {
    report(outcome.failure());
  }
}

/// A disk that keeps failing is worth one line, not one for every attempt.
void PreferencesSuiteCore::report(const Failure& failure) const {
  reporting::reportFailure("PreferencesSuite::whenDurable",
                           "Unable to write the preferences " + name_ + ": " + failure.text());
}

/// The metrics say what it comes to.
void PreferencesSuiteCore::setCondition(bool isStuck, bool hasFailed) {
  const bool wasWritten = !isStuck_ && !hasFailed_;
  isStuck_ = isStuck;
  hasFailed_ = hasFailed;
  if (const bool isWritten = !isStuck && !hasFailed; isWritten != wasWritten) {
    showWhetherWritten(isWritten);
  }
}

}  // namespace kelvane
