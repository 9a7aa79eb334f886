// SPDX-License-Identifier: Apache-2.0
// Preferences suites: values in memory, written behind to a store on disk.
#include "platform/Preferences.h"

#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "platform/linux/preferences/Paths.h"
#include "platform/linux/preferences/PreferencesStore.h"
#include "platform/linux/preferences/PreferencesSuiteCore.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/DelayedItem.h"
#include "platform/linux/runtime/FileNames.h"

namespace kelvane {

struct PreferencesSuite::State {
  std::shared_ptr<PreferencesSuiteCore> core;
  DelayedItem writer;
};

namespace {

/// What nobody waits for is written after this time.
constexpr std::chrono::milliseconds writingDelay{2000};

}  // namespace

std::unique_ptr<PreferencesSuite> PreferencesSuite::open(const std::string& name) {
  if (!isFileName(name)) {
    return nullptr;
  }
  const runtime::BlockedScope blocked;
  auto store = PreferencesStore::open(paths::preferencesDirectory, name, fdatasync);
  if (!store) {
    return nullptr;
  }
  auto core = std::make_shared<PreferencesSuiteCore>(name, std::move(store));
  DelayedItem writer(writingDelay, [weak = std::weak_ptr(core)] {
    if (const auto suite = weak.lock()) {
      // A failure is logged, and what was set stays for the next time.
      suite->whenDurable([](const Outcome&) {});
    }
  });
  return std::make_unique<PreferencesSuite>(
      std::make_unique<State>(State{.core = std::move(core), .writer = std::move(writer)}));
}

PreferencesSuite::PreferencesSuite(std::unique_ptr<State> state) : state_(std::move(state)) {}

PreferencesSuite::~PreferencesSuite() {
  state_->core->close();
}

Value PreferencesSuite::operator[](const std::string& key) const {
  return state_->core->value(key);
}

void PreferencesSuite::set(const std::string& key, Value value) {
  state_->core->set(key, std::move(value));
  state_->writer.request();
}

void PreferencesSuite::whenDurable(OutcomeHandler handler) {
  state_->core->whenDurable(std::move(handler));
}

PreferencesSuite::Outcome PreferencesSuite::makeRoom(std::size_t bytes) {
  return state_->core->makeRoom(bytes);
}

}  // namespace kelvane
