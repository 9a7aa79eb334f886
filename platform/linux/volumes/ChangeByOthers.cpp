// SPDX-License-Identifier: Apache-2.0
// Who may change what lies at a place.
#include "platform/linux/volumes/ChangeByOthers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>

namespace kelvane {

namespace {

/// The user that the kernel shows where a user namespace has no number for the owner. Nobody in the namespace is it,
/// and whoever made the namespace gave it such files; outside it is a user like others, "nobody".
std::optional<uid_t> userWithoutNumber() {
  static const auto user = []() -> std::optional<uid_t> {
    std::uint64_t first = 0;
    std::uint64_t outside = 0;
    std::uint64_t count = 0;
    std::ifstream("/proc/self/uid_map") >> first >> outside >> count;
    constexpr std::uint64_t all = UINT32_MAX;
    uid_t overflow = 0;
    const bool isKnown = static_cast<bool>(std::ifstream("/proc/sys/kernel/overflowuid") >> overflow);
    return count == all || !isKnown ? std::nullopt : std::optional(overflow);
  }();
  return user;
}

}  // namespace

std::optional<std::string> changeByOthers(const FileIdentity& file) {
  if (file.owner != 0 && file.owner != geteuid() && file.owner != userWithoutNumber()) {
    return "belongs to user " + std::to_string(file.owner);
  }
  const bool isCommonDirectory = S_ISDIR(file.mode) && (file.mode & S_ISVTX) == 0;
  if (!(S_ISREG(file.mode) || isCommonDirectory) || (file.mode & (S_IWGRP | S_IWOTH)) == 0) {
    return std::nullopt;
  }
  return (file.mode & S_IWOTH) != 0 ? "may be written to by everybody" : "may be written to by its group";
}

}  // namespace kelvane
