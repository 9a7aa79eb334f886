// SPDX-License-Identifier: Apache-2.0
// What a configuration comes to on this machine.
#include "services/directory-cache/Check.h"

#include <fnmatch.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

#include "platform/Printable.h"
#include "services/directory-cache/Survey.h"

namespace kelvane::directoryCache {

namespace {

std::string nameOf(uid_t user) {
  const passwd* entry = getpwuid(user);
  return entry == nullptr ? "user " + std::to_string(user) : printable(entry->pw_name);
}

/// Whether a pattern matches a path or a directory that it is in.
bool protects(const std::string& pattern, std::string path) {
  while (fnmatch(pattern.c_str(), path.c_str(), 0) != 0) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
      return false;
    }
    path.resize(slash);
  }
  return true;
}

void writePatterns(const OpenDirectory& directory, std::ostream& output) {
  std::vector<std::uint64_t> matches(directory.rules->protectedPatterns.size());
  directory.tree.walk({}, Cancellation(), [&](const WalkedFile& file) {
    for (std::size_t index = 0; index < matches.size(); ++index) {
      matches[index] += protects(directory.rules->protectedPatterns[index], file.path) ? 1 : 0;
    }
  });
  for (std::size_t index = 0; index < matches.size(); ++index) {
    output << "  never: " << printable(directory.rules->protectedPatterns[index]) << " matches "
           << (matches[index] == 0 ? "no" : std::to_string(matches[index])) << " files\n";
  }
}

/// Where a path really leads, if that is somewhere else.
std::string whereLinksLead(const std::string& path) {
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(path, error);
  return error || real == path ? "" : " (" + printable(path) + " is " + printable(real.string()) + ")";
}

bool checkDirectory(const DirectoryRules& rules, std::int64_t now, std::ostream& output) {
  auto opened = openDirectory(rules, LockUse::Look);
  if (const auto* reason = std::get_if<LeftDirectory>(&opened)) {
    output << "  left: " << printable(reason->why) << whereLinksLead(rules.path) << '\n';
    return reason->isOrdinary;
  }
  std::vector<OpenDirectory> directory;
  directory.push_back(std::move(std::get<OpenDirectory>(opened)));
  if (const auto status = statusOf(directory.front().tree.root())) {
    output << "  belongs to " << nameOf(status->owner) << ", looked at as " << nameOf(geteuid()) << '\n';
  }
  writePatterns(directory.front(), output);
  for (std::int32_t urgency = mildestUrgency; urgency <= highestUrgency; ++urgency) {
    output << "  urgency " << urgency << " would free " << purgeableBytes(directory, urgency, now, Cancellation())
           << " bytes\n";
  }
  return true;
}

}  // namespace

bool checkDirectories(const Configuration& configuration, std::int64_t now, std::ostream& output) {
  bool isGood = true;
  for (const DirectoryRules& rules : configuration.directories) {
    output << printable(rules.path) << ":\n";
    isGood = checkDirectory(rules, now, output) && isGood;
  }
  return isGood;
}

}  // namespace kelvane::directoryCache
