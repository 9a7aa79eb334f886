// SPDX-License-Identifier: Apache-2.0
// What an administrator says about a directory cache.
#include "services/directory-cache/Configuration.h"

#include <algorithm>
#include <utility>

#include "platform/Ipc.h"
#include "platform/Limits.h"
#include "services/directory-cache/ConfigurationEntries.h"
#include "support/PropertyListFile.h"

namespace kelvane::directoryCache {

namespace {

/// Absolute, and each of its components names one directory: no ".", ".." or empty ones.
bool isPlainPath(const std::string& path) {
  if (path.size() < 2 || path.front() != '/' || path.find('\0') != std::string::npos) {
    return false;
  }
  for (std::size_t begin = 1; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string component = path.substr(begin, end - begin);
    if (component.empty() || component == "." || component == "..") {
      return false;
    }
    begin = end + 1;
  }
  return true;
}

bool isBeneath(const std::string& path, const std::string& directory) {
  return path == directory || path.starts_with(directory + "/");
}

std::optional<DirectoryRules::Ages> readAges(const std::vector<Value>& values) {
  DirectoryRules::Ages ages{};
  if (values.size() != ages.size()) {
    return std::nullopt;
  }
  for (std::size_t index = 0; index < ages.size(); ++index) {
    const auto number = ConfigurationEntries::unsignedNumber(values[index]);
    const bool isNever = values[index] == Value("never");
    if (!isNever && (!number || *number >= static_cast<std::uint64_t>(DirectoryRules::never))) {
      return std::nullopt;
    }
    ages[index] = isNever ? DirectoryRules::never : static_cast<std::int64_t>(*number);
  }
  return std::is_sorted(ages.rbegin(), ages.rend()) ? std::optional(ages) : std::nullopt;
}

void takeAges(ConfigurationEntries& entries, const std::string& key, DirectoryRules::Ages& ages) {
  if (const auto read = readAges(entries.array(key))) {
    ages = *read;
  } else {
    entries.fail(key, "four ages in seconds, or \"never\", for urgency 1 to 4, none greater than the one before it");
  }
}

void takeClocks(ConfigurationEntries& entries, Clocks& clocks) {
  const std::vector<std::string> names = entries.strings("Clocks");
  clocks = {false, false, false, false};
  for (const std::string& name : names) {
    if (name == "access") {
      clocks.access = true;
    } else if (name == "modification") {
      clocks.modification = true;
    } else if (name == "change") {
      clocks.change = true;
    } else if (name == "birth") {
      clocks.birth = true;
    } else {
      entries.fail("Clocks", "\"access\", \"modification\", \"change\" and \"birth\" only");
    }
  }
  if (clocks == Clocks{false, false, false, false}) {
    entries.fail("Clocks", "at least one of \"access\", \"modification\", \"change\" and \"birth\"");
  }
}

/// The pattern that matches this text alone.
std::string patternFor(const std::string& text) {
  std::string pattern;
  for (const char character : text) {
    pattern += {'\\', character};
  }
  return pattern;
}

/// The lock's file is not for deletion.
void takeLock(ConfigurationEntries& entries, DirectoryRules& rules) {
  const std::string lock = entries.string("Lock", "");
  if (lock.empty()) {
    return;
  }
  rules.lock = lock.front() == '/' ? lock : rules.path + "/" + lock;
  if (!isPlainPath(rules.lock)) {
    entries.fail("Lock", "a file's path, absolute or within the directory, without \".\", \"..\" and needless slashes");
  }
  if (rules.lock.starts_with(rules.path + "/")) {
    rules.protectedPatterns.push_back(patternFor(rules.lock.substr(rules.path.size() + 1)));
  }
}

DirectoryRules readDirectory(ConfigurationEntries& entries) {
  DirectoryRules rules;
  rules.path = entries.requiredString("Path");
  if (!rules.path.empty() && !isPlainPath(rules.path)) {
    entries.fail("Path", "an absolute path other than \"/\", without \".\", \"..\" and needless slashes");
  }
  takeAges(entries, "Ages", rules.ages);
  if (entries.has("MinimumAge")) {
    takeAges(entries, "MinimumAge", rules.minimumAges);
  }
  if (entries.has("Clocks")) {
    takeClocks(entries, rules.clocks);
  }
  rules.keepBytes = entries.bytes("KeepBytes", 0);
  rules.protectedPatterns = entries.strings("Never");
  if (rules.protectedPatterns.size() > limits::cachePatterns) {
    entries.fail("Never", "at most " + std::to_string(limits::cachePatterns) + " patterns");
  }
  rules.removesEmptyDirectories = entries.boolean("RemoveEmptyDirectories", false);
  takeLock(entries, rules);
  rules.othersMayWrite = entries.boolean("OthersMayWrite", false);
  return rules;
}

void readDirectories(ConfigurationEntries& entries, std::vector<DirectoryRules>& directories,
                     std::optional<std::string>& error) {
  const std::vector<Value> values = entries.array("Directories");
  if (values.empty() || values.size() > limits::cacheDirectories) {
    entries.fail("Directories", "an array of 1 to " + std::to_string(limits::cacheDirectories) + " dictionaries");
    return;
  }
  for (std::size_t index = 0; index < values.size() && !error; ++index) {
    ConfigurationEntries directory(values[index], "Directories[" + std::to_string(index + 1) + "]");
    DirectoryRules rules = readDirectory(directory);
    for (const DirectoryRules& other : directories) {
      if (isBeneath(rules.path, other.path) || isBeneath(other.path, rules.path)) {
        directory.fail("Path", "a directory apart from " + other.path);
      }
    }
    error = directory.error();
    directories.push_back(std::move(rules));
  }
}

std::size_t indexOf(std::int32_t urgency) {
  return static_cast<std::size_t>(std::clamp(urgency, mildestUrgency, highestUrgency) - mildestUrgency);
}

bool hasAge(const FileTime& time, std::int64_t age, std::int64_t now) {
  return age == 0 || (age != DirectoryRules::never && time.seconds <= now - age);
}

}  // namespace

std::int64_t DirectoryRules::ageAt(std::int32_t urgency) const {
  return ages[indexOf(urgency)];
}

std::int64_t DirectoryRules::minimumAgeAt(std::int32_t urgency) const {
  return minimumAges[indexOf(urgency)];
}

bool DirectoryRules::isOldEnough(const FileStatus& status, std::int32_t urgency, std::int64_t now) const {
  return hasAge(status.lastUse(clocks), ageAt(urgency), now) &&
         hasAge(status.lastUse(Clocks()), minimumAgeAt(urgency), now);
}

std::variant<Configuration, ConfigurationError> readConfiguration(const Value& value) {
  Configuration configuration;
  ConfigurationEntries entries(value, "");
  configuration.service.identifier = entries.requiredString("Identifier");
  if (!configuration.service.identifier.empty() && !ipc::isServiceName(configuration.service.identifier)) {
    entries.fail("Identifier", "at most " + std::to_string(limits::serviceNameBytes) +
                                   " bytes, without '/' and not beginning with '.'");
  }
  const std::string manner = entries.string("Manner", "CheckIn");
  if (manner != "CheckIn" && manner != "Named") {
    entries.fail("Manner", "\"CheckIn\" or \"Named\"");
  }
  using Manner = KelvaneServiceConfiguration::Manner;
  configuration.service.manner = manner == "Named" ? Manner::Named : Manner::Checkin;
  configuration.service.daemonUser = entries.string("DaemonUser", configuration.service.daemonUser);
  configuration.service.notifications = entries.strings("Notifications");
  configuration.user = entries.string("User", "");
  std::optional<std::string> directoryError;
  readDirectories(entries, configuration.directories, directoryError);
  if (const auto error = entries.error() ? entries.error() : directoryError) {
    return ConfigurationError{*error};
  }
  return configuration;
}

std::variant<Configuration, ConfigurationError> readConfigurationFile(const std::string& path) {
  const auto file = readPropertyListFile(path);
  if (const auto* error = std::get_if<FileError>(&file)) {
    return ConfigurationError{path + ": " + error->text};
  }
  auto configuration = readConfiguration(std::get<Value>(file));
  if (const auto* error = std::get_if<ConfigurationError>(&configuration)) {
    return ConfigurationError{path + ": " + error->text};
  }
  return configuration;
}

}  // namespace kelvane::directoryCache
