// SPDX-License-Identifier: Apache-2.0
// Finding and reading files.
#include "platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/Limits.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::files {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory openDirectory(int parent, const char* name, int extraFlags) {
  FileDescriptor descriptor(openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | extraFlags));
  if (!descriptor) {
    return nullptr;
  }
  Directory directory(fdopendir(descriptor.get()));
  if (directory) {
    descriptor.release();
  }
  return directory;
}

std::vector<std::string> sortedNames(DIR* directory) {
  std::vector<std::string> names;
  for (const dirent* entry = nullptr; names.size() < limits::directoryEntries && (entry = readdir(directory));) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      names.emplace_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

void collectEntries(DIR* directory, const std::string& prefix, int depth, std::vector<std::string>& entries) {
  for (const std::string& name : sortedNames(directory)) {
    if (entries.size() >= limits::directoryEntries) {
      return;
    }
    entries.push_back(prefix + name);
    if (depth >= limits::directoryDepth) {
      continue;
    }
    // O_DIRECTORY makes this fail on everything else before the file itself is opened, so no FIFO or device
    // notices, and O_NOFOLLOW keeps the walk beneath the top.
    if (const Directory child = openDirectory(dirfd(directory), name.c_str(), O_NOFOLLOW)) {
      collectEntries(child.get(), prefix + name + "/", depth + 1, entries);
    }
  }
}

Error systemError(int number) {
  return Error{std::strerror(number), number == ENOENT || number == ENOTDIR};
}

std::optional<Error> typeError(const struct stat& status) {
  if (S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return S_ISDIR(status.st_mode) ? systemError(EISDIR) : Error{.text = "Not a regular file"};
}

std::variant<Data, Error> readAll(int descriptor, std::size_t expectedBytes, std::size_t maximumBytes) {
  const Error tooLarge{.text = "Larger than " + std::to_string(maximumBytes) + " bytes"};
  if (expectedBytes > maximumBytes) {
    return tooLarge;
  }
  // The size is a hint only: files in /proc and /sys say 0, and a file may grow. One byte more than
  // allowed tells a file that is too large from one that just fits.
  Data contents(std::min(std::max<std::size_t>(expectedBytes, 4095), maximumBytes) + 1);
  std::size_t length = 0;
  while (true) {
    const ssize_t count = ::read(descriptor, contents.data() + length, contents.size() - length);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      return systemError(errno);
    }
    length += static_cast<std::size_t>(count);
    if (length > maximumBytes) {
      return tooLarge;
    }
    if (count == 0) {
      contents.resize(length);
      return contents;
    }
    if (length == contents.size()) {
      contents.resize(std::min(contents.size() * 2, maximumBytes + 1));
    }
  }
}

}  // namespace

std::vector<std::string> entriesBeneath(const std::string& directory) {
  const runtime::BlockedScope blocked;
  std::vector<std::string> entries;
  if (const Directory top = openDirectory(AT_FDCWD, directory.c_str(), 0)) {
    collectEntries(top.get(), "", 1, entries);
  }
  return entries;
}

std::variant<Data, Error> read(const std::string& path, std::size_t maximumBytes) {
  const runtime::BlockedScope blocked;
  // Opening alone can already do something to a device or wake a FIFO's writer, so ask first. Should the
  // file change in between, O_NONBLOCK and the second look keep it from holding the thread.
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    return systemError(errno);
  }
  if (auto error = typeError(status)) {
    return *error;
  }
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file || fstat(file.get(), &status) != 0) {
    return systemError(errno);
  }
  if (auto error = typeError(status)) {
    return *error;
  }
  return readAll(file.get(), static_cast<std::size_t>(status.st_size), maximumBytes);
}

}  // namespace kelvane::files
