// SPDX-License-Identifier: Apache-2.0
// What an administrator says about a directory cache.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <variant>
#include <vector>

#include "platform/Value.h"
#include "services/directory-cache/FileStatus.h"
#include "support/KelvaneService.h"

namespace kelvane::directoryCache {

inline constexpr int mildestUrgency = 1;
inline constexpr int highestUrgency = 4;

/// One directory whose files may be deleted.
struct DirectoryRules {
  /// An age that no file has.
  static constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();
  /// For urgency 1, 2, 3 and 4; never rising.
  using Ages = std::array<std::int64_t, highestUrgency>;

  /// Absolute, without "." and "..", repeated or trailing slashes.
  std::string path;
  /// Seconds since its last use that a file must have reached.
  Ages ages{};
  /// Which times of a file are its use.
  Clocks clocks;
  /// Seconds that must have passed since any of a file's times, those that are no use too: a download
  /// that keeps its server's date is new.
  Ages minimumAges{3600, 3600, 3600, 0};
  /// Bytes that stay in the directory whatever the urgency.
  std::uint64_t keepBytes = 0;
  /// Wildcards for paths relative to the directory. What matches is not looked at, with all beneath it.
  std::vector<std::string> protectedPatterns;
  /// A file that nobody else must have locked: absolute; empty if there is none.
  std::string lock;
  /// Whether a directory beneath this one goes when its last file did.
  bool removesEmptyDirectories = false;
  /// Whether root deletes where anybody else may write: whoever may can have root delete what he could not himself.
  bool othersMayWrite = false;

  /// Any urgency: below the mildest counts as that, above the highest as that.
  std::int64_t ageAt(std::int32_t urgency) const;
  std::int64_t minimumAgeAt(std::int32_t urgency) const;
  /// Whether a file of these times may go, seen from now (seconds since 1970). A time in the future is as young as now.
  bool isOldEnough(const FileStatus& status, std::int32_t urgency, std::int64_t now) const;
};

struct Configuration {
  KelvaneServiceConfiguration service;
  /// Who the process must run as, by name or decimal number; empty when any user but root will do.
  std::string user;
  std::vector<DirectoryRules> directories;
};

/// Where in a configuration an error is, and what was expected there.
struct ConfigurationError {
  std::string text;
};

/// Checks a whole configuration; keys that nobody knows are errors too, since a misspelt rule must not be taken
/// for no rule.
[[nodiscard]] std::variant<Configuration, ConfigurationError> readConfiguration(const Value& value);
/// Reads a property list of any format. Error texts begin with the path.
[[nodiscard]] std::variant<Configuration, ConfigurationError> readConfigurationFile(const std::string& path);

}  // namespace kelvane::directoryCache
