// SPDX-License-Identifier: Apache-2.0
// Running as the owner of the data.
#include "services/directory-cache/ProcessUser.h"

#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace kelvane::directoryCache {

namespace {

const passwd* findUser(const std::string& user) {
  if (const passwd* entry = getpwnam(user.c_str())) {
    return entry;
  }
  uid_t number = 0;
  const auto [end, failure] = std::from_chars(user.data(), user.data() + user.size(), number);
  return failure == std::errc() && end == user.data() + user.size() ? getpwuid(number) : nullptr;
}

}  // namespace

std::optional<std::string> runAsUser(const std::string& user) {
  const bool isRoot = geteuid() == 0;
  if (user.empty()) {
    if (isRoot) {
      return "refusing to run as root: name the owner of the directories as \"User\" in the configuration, or as User= "
             "in the unit";
    }
    return std::nullopt;
  }
  const passwd* entry = findUser(user);
  if (entry == nullptr) {
    return "User: there is no user " + user;
  }
  if (!isRoot) {
    return entry->pw_uid == geteuid()
               ? std::nullopt
               : std::optional("User: running as another user than " + user + ", and not as root");
  }
  if (entry->pw_uid == 0) {
    return std::nullopt;
  }
  if (initgroups(entry->pw_name, entry->pw_gid) != 0 || setresgid(entry->pw_gid, entry->pw_gid, entry->pw_gid) != 0 ||
      setresuid(entry->pw_uid, entry->pw_uid, entry->pw_uid) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    return "cannot become " + user + ": " + std::strerror(errno);
  }
  return std::nullopt;
}

}  // namespace kelvane::directoryCache
