// SPDX-License-Identifier: Apache-2.0
// The values of one preferences suite, and who writes them.
#include "platform/linux/preferences/PreferencesSuiteCore.h"

#include <utility>

#include "platform/Queues.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/BlockedScope.h"

namespace kelvane {

PreferencesSuiteCore::PreferencesSuiteCore(std::string name, std::unique_ptr<PreferencesStore> store)
    : name_(std::move(name)), values_(store->contents()), room_(store->room()), store_(std::move(store)) {}

Value PreferencesSuiteCore::value(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  return found == values_.end() ? Value() : found->second;
}

void PreferencesSuiteCore::set(const std::string& key, Value value) {
  // The value replaced goes after the lock is released: it may be large.
  const std::lock_guard lock(mutex_);
  if (!value.isAbsent()) {
    std::swap(values_[key], value);
  } else if (auto removed = values_.extract(key)) {
    value = std::move(removed.mapped());
  }
  ++changes_;
}

void PreferencesSuiteCore::whenDurable(PreferencesSuite::OutcomeHandler handler) {
  const std::lock_guard lock(mutex_);
  waiting_.push_back(std::move(handler));
  if (!std::exchange(isFlushing_, true)) {
    globalQueue::async([self = shared_from_this()] { self->flush(); });
  }
}

PreferencesSuite::Outcome PreferencesSuiteCore::makeRoom(std::size_t bytes) {
  // Without the lock, which is held as long as a write takes.
  if (room_ >= bytes) {
    return std::nullopt;
  }
  const runtime::BlockedScope blocked;
  const std::lock_guard lock(storeMutex_);
  const PreferencesSuite::Outcome outcome = store_->makeRoom(bytes);
  room_ = store_->room();
  return outcome;
}

void PreferencesSuiteCore::close() {
  const runtime::BlockedScope blocked;
  std::unique_lock lock(mutex_);
  flushed_.wait(lock, [this] { return !isFlushing_; });
  const std::lock_guard storeLock(storeMutex_);
  store_.reset();
}

void PreferencesSuiteCore::flush() {
  std::unique_lock lock(mutex_);
  while (!waiting_.empty()) {
    const auto handlers = std::exchange(waiting_, {});
    const std::uint64_t covered = changes_;
    const bool isDurable = durable_ == covered;
    const Value::Dictionary values = isDurable ? Value::Dictionary() : values_;
    lock.unlock();
    const PreferencesSuite::Outcome outcome = isDurable ? std::nullopt : write(values);
    for (const auto& handler : handlers) {
      handler(outcome);
    }
    lock.lock();
    durable_ = outcome ? durable_ : covered;
  }
  isFlushing_ = false;
  flushed_.notify_all();
}

PreferencesSuite::Outcome PreferencesSuiteCore::write(const Value::Dictionary& values) {
  const runtime::BlockedScope blocked;
  const std::lock_guard lock(storeMutex_);
  const PreferencesSuite::Outcome outcome = store_ ? store_->write(values) : "the store is closed";
  report(outcome);
  return outcome;
}

/// A disk that keeps failing is worth one line, not one for every attempt.
void PreferencesSuiteCore::report(const PreferencesSuite::Outcome& outcome) {
  if (!std::exchange(hasFailed_, outcome.has_value()) && outcome) {
    reporting::reportFailure("PreferencesSuite::whenDurable",
                             "Unable to write the preferences " + name_ + ": " + *outcome);
  }
}

}  // namespace kelvane
