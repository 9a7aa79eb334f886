// SPDX-License-Identifier: Apache-2.0
// Preferences suites: values in memory, written behind to a store on disk.
#include "platform/Preferences.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "platform/linux/preferences/Paths.h"
#include "platform/linux/preferences/PreferencesSuiteCore.h"
#include "platform/linux/preferences/StoreOpening.h"
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

Result<std::unique_ptr<PreferencesSuite>> PreferencesSuite::open(const std::string& name) {
  if (!isFileName(name)) {
    return Failure{.number = EINVAL, .tried = "naming preferences"};
  }
  auto store = openInTime(FileSystemProbe::shared(), paths::preferencesDirectory, name);
  reporting::setGauge("kelvane_preferences_available", "Whether state is kept: 0 when the store could not be opened.",
                      store ? 1 : 0);
  if (!store) {
    PreferencesSuiteCore::showWhetherWritten(false);
    reporting::reportFailure("PreferencesSuite::open",
                             "Unable to open the preferences " + name + ": " + store.failure().text());
    return store.failure();
  }
  auto core = std::make_shared<PreferencesSuiteCore>(name, *std::move(store));
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

std::optional<Value> PreferencesSuite::entry(const std::string& key, const std::string& entry) const {
  return state_->core->entry(key, entry);
}

void PreferencesSuite::setEntry(const std::string& key, const std::string& entry, Value value) {
  state_->core->set({.key = key, .entry = entry, .value = std::move(value)});
  state_->writer.request();
}

void PreferencesSuite::whenDurable(OutcomeHandler handler) {
  state_->core->whenDurable(std::move(handler));
}

void PreferencesSuite::handOver() {
  static_cast<void>(state_->core->handOver(limits::diskPatience));
}

PreferencesSuite::Outcome PreferencesSuite::makeRoom(std::size_t bytes) {
  return state_->core->makeRoom(bytes, limits::diskPatience);
}

}  // namespace kelvane
