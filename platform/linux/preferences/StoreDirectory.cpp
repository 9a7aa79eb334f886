// SPDX-License-Identifier: Apache-2.0
// Directories of stores, and their entries.
#include "platform/linux/preferences/StoreDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/Limits.h"
#include "platform/linux/preferences/StoreLock.h"
#include "platform/linux/runtime/FileAccess.h"

namespace kelvane {

FileDescriptor openDirectory(int parent, const char* name) {
  return FileDescriptor(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Result<FileDescriptor> openStores(const std::string& directory) {
  if (auto made = makeDirectories(directory, 0700); !made) {
    return made.failure();
  }
  FileDescriptor stores = openDirectory(AT_FDCWD, directory.c_str());
  if (!stores) {
    return systemFailure("opening", directory);
  }
  if (const auto locked = lockStores(stores.get(), directory); !locked) {
    return locked.failure();
  }
  return stores;
}

Result<std::string> keepAside(int parent, const std::string& directory, const std::string& entry,
                              const std::string& name) {
  for (int number = 1;; ++number) {
    const bool isLast = number == limits::damagedPreferences;
    const std::string aside = name + ".damaged-" + std::to_string(number);
    if (isLast) {
      std::error_code ignored;
      std::filesystem::remove_all(directory + "/" + aside, ignored);
    }
    if (renameat2(parent, entry.c_str(), parent, aside.c_str(), RENAME_NOREPLACE) == 0) {
      return aside;
    }
    if (errno == EBUSY) {
      // Not the number that says that another daemon is running.
      return Failure{.tried = "renaming " + directory + "/" + entry + ": it is a mount point"};
    }
    if (errno != EEXIST || isLast) {
      return systemFailure("renaming", entry);
    }
  }
}

bool leadsTo(int directory, const char* path, const FileDescriptor& file) {
  struct stat found;
  struct stat open;
  if (fstatat(directory, path, &found, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno != ENOENT && errno != ENOTDIR && errno != ELOOP;
  }
  return fstat(file.get(), &open) == 0 && found.st_dev == open.st_dev && found.st_ino == open.st_ino;
}

}  // namespace kelvane
