// SPDX-License-Identifier: Apache-2.0
// The mutable dictionary: one lock, and contents copied only when a snapshot of them is out.
#include "platform/MutableDictionary.h"

#include <mutex>
#include <string>
#include <utility>

namespace kelvane {

struct MutableDictionary::State {
  explicit State(Value::Dictionary initial) : contents(std::make_shared<Value::Dictionary>(std::move(initial))) {}

  /// The contents, made safe to change. The caller holds the lock.
  Value::Dictionary& writable() {
    if (handedOut) {
      contents = std::make_shared<Value::Dictionary>(*contents);
      handedOut = false;
    }
    return *contents;
  }

  // Guards the rest.
  std::mutex mutex;
  std::shared_ptr<Value::Dictionary> contents;
  /// Whether a snapshot of contents was given out, so that they may not change any more.
  bool handedOut = false;
};

MutableDictionary::MutableDictionary() : state_(std::make_shared<State>(Value::Dictionary())) {}

MutableDictionary::MutableDictionary(const Value& contents) {
  const auto entries = contents.dictionary();
  state_ = std::make_shared<State>(entries ? *entries : Value::Dictionary());
}

Value MutableDictionary::operator[](std::string_view key) const {
  const std::lock_guard lock(state_->mutex);
  const auto entry = state_->contents->find(key);
  return entry == state_->contents->end() ? Value() : entry->second;
}

void MutableDictionary::set(std::string_view key, Value value) const {
  if (value.isAbsent()) {
    remove(key);
    return;
  }
  // The value replaced ends its life after the lock is released: it may hold the last view of a large tree.
  const std::lock_guard lock(state_->mutex);
  Value::Dictionary& entries = state_->writable();
  const auto entry = entries.find(key);
  if (entry == entries.end()) {
    entries.emplace(std::string(key), std::move(value));
  } else {
    std::swap(entry->second, value);
  }
}

void MutableDictionary::remove(std::string_view key) const {
  Value removed;
  const std::lock_guard lock(state_->mutex);
  if (!state_->contents->contains(key)) {
    return;
  }
  Value::Dictionary& entries = state_->writable();
  const auto entry = entries.find(key);
  removed = std::move(entry->second);
  entries.erase(entry);
}

MutableDictionary MutableDictionary::nested(std::string_view key) const {
  Value replaced;
  const std::lock_guard lock(state_->mutex);
  const auto present = state_->contents->find(key);
  if (present != state_->contents->end() && present->second.mutableDictionary() != nullptr) {
    return *present->second.mutableDictionary();
  }
  const MutableDictionary made;
  replaced = std::exchange(state_->writable()[std::string(key)], Value(made));
  return made;
}

std::shared_ptr<const Value::Dictionary> MutableDictionary::snapshot() const {
  const std::lock_guard lock(state_->mutex);
  state_->handedOut = true;
  return state_->contents;
}

MutableDictionary MutableDictionary::copied() const {
  return MutableDictionary(Value(*this));
}

}  // namespace kelvane
