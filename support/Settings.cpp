// SPDX-License-Identifier: Apache-2.0
// What an administrator may set of the daemon's behaviour.
#include "support/Settings.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "support/KelvaneLog.h"
#include "support/PropertyListFile.h"

namespace kelvane {

namespace {

constexpr char configurationPath[] = "/etc/kelvane/kelvaned.plist";
constexpr char name[] = "configureSettings";

/// Built in is NO.
struct Flag {
  std::string_view key;
  std::atomic<bool> Settings::*setting;
};

/// A whole number from 0, which is built in.
struct Number {
  std::string_view key;
  std::atomic<std::uint32_t> Settings::*setting;
  std::uint32_t most;
};

constexpr Flag flags[] = {{"EndPassesEarly", &Settings::endPassesEarly},
                          {"DropAbandoned", &Settings::dropAbandoned},
                          {"OwnedIdentifiers", &Settings::ownedIdentifiers},
                          {"FairQueues", &Settings::fairQueues}};
// A ping that is waited for longer could be the watchdog's end of the daemon.
constexpr Number numbers[] = {{"PingLimit", &Settings::pingLimitSeconds, 120},
                              {"StateWritesPerSecond", &Settings::stateWritesPerSecond, 1'000'000}};

// The old-style text format knows strings only.

std::optional<bool> boolOf(const Value& value) {
  if (value.isNumber()) {
    return value.boolValue();
  }
  if (value == Value("YES") || value == Value("NO")) {
    return value == Value("YES");
  }
  return std::nullopt;
}

std::optional<std::uint32_t> numberOf(const Value& value, std::uint32_t most) {
  std::uint64_t number = 0;
  if (const std::string* text = value.string()) {
    const char* const end = text->data() + text->size();
    const auto read = std::from_chars(text->data(), end, number);
    if (read.ec != std::errc() || read.ptr != end) {
      return std::nullopt;
    }
  } else if (value.isUnsigned() || (value.isSigned() && value.int64Value() >= 0)) {
    number = value.uint64Value();
  } else {
    return std::nullopt;
  }
  return number <= most ? std::optional(static_cast<std::uint32_t>(number)) : std::nullopt;
}

bool isKnown(const std::string& key) {
  const auto isKey = [&key](const auto& setting) { return setting.key == key; };
  return std::ranges::any_of(flags, isKey) || std::ranges::any_of(numbers, isKey);
}

bool flagIn(const Value& configuration, const Flag& flag) {
  const Value value = configuration[flag.key];
  const std::optional<bool> set = boolOf(value);
  if (!set && !value.isAbsent()) {
    KELVANE_ERROR("%s %s: %@ is neither YES nor NO: %@; it is NO", name, configurationPath, flag.key, value);
  }
  return set.value_or(false);
}

std::uint32_t numberIn(const Value& configuration, const Number& number) {
  const Value value = configuration[number.key];
  const std::optional<std::uint32_t> set = numberOf(value, number.most);
  if (!set && !value.isAbsent()) {
    KELVANE_ERROR("%s %s: %@ is no whole number from 0 to %u: %@; it is 0", name, configurationPath, number.key,
                  number.most, value);
  }
  return set.value_or(0);
}

}  // namespace

Settings settings;

void configureSettings() {
  const Value configuration = readConfiguration(configurationPath, name, "everything is as built in");
  for (const Flag& flag : flags) {
    settings.*flag.setting = flagIn(configuration, flag);
  }
  for (const Number& number : numbers) {
    settings.*number.setting = numberIn(configuration, number);
  }
  if (const auto entries = configuration.dictionary()) {
    for (const auto& [key, value] : *entries) {
      if (!isKnown(key)) {
        KELVANE_ERROR("%s %s: unknown key %@ is ignored", name, configurationPath, key);
      }
    }
  }
}

}  // namespace kelvane
