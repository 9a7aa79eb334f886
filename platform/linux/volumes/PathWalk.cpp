// SPDX-License-Identifier: Apache-2.0
// Paths that lead through file systems that may never answer.
#include "platform/linux/volumes/PathWalk.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/volumes/ChangeByOthers.h"

namespace kelvane {

namespace {

constexpr int mostLinks = 40;

Result<FileIdentity> identityBy(int directory, const char* path, int flags) {
  struct statx status = {};
  if (statx(directory, path, flags | AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT,
            STATX_TYPE | STATX_MODE | STATX_UID | STATX_INO, &status) != 0) {
    return systemFailure("statx", path);
  }
  return FileIdentity{.device = makedev(status.stx_dev_major, status.stx_dev_minor),
                      .inode = status.stx_ino,
                      .mode = status.stx_mode,
                      .owner = status.stx_uid};
}

/// Puts a path's components on top of those that are left, the next one last.
void pushComponents(const std::string& path, std::vector<std::string>& left) {
  std::vector<std::string> components;
  std::istringstream stream(path);
  for (std::string component; std::getline(stream, component, '/');) {
    if (!component.empty() && component != ".") {
      components.push_back(std::move(component));
    }
  }
  left.insert(left.end(), components.rbegin(), components.rend());
}

Result<FileDescriptor> openPlace(int directory, const std::string& name, const std::string& path) {
  FileDescriptor place(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  return place ? Result<FileDescriptor>(std::move(place)) : systemFailure("opening", path);
}

Result<std::string> readLink(const FileDescriptor& link, const std::string& path) {
  std::array<char, PATH_MAX> text;
  const ssize_t length = readlinkat(link.get(), "", text.data(), text.size());
  return length < 0 ? Result<std::string>(systemFailure("reading the link", path))
                    : std::string(text.data(), static_cast<std::size_t>(length));
}

void look(const FileDescriptor& place, const FileIdentity& identity, WalkFindings* findings) {
  const auto change = findings != nullptr ? changeByOthers(identity) : std::nullopt;
  if (change && !findings->stranger) {
    const auto name = nameOf(place);
    findings->stranger = (name ? *name : std::string()) + " " + *change;
  }
}

}  // namespace

Result<FileIdentity> identityOf(const FileDescriptor& file) {
  return identityBy(file.get(), "", AT_EMPTY_PATH);
}

Result<FileIdentity> identityAt(const std::string& link) {
  return identityBy(AT_FDCWD, link.c_str(), 0);
}

Result<std::string> nameOf(const FileDescriptor& file) {
  const std::string link = "/proc/self/fd/" + std::to_string(file.get());
  std::error_code error;
  const auto name = std::filesystem::read_symlink(link, error);
  return error ? Result<std::string>(Failure{.number = error.value(), .tried = "reading the link " + link})
               : name.string();
}

Result<> enterFileSystemOf(FileSystemProbe::Visit& visit, const FileIdentity& file, const std::string& path) {
  return visit.enter(file.device, path) ? Result<>() : Failure{.number = ETIMEDOUT, .tried = "asking " + path};
}

Result<> enterFileSystemOf(FileSystemProbe::Visit& visit, const FileDescriptor& file, const std::string& path) {
  const auto identity = identityOf(file);
  return identity ? enterFileSystemOf(visit, *identity, path) : identity.failure();
}

Result<FileDescriptor> walkTo(FileSystemProbe::Visit& visit, const std::string& path, WalkFindings* findings) {
  const auto start = [&path](bool isAbsolute) { return openPlace(AT_FDCWD, isAbsolute ? "/" : ".", path); };
  auto here = start(path.starts_with('/'));
  auto identity = here ? identityOf(*here) : here.failure();
  std::vector<std::string> left;
  pushComponents(path, left);
  // Of those that are left, so many are the path's; links' are on top of them.
  std::size_t own = left.size();
  int links = 0;
  while (identity) {
    if (const auto entered = enterFileSystemOf(visit, *identity, path); !entered) {
      return entered.failure();
    }
    look(*here, *identity, findings);
    if (left.empty()) {
      return here;
    }
    auto next = openPlace(here->get(), left.back(), path);
    const bool isOfLink = left.size() > own;
    left.pop_back();
    own = std::min(own, left.size());
    const auto found = next ? identityOf(*next) : next.failure();
    if (!found) {
      if (findings != nullptr) {
        findings->leadsNowhere = isOfLink && found.failure().number == ENOENT;
      }
      return found.failure();
    }
    if (!S_ISLNK(found->mode)) {
      here = std::move(next);
      identity = found;
      continue;
    }
    look(*next, *found, findings);
    const auto target = readLink(*next, path);
    if (!target || ++links > mostLinks) {
      return target ? Failure{.number = ELOOP, .tried = "opening " + path} : target.failure();
    }
    pushComponents(*target, left);
    if (target->starts_with('/')) {
      here = start(true);
      identity = here ? identityOf(*here) : here.failure();
    }
  }
  return identity.failure();
}

Result<FileIdentity> askIdentity(const std::string& path) {
  return FileSystemProbe::shared().ask<FileIdentity>(
      "asking " + path,
      [path](FileSystemProbe::Visit& visit) -> Result<FileIdentity> {
        const auto file = walkTo(visit, path);
        return file ? identityOf(*file) : file.failure();
      },
      FileSystemProbe::About::Files);
}

}  // namespace kelvane
