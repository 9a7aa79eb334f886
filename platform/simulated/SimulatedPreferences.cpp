// SPDX-License-Identifier: Apache-2.0
// Preferences suites in memory.
#include "platform/simulated/SimulatedPreferences.h"

#include <cerrno>

#include "platform/Preferences.h"
#include "platform/Queues.h"
#include "platform/common/FrozenValue.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

namespace simulated {

void Preferences::set(const std::string& suite, const std::string& key, const Value& value) {
  const std::shared_ptr<Store> found = store(suite);
  found->memory[key] = value;
  found->disk[key] = value;
}

Value Preferences::contents(const std::string& suite) const {
  const auto found = stores_.find(suite);
  return found == stores_.end() ? Value() : Value(found->second->memory);
}

Value Preferences::onDisk(const std::string& suite) const {
  const auto found = stores_.find(suite);
  return found == stores_.end() ? Value() : Value(found->second->disk);
}

Value Preferences::handedOver(const std::string& suite) const {
  const auto found = stores_.find(suite);
  return found == stores_.end() ? Value() : Value(found->second->handedOver);
}

std::shared_ptr<Preferences::Store> Preferences::open(const std::string& suite) {
  ++openings_;
  return store(suite);
}

void Preferences::loseMemory() {
  // New stores: whoever still holds an old one belongs to a process that is gone.
  for (auto& [name, store] : stores_) {
    store = std::make_shared<Store>(Store{store->disk, store->disk, store->disk});
  }
}

std::shared_ptr<Preferences::Store> Preferences::store(const std::string& suite) {
  std::shared_ptr<Store>& store = stores_[suite];
  if (store == nullptr) {
    store = std::make_shared<Store>();
  }
  return store;
}

}  // namespace simulated

struct PreferencesSuite::State {
  std::shared_ptr<simulated::Preferences::Store> store;
};

PreferencesSuite::PreferencesSuite(std::unique_ptr<State> state) : state_(std::move(state)) {}

PreferencesSuite::~PreferencesSuite() = default;

Result<std::unique_ptr<PreferencesSuite>> PreferencesSuite::open(const std::string& name) {
  simulated::Preferences& preferences = simulated::world().preferences;
  if (const int error = preferences.openingError(); error != 0) {
    return Failure{.number = error, .tried = "opening " + name};
  }
  return std::make_unique<PreferencesSuite>(std::make_unique<State>(State{preferences.open(name)}));
}

Value PreferencesSuite::operator[](const std::string& key) const {
  const auto found = state_->store->memory.find(key);
  return found == state_->store->memory.end() ? Value() : found->second;
}

std::optional<Value> PreferencesSuite::entry(const std::string& key, const std::string& entry) const {
  const Value whole = (*this)[key];
  return whole.isDictionary() ? std::optional(whole[entry]) : std::nullopt;
}

void PreferencesSuite::setEntry(const std::string& key, const std::string& entry, Value value) {
  const auto before = (*this)[key].dictionary();
  Value::Dictionary entries = before ? *before : Value::Dictionary();
  if (value.isAbsent()) {
    entries.erase(entry);
  } else {
    entries[entry] = std::move(value);
  }
  state_->store->memory[key] = std::move(entries);
}

void PreferencesSuite::handOver() {
  state_->store->handedOver = state_->store->memory;
  simulated::world().preferences.countHandOver();
}

void PreferencesSuite::whenDurable(OutcomeHandler handler) {
  globalQueue::async([store = state_->store, handler = std::move(handler)] {
    simulated::Preferences& preferences = simulated::world().preferences;
    const bool written = !preferences.failing();
    if (written) {
      store->disk.clear();
      for (const auto& [key, value] : store->memory) {
        store->disk[key] = frozen(value);
      }
      preferences.countWrite();
    }
    simulated::scheduler().yield();
    handler(written ? Outcome() : Failure{.number = EIO, .tried = "flushing"});
  });
}

PreferencesSuite::Outcome PreferencesSuite::makeRoom(std::size_t bytes) {
  return bytes <= simulated::world().preferences.room() ? Outcome() : Failure{.number = ENOSPC, .tried = "writing"};
}

}  // namespace kelvane
