// SPDX-License-Identifier: Apache-2.0
// Contents of files that a walk has led to.
#include "platform/linux/volumes/FileContents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/volumes/PathWalk.h"

namespace kelvane {

namespace {

std::optional<files::Error> typeError(const struct stat& status) {
  if (S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return S_ISDIR(status.st_mode) ? fileError(EISDIR) : files::Error{.text = "Not a regular file"};
}

std::variant<FileDescriptor, files::Error> placeAt(FileSystemProbe::Visit& visit, const std::string& path,
                                                   WalkFindings& findings) {
  auto place = walkTo(visit, path, &findings);
  if (place) {
    return *std::move(place);
  }
  return findings.leadsNowhere ? files::Error{.text = "A symbolic link leads nowhere"}
                               : fileError(place.failure().number);
}

std::variant<Data, files::Error> readAll(int descriptor, std::size_t expectedBytes, std::size_t maximumBytes) {
  const files::Error tooLarge{.text = "Larger than " + std::to_string(maximumBytes) + " bytes"};
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
      return fileError(errno);
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

files::Error fileError(int number) {
  return files::Error{std::strerror(number), number == ENOENT};
}

std::variant<FileDescriptor, files::Error> placeAt(FileSystemProbe::Visit& visit, const std::string& path) {
  WalkFindings findings;
  return placeAt(visit, path, findings);
}

std::variant<FileDescriptor, files::Error> configurationAt(FileSystemProbe::Visit& visit, const std::string& path) {
  WalkFindings findings;
  auto place = placeAt(visit, path, findings);
  if (findings.stranger && std::holds_alternative<FileDescriptor>(place)) {
    return files::Error{.text = *findings.stranger + ", and configuration that others may change does not count"};
  }
  return place;
}

std::variant<Data, files::Error> readPlace(const FileDescriptor& place, std::size_t maximumBytes) {
  // Opening alone can already do something to a device or wake a FIFO's writer, so ask first. Should the
  // file change in between, O_NONBLOCK and the second look keep it from holding the thread.
  struct stat status;
  if (fstat(place.get(), &status) != 0) {
    return fileError(errno);
  }
  if (auto error = typeError(status)) {
    return *error;
  }
  const FileDescriptor file = openForReading(place, O_NONBLOCK | O_NOCTTY);
  if (!file || fstat(file.get(), &status) != 0) {
    return fileError(errno);
  }
  if (auto error = typeError(status)) {
    return *error;
  }
  return readAll(file.get(), static_cast<std::size_t>(status.st_size), maximumBytes);
}

FileDescriptor openForReading(const FileDescriptor& place, int flags) {
  return FileDescriptor(open(("/proc/self/fd/" + std::to_string(place.get())).c_str(), O_RDONLY | O_CLOEXEC | flags));
}

}  // namespace kelvane
