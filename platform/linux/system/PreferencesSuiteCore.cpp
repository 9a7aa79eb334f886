// SPDX-License-Identifier: Apache-2.0
// The values of one preferences suite, and who writes them.
#include "platform/linux/system/PreferencesSuiteCore.h"

#include <optional>
#include <utility>

#include "platform/Reporting.h"
#include "platform/linux/runtime/BlockedScope.h"

namespace kelvane {

PreferencesSuiteCore::PreferencesSuiteCore(std::string name, std::unique_ptr<PreferencesStore> store)
    : name_(std::move(name)), store_(std::move(store)), values_(store_->contents()) {}

Value PreferencesSuiteCore::value(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  return found == values_.end() ? Value() : found->second;
}

void PreferencesSuiteCore::set(const std::string& key, Value value) {
  const std::lock_guard lock(mutex_);
  if (value.isAbsent()) {
    values_.erase(key);
  } else {
    values_.insert_or_assign(key, std::move(value));
  }
  ++changes_;
}

bool PreferencesSuiteCore::synchronize() {
  const runtime::BlockedScope blocked;
  std::unique_lock lock(mutex_);
  const std::uint64_t wanted = changes_;
  while (durable_ < wanted) {
    if (!isWriting_) {
      writeAll(lock);
    } else {
      written_.wait(lock, [this, attempts = attempts_] { return attempts_ != attempts; });
    }
    // Whoever wrote, if it was begun after the caller's changes then its outcome is the caller's.
    if (attempted_ >= wanted) {
      return durable_ >= wanted;
    }
  }
  return true;
}

void PreferencesSuiteCore::close() {
  const runtime::BlockedScope blocked;
  std::unique_lock lock(mutex_);
  written_.wait(lock, [this] { return !isWriting_; });
  store_.reset();
}

void PreferencesSuiteCore::writeAll(std::unique_lock<std::mutex>& lock) {
  isWriting_ = true;
  const std::uint64_t covered = changes_;
  const Value::Dictionary snapshot = values_;
  lock.unlock();
  const std::optional<std::string> error = store_ ? store_->write(snapshot) : "the store is closed";
  lock.lock();
  isWriting_ = false;
  attempted_ = covered;
  ++attempts_;
  if (!error) {
    durable_ = covered;
  }
  // A disk that stays full is worth one line, not one for every attempt.
  const bool isNew = error && !hasFailed_;
  hasFailed_ = error.has_value();
  written_.notify_all();
  lock.unlock();
  if (isNew) {
    reporting::writeLog(3, "Kelvane", "PreferencesSuite::synchronize",
                        "Unable to write the preferences " + name_ + ": " + *error);
  }
  lock.lock();
}

}  // namespace kelvane
