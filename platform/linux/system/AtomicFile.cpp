// SPDX-License-Identifier: Apache-2.0
// Small files in /run that others read at any time.
#include "platform/linux/system/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

namespace {

bool makeDirectory(const std::string& directory) {
  return mkdir(directory.c_str(), 0755) == 0 || errno == EEXIST;
}

/// Makes the directory and the one above it.
bool makeDirectories(const std::string& directory) {
  if (makeDirectory(directory)) {
    return true;
  }
  const std::size_t slash = directory.rfind('/');
  return errno == ENOENT && slash != std::string::npos && slash > 0 && makeDirectory(directory.substr(0, slash)) &&
         makeDirectory(directory);
}

bool writeAll(int descriptor, std::string_view contents) {
  while (!contents.empty()) {
    const ssize_t count = write(descriptor, contents.data(), contents.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    contents.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

int replaceFile(const std::string& directory, const std::string& name, std::string_view contents) {
  const runtime::BlockedScope blocked;
  if (!makeDirectories(directory)) {
    return -1;
  }
  // One temporary name a file, so that crashes leave no more than one behind; hence one writer at a time.
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  const std::string temporary = directory + "/." + name + ".new";
  const std::string target = directory + "/" + name;
  const FileDescriptor file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  if (!file) {
    return -1;
  }
  if (fchmod(file.get(), 0644) != 0 || !writeAll(file.get(), contents) ||
      rename(temporary.c_str(), target.c_str()) != 0) {
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    return -1;
  }
  return 0;
}

}  // namespace kelvane
