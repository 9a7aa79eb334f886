// SPDX-License-Identifier: Apache-2.0
// Rights on the directory of all stores.
#include "platform/linux/preferences/StoreRights.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/Reporting.h"

namespace kelvane {

namespace {

constexpr mode_t ownersOnly = 0700;

std::string octal(mode_t mode) {
  std::array<char, 8> text;
  std::snprintf(text.data(), text.size(), "%04o", mode & 07777u);
  return text.data();
}

void report(const std::string& text) {
  reporting::reportFailure("PreferencesStore::open", text);
}

}  // namespace

Result<> keepToOwner(int stores, const std::string& path) {
  struct stat status;
  if (fstat(stores, &status) != 0) {
    return systemFailure("opening", path);
  }
  if (status.st_uid != geteuid()) {
    return Failure{.tried = "opening " + path + ": it belongs to user " + std::to_string(status.st_uid) +
                            ", not to user " + std::to_string(geteuid())};
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) == 0) {
    return {};
  }
  const std::string found = "has mode " + octal(status.st_mode);
  std::error_code ignored;
  if (std::filesystem::is_symlink(path, ignored)) {
    return Failure{.tried = "opening " + path + ": it is a link to a directory that " + found +
                            "; one of mode 0700 is needed"};
  }
  if (fchmod(stores, ownersOnly) != 0) {
    // Some file systems know no modes. Whoever takes the lock there keeps the stores closed, and nothing else.
    report(systemFailure("closing " + path + ", which " + found + ", to others").text());
    return {};
  }
  report("The directory " + path + " was open to others (it " + found + "); now it is not");
  return {};
}

}  // namespace kelvane
