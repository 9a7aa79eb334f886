// SPDX-License-Identifier: Apache-2.0
// Whole writes, and directories with those above them.
#include "platform/linux/runtime/FileAccess.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

namespace {

FileDescriptor openDirectory(const std::filesystem::path& path) {
  return FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

Result<> writeAll(int file, std::string_view name, std::span<const std::uint8_t> bytes, off_t offset, WriteCall write) {
  while (!bytes.empty()) {
    const ssize_t count = write(file, bytes.data(), bytes.size(), offset);
    if (count < 0 && errno != EINTR) {
      return systemFailure("writing", name);
    }
    if (count > 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(count));
      offset += count;
    }
  }
  return {};
}

Result<> makeDirectories(const std::filesystem::path& path, mode_t mode) {
  std::filesystem::path made;
  for (auto component = path.begin(); component != path.end(); ++component) {
    made /= *component;
    const mode_t wanted = std::next(component) == path.end() ? mode : 0755;
    if (mkdir(made.c_str(), wanted) == 0) {
      if (chmod(made.c_str(), wanted) != 0) {
        return systemFailure("making", made.native());
      }
    } else if (errno != EEXIST) {
      return systemFailure("making", made.native());
    }
  }
  return {};
}

Result<> flushDirectoriesAbove(std::filesystem::path path, FlushCall flush) {
  FileDescriptor directory = openDirectory(path);
  while (path.has_relative_path()) {
    path = path.parent_path();
    FileDescriptor above = openDirectory(path);
    if (!above && (errno == EACCES || errno == EPERM)) {
      // Not this process's to flush, nor what it has made.
      break;
    }
    if (!above) {
      return systemFailure("flushing", path.native());
    }
    struct stat status;
    struct stat statusAbove;
    if (fstat(directory.get(), &status) != 0 || fstat(above.get(), &statusAbove) != 0) {
      return systemFailure("flushing", path.native());
    }
    if (status.st_dev != statusAbove.st_dev) {
      break;
    }
    if (flush(above.get()) != 0) {
      return systemFailure("flushing", path.native());
    }
    directory = std::move(above);
  }
  return {};
}

}  // namespace kelvane
