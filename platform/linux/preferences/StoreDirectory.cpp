// SPDX-License-Identifier: Apache-2.0
// Directories of stores, and their entries.
#include "platform/linux/preferences/StoreDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/Limits.h"
#include "platform/linux/preferences/StoreLock.h"
#include "platform/linux/preferences/StoreRights.h"
#include "platform/linux/runtime/FileAccess.h"

namespace kelvane {

namespace {

/// As systemFailure(), but without the number that says that another daemon is running.
Failure entryFailure(const std::string& tried, const std::string& path) {
  return errno == EBUSY ? Failure{.tried = tried + " " + path + ": it is a mount point"} : systemFailure(tried, path);
}

/// Looks before anything is removed.
Result<> expectSlotsOnly(const std::string& path) {
  std::error_code error;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator entry(path, error); !error && entry != end; entry.increment(error)) {
    const bool hasSlotsName = std::ranges::any_of(
        slotNames, [&entry](const char* name) { return entry->path().filename().native() == name; });
    const bool isFile = std::filesystem::is_regular_file(entry->symlink_status(error));
    if (!error && !(hasSlotsName && isFile)) {
      return Failure{.tried = "removing " + path + ": it holds more than a store's files"};
    }
  }
  return error ? Failure{.number = error.value(), .tried = "removing " + path} : Result<>();
}

}  // namespace

FileDescriptor openDirectory(int parent, const char* name) {
  return FileDescriptor(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Result<FileDescriptor> openStores(const std::string& directory) {
  // What is there may be a link to nothing, of which the system says no more than that nothing is there.
  const Failure missing{.tried = "opening " + directory + ": a link on the way there leads to nothing"};
  if (auto made = makeDirectories(directory, 0700); !made) {
    return made.failure().number == ENOENT ? missing : made.failure();
  }
  FileDescriptor stores(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!stores) {
    return errno == ENOENT ? missing : systemFailure("opening", directory);
  }
  if (const auto kept = keepToOwner(stores.get(), directory); !kept) {
    return kept.failure();
  }
  if (const auto locked = lockStores(stores.get(), directory); !locked) {
    return locked.failure();
  }
  return stores;
}

Result<> renameEntry(int parent, const std::string& directory, const std::string& from, const std::string& to,
                     unsigned manner) {
  return renameat2(parent, from.c_str(), parent, to.c_str(), manner) == 0
             ? Result<>()
             : entryFailure("renaming", directory + "/" + from);
}

Result<std::string> keepAside(int parent, const std::string& directory, const std::string& entry,
                              const std::string& name) {
  for (int number = 1;; ++number) {
    const bool isLast = number == limits::damagedPreferences;
    const std::string aside = name + ".damaged-" + std::to_string(number);
    if (isLast) {
      if (auto removed = removeStore(parent, directory, aside); !removed) {
        return removed.failure();
      }
    }
    auto renamed = renameEntry(parent, directory, entry, aside, RENAME_NOREPLACE);
    if (renamed) {
      return aside;
    }
    if (renamed.failure().number != EEXIST || isLast) {
      return renamed.failure();
    }
  }
}

Result<> removeStore(int parent, const std::string& directory, const std::string& entry) {
  const std::string path = directory + "/" + entry;
  // Refused for what is mounted there, be it of the same disk, before what is in it is asked for.
  if (unlinkat(parent, entry.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) {
    return {};
  }
  if (errno != ENOTEMPTY && errno != EEXIST) {
    return entryFailure("removing", path);
  }
  if (auto expected = expectSlotsOnly(path); !expected) {
    return expected;
  }
  const FileDescriptor store = openDirectory(parent, entry.c_str());
  if (!store) {
    return systemFailure("removing", path);
  }
  for (const char* slot : slotNames) {
    if (unlinkat(store.get(), slot, 0) != 0 && errno != ENOENT) {
      return entryFailure("removing", path + "/" + slot);
    }
  }
  return unlinkat(parent, entry.c_str(), AT_REMOVEDIR) == 0 ? Result<>() : entryFailure("removing", path);
}

bool leadsTo(int directory, const char* path, FinalLink link, const FileDescriptor& file) {
  struct stat found;
  struct stat open;
  if (fstatat(directory, path, &found, link == FinalLink::IsNot ? AT_SYMLINK_NOFOLLOW : 0) != 0) {
    return errno != ENOENT && errno != ENOTDIR && errno != ELOOP;
  }
  return fstat(file.get(), &open) == 0 && found.st_dev == open.st_dev && found.st_ino == open.st_ino;
}

}  // namespace kelvane
