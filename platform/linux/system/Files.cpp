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
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/PathWalk.h"

namespace kelvane::files {

namespace {

/// One more than so many disks that hang beneath one directory leave it without entries.
constexpr int mostWalks = 8;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

/// A place, opened for reading. /proc leads to it without another walk.
FileDescriptor openForReading(const FileDescriptor& place, int flags) {
  return FileDescriptor(open(("/proc/self/fd/" + std::to_string(place.get())).c_str(), O_RDONLY | O_CLOEXEC | flags));
}

Directory openDirectory(const FileDescriptor& place) {
  FileDescriptor descriptor = openForReading(place, O_DIRECTORY);
  Directory directory(descriptor ? fdopendir(descriptor.get()) : nullptr);
  if (directory) {
    descriptor.release();
  }
  return directory;
}

/// In order; none when it cannot be read.
std::vector<std::string> namesIn(const FileDescriptor& place) {
  std::vector<std::string> names;
  const Directory directory = openDirectory(place);
  const dirent* entry = nullptr;
  while (directory && names.size() < limits::directoryEntries && (entry = readdir(directory.get())) != nullptr) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      names.emplace_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// The walk through one directory and what is beneath it, which enters each file system before it asks it.
class Collection {
 public:
  explicit Collection(FileSystemProbe::Visit& visit) : visit_(visit) {}

  /// The place's file system has been entered.
  void collect(const FileDescriptor& place, const std::string& prefix, int depth) {
    for (const std::string& name : namesIn(place)) {
      if (entries_.size() >= limits::directoryEntries) {
        return;
      }
      entries_.push_back(prefix + name);
      if (depth < limits::directoryDepth) {
        descend(place, name, prefix + name + "/", depth + 1);
      }
    }
  }

  std::vector<std::string> take() { return std::move(entries_); }

 private:
  void descend(const FileDescriptor& parent, const std::string& name, const std::string& prefix, int depth) {
    if (!enterFileSystemOf(visit_, parent, prefix)) {
      return;
    }
    // O_PATH opens nothing, so no FIFO or device notices, and O_NOFOLLOW keeps the walk beneath the top. O_DIRECTORY
    // would have mounted what is to be mounted on demand, and wait for that in the name of the parent's file system.
    const FileDescriptor child(openat(parent.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const auto identity = child ? identityOf(child) : Failure{};
    if (identity && S_ISDIR(identity->mode) && enterFileSystemOf(visit_, child, prefix)) {
      collect(child, prefix, depth);
    }
  }

  FileSystemProbe::Visit& visit_;
  std::vector<std::string> entries_;
};

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

std::variant<Data, Error> readPlace(const FileDescriptor& place, std::size_t maximumBytes) {
  // Opening alone can already do something to a device or wake a FIFO's writer, so ask first. Should the
  // file change in between, O_NONBLOCK and the second look keep it from holding the thread.
  struct stat status;
  if (fstat(place.get(), &status) != 0) {
    return systemError(errno);
  }
  if (auto error = typeError(status)) {
    return *error;
  }
  const FileDescriptor file = openForReading(place, O_NONBLOCK | O_NOCTTY);
  if (!file || fstat(file.get(), &status) != 0) {
    return systemError(errno);
  }
  if (auto error = typeError(status)) {
    return *error;
  }
  return readAll(file.get(), static_cast<std::size_t>(status.st_size), maximumBytes);
}

}  // namespace

std::vector<std::string> entriesBeneath(const std::string& directory) {
  using Entries = std::vector<std::string>;
  // What hangs is silent from then on, so that the next walk passes it by.
  for (int walk = 0; walk < mostWalks; ++walk) {
    auto entries = FileSystemProbe::shared().ask<Entries>(
        "listing " + directory,
        [directory](FileSystemProbe::Visit& visit) -> Result<Entries> {
          Collection collection(visit);
          if (const auto top = walkTo(visit, directory)) {
            collection.collect(*top, "", 1);
          }
          return collection.take();
        },
        FileSystemProbe::About::Files, FileSystemProbe::longPatience);
    if (entries) {
      return std::move(*entries);
    }
  }
  return {};
}

std::variant<Data, Error> read(const std::string& path, std::size_t maximumBytes) {
  using Contents = std::variant<Data, Error>;
  auto contents = FileSystemProbe::shared().ask<Contents>(
      "reading " + path,
      [path, maximumBytes](FileSystemProbe::Visit& visit) -> Result<Contents> {
        const auto place = walkTo(visit, path);
        return place ? readPlace(*place, maximumBytes) : Contents(systemError(place.failure().number));
      },
      FileSystemProbe::About::Files, FileSystemProbe::longPatience);
  return contents ? std::move(*contents) : systemError(contents.failure().number);
}

}  // namespace kelvane::files
