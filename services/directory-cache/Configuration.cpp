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

void readAges(ConfigurationEntries& entries, DirectoryRules& rules) {
  constexpr char expected[] =
      "four ages in seconds, or \"never\", for urgency 1 to 4, none greater than the one before it";
  const std::vector<Value> ages = entries.array("Ages");
  if (ages.size() != rules.ages.size()) {
    entries.fail("Ages", expected);
    return;
  }
  for (std::size_t index = 0; index < ages.size(); ++index) {
    const auto number = ConfigurationEntries::unsignedNumber(ages[index]);
    const bool isNever = ages[index] == Value("never");
    if (!isNever && (!number || *number >= static_cast<std::uint64_t>(DirectoryRules::never))) {
      entries.fail("Ages", expected);
      return;
    }
    rules.ages[index] = isNever ? DirectoryRules::never : static_cast<std::int64_t>(*number);
  }
  if (!std::is_sorted(rules.ages.rbegin(), rules.ages.rend())) {
    entries.fail("Ages", expected);
  }
}

DirectoryRules readDirectory(ConfigurationEntries& entries) {
  DirectoryRules rules;
  rules.path = entries.requiredString("Path");
  if (!rules.path.empty() && !isPlainPath(rules.path)) {
    entries.fail("Path", "an absolute path other than \"/\", without \".\", \"..\" and needless slashes");
  }
  readAges(entries, rules);
  rules.keepBytes = entries.bytes("KeepBytes", 0);
  rules.protectedPatterns = entries.strings("Never");
  if (rules.protectedPatterns.size() > limits::cachePatterns) {
    entries.fail("Never", "at most " + std::to_string(limits::cachePatterns) + " patterns");
  }
  rules.removesEmptyDirectories = entries.boolean("RemoveEmptyDirectories", false);
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

}  // namespace

std::int64_t DirectoryRules::ageAt(std::int32_t urgency) const {
  return ages[static_cast<std::size_t>(std::clamp(urgency, mildestUrgency, highestUrgency) - mildestUrgency)];
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
