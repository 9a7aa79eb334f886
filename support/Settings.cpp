// SPDX-License-Identifier: Apache-2.0
// What an administrator may set of the daemon's behaviour.
#include "support/Settings.h"

#include <optional>

#include "support/KelvaneLog.h"
#include "support/PropertyListFile.h"

namespace kelvane {

namespace {

constexpr char configurationPath[] = "/etc/kelvane/kelvaned.plist";
constexpr char name[] = "configureSettings";
constexpr char endPassesEarly[] = "EndPassesEarly";

/// The old-style text format knows strings only.
std::optional<bool> boolOf(const Value& value) {
  if (value.isNumber()) {
    return value.boolValue();
  }
  if (value == Value("YES") || value == Value("NO")) {
    return value == Value("YES");
  }
  return std::nullopt;
}

void apply(const std::string& key, const Value& value) {
  if (key != endPassesEarly) {
    KELVANE_ERROR("%s %s: unknown key %@ is ignored", name, configurationPath, key);
  } else if (const std::optional<bool> flag = boolOf(value)) {
    settings.endPassesEarly = *flag;
  } else {
    KELVANE_ERROR("%s %s: %@ is neither YES nor NO: %@; it is %s", name, configurationPath, key, value,
                  settings.endPassesEarly ? "YES" : "NO");
  }
}

}  // namespace

Settings settings;

void configureSettings() {
  settings.endPassesEarly = false;
  const auto read = readPropertyListFile(configurationPath);
  if (const auto* error = std::get_if<FileError>(&read)) {
    if (!error->isMissing) {
      KELVANE_ERROR("%s unable to read %s: %@", name, configurationPath, error->text);
    }
    return;
  }
  const Value configuration = std::get<Value>(read);
  if (!configuration.isDictionary()) {
    KELVANE_ERROR("%s %s is no dictionary and is ignored", name, configurationPath);
    return;
  }
  for (const auto& [key, value] : *configuration.dictionary()) {
    apply(key, value);
  }
}

}  // namespace kelvane
