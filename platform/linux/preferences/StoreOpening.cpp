// SPDX-License-Identifier: Apache-2.0
// The opening of a store on a disk that may not answer.
#include "platform/linux/preferences/StoreOpening.h"

#include <cerrno>
#include <filesystem>

#include "platform/linux/volumes/PathWalk.h"

namespace kelvane {

namespace {

using Visit = FileSystemProbe::Visit;
using Store = std::unique_ptr<PreferencesStore>;

/// Enters the file systems on the way to a path, as far as there is one.
Result<> enter(Visit& visit, std::filesystem::path path) {
  auto place = walkTo(visit, path);
  while (!place && place.failure().number == ENOENT && path.has_relative_path()) {
    path = path.parent_path();
    place = walkTo(visit, path);
  }
  // Whatever else is in the way tells more of itself when the store is opened.
  return !place && place.failure().number == ETIMEDOUT ? Result<>(place.failure()) : Result<>();
}

}  // namespace

Result<Store> openInTime(FileSystemProbe& probe, const std::string& directory, const std::string& name,
                         const DiskCalls& calls, std::chrono::milliseconds patience) {
  const std::string path = directory + "/" + name;
  auto store = probe.ask<Store>(
      "opening " + path,
      [=](Visit& visit) -> Result<Store> {
        if (const auto entered = enter(visit, path); !entered) {
          return entered.failure();
        }
        return PreferencesStore::open(directory, name, calls, [&visit] { return visit.isLate(); });
      },
      FileSystemProbe::About::Files, patience);
  if (!store && store.failure().number == ETIMEDOUT) {
    return Failure{.tried = "opening " + path + ": the disk does not answer"};
  }
  return store;
}

}  // namespace kelvane
