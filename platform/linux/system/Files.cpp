// SPDX-License-Identifier: Apache-2.0
// Finding and reading files.
#include "platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "platform/Limits.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/FileContents.h"
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

Directory openDirectory(const FileDescriptor& place) {
  FileDescriptor descriptor = openForReading(place, O_DIRECTORY);
  Directory directory(descriptor ? fdopendir(descriptor.get()) : nullptr);
  if (directory) {
    descriptor.release();
  }
  return directory;
}

/// In order.
Result<std::vector<std::string>> namesIn(const FileDescriptor& place) {
  std::vector<std::string> names;
  const Directory directory = openDirectory(place);
  if (!directory) {
    return systemFailure("listing");
  }
  while (names.size() < limits::directoryEntries) {
    errno = 0;
    const dirent* entry = readdir(directory.get());
    if (entry == nullptr && errno != 0) {
      return systemFailure("listing");
    }
    if (entry == nullptr) {
      break;
    }
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
  Collection(FileSystemProbe::Visit& visit, std::string directory) : visit_(visit), directory_(std::move(directory)) {}

  /// The place's file system has been entered.
  void collect(const FileDescriptor& place, const std::string& prefix, int depth) {
    const auto names = namesIn(place);
    if (!names) {
      fail(prefix, fileError(names.failure().number));
      return;
    }
    for (const std::string& name : *names) {
      if (listing_.entries.size() >= limits::directoryEntries) {
        return;
      }
      listing_.entries.push_back(prefix + name);
      if (depth < limits::directoryDepth) {
        descend(place, name, prefix + name + "/", depth + 1);
      }
    }
  }

  void fail(const std::string& prefix, const files::Error& error) {
    if (!error.isMissing) {
      listing_.failures.push_back(directory_ + (prefix.empty() ? "" : "/" + prefix) + ": " + error.text);
    }
  }

  Listing take() { return std::move(listing_); }

 private:
  void descend(const FileDescriptor& parent, const std::string& name, const std::string& prefix, int depth) {
    if (!enterFileSystemOf(visit_, parent, prefix)) {
      return;
    }
    // O_PATH opens nothing, so no FIFO or device notices, and O_NOFOLLOW keeps the walk beneath the top. O_DIRECTORY
    // would have mounted what is to be mounted on demand, and wait for that in the name of the parent's file system.
    const FileDescriptor child(openat(parent.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const auto identity = child ? identityOf(child) : Failure{};
    if (identity && S_ISDIR(identity->mode) && enterFileSystemOf(visit_, *identity, prefix)) {
      collect(child, prefix, depth);
    }
  }

  FileSystemProbe::Visit& visit_;
  const std::string directory_;
  Listing listing_;
};

/// A disk that is only slow should be waited for; but where several hang, a start must come to an end, too.
FileSystemProbe::Duration patience() {
  return FileSystemProbe::shared().lostWorkers() == 0 ? FileSystemProbe::longPatience : FileSystemProbe::patience;
}

}  // namespace

Listing entriesBeneath(const std::string& directory) {
  // What hangs is silent from then on, so that the next walk passes it by.
  for (int walk = 0; walk < mostWalks; ++walk) {
    auto listing = FileSystemProbe::shared().ask<Listing>(
        "listing " + directory,
        [directory](FileSystemProbe::Visit& visit) -> Result<Listing> {
          Collection collection(visit, directory);
          const auto top = placeAt(visit, directory);
          if (const auto* place = std::get_if<FileDescriptor>(&top)) {
            collection.collect(*place, "", 1);
          } else {
            collection.fail("", std::get<Error>(top));
          }
          return collection.take();
        },
        FileSystemProbe::About::Files, patience());
    if (listing) {
      return std::move(*listing);
    }
  }
  return {.entries = {}, .failures = {directory + ": " + fileError(ETIMEDOUT).text}};
}

std::variant<Data, Error> read(const std::string& path, std::size_t maximumBytes) {
  using Contents = std::variant<Data, Error>;
  auto contents = FileSystemProbe::shared().ask<Contents>(
      "reading " + path,
      [path, maximumBytes](FileSystemProbe::Visit& visit) -> Result<Contents> {
        const auto walked = configurationAt(visit, path);
        const auto* place = std::get_if<FileDescriptor>(&walked);
        return place != nullptr ? readPlace(*place, maximumBytes) : Contents(std::get<Error>(walked));
      },
      FileSystemProbe::About::Files, patience());
  return contents ? std::move(*contents) : fileError(contents.failure().number);
}

Result<std::string> realPath(const std::string& path) {
  if (path.empty()) {
    return Failure{.number = ENOENT, .tried = "looking for " + path};
  }
  return FileSystemProbe::shared().ask<std::string>(
      "looking for " + path,
      [path](FileSystemProbe::Visit& visit) -> Result<std::string> {
        const auto place = walkTo(visit, path);
        if (!place) {
          return place.failure();
        }
        auto real = nameOf(*place);
        return real ? std::move(real) : Failure{.number = real.failure().number, .tried = "looking for " + path};
      },
      FileSystemProbe::About::Files);
}

}  // namespace kelvane::files
