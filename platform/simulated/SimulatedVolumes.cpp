// SPDX-License-Identifier: Apache-2.0
// Volumes from the script.
#include "platform/simulated/SimulatedVolumes.h"

#include <algorithm>
#include <cerrno>

#include "platform/Volumes.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

namespace simulated {

void Volumes::add(const std::string& mountPoint, std::uint64_t availableBytes) {
  remove(mountPoint);
  volumes_.push_back({mountPoint, availableBytes, ++lastFileSystem_});
}

void Volumes::remove(const std::string& mountPoint) {
  std::erase_if(volumes_, [&](const Volume& volume) { return volume.mountPoint == mountPoint; });
}

void Volumes::give(const std::string& mountPoint, std::uint64_t bytes) {
  Volume& given = volume(mountPoint);
  const std::uint64_t refilled = std::min(given.reserveUsed, bytes);
  given.reserveUsed -= refilled;
  given.reserve += refilled;
  given.available += bytes - refilled;
}

void Volumes::take(const std::string& mountPoint, std::uint64_t bytes) {
  std::uint64_t& available = volume(mountPoint).available;
  available -= std::min(available, bytes);
}

bool Volumes::isUsable(const std::string& mountPoint) const {
  const Volume* volume = find(mountPoint);
  return volume != nullptr && volume->usable && !volume->silent;
}

std::vector<std::string> Volumes::local() const {
  std::vector<std::string> mountPoints;
  for (const Volume& volume : volumes_) {
    if (volume.local && !volume.silent) {
      mountPoints.push_back(volume.mountPoint);
    }
  }
  return mountPoints;
}

std::vector<std::string> Volumes::low() const {
  std::vector<Volume> low;
  std::copy_if(volumes_.begin(), volumes_.end(), std::back_inserter(low),
               [](const Volume& volume) { return volume.local && volume.low && !volume.silent; });
  std::stable_sort(low.begin(), low.end(),
                   [](const Volume& left, const Volume& right) { return left.available < right.available; });
  std::vector<std::string> mountPoints;
  for (const Volume& volume : low) {
    mountPoints.push_back(volume.mountPoint);
  }
  return mountPoints;
}

Result<volumes::Space> Volumes::space(const std::string& mountPoint) const {
  const Volume* volume = find(mountPoint);
  if (volume == nullptr || volume->silent) {
    return Failure{.number = volume == nullptr ? ENOENT : ETIMEDOUT, .tried = "asking " + mountPoint};
  }
  const std::uint64_t free = volume->available + volume->reserve;
  return volumes::Space{.size = free, .available = volume->available, .free = free, .fileSystem = volume->fileSystem};
}

volumes::Relief Volumes::beginRelief(const std::string& mountPoint) {
  relieved_.push_back(mountPoint);
  const Volume* volume = find(mountPoint);
  return volume == nullptr ? volumes::Relief() : volume->relief;
}

Volumes::Volume& Volumes::volume(const std::string& mountPoint) {
  for (Volume& volume : volumes_) {
    if (volume.mountPoint == mountPoint) {
      return volume;
    }
  }
  fail("no volume " + mountPoint);
}

const Volumes::Volume* Volumes::find(const std::string& mountPoint) const {
  const auto found = std::find_if(volumes_.begin(), volumes_.end(),
                                  [&](const Volume& volume) { return volume.mountPoint == mountPoint; });
  return found == volumes_.end() ? nullptr : &*found;
}

}  // namespace simulated

bool volumes::isUsable(const std::string& path) {
  return simulated::world().volumes.isUsable(path);
}

std::vector<std::string> volumes::local() {
  return simulated::world().volumes.local();
}

std::vector<std::string> volumes::lowOnSpace() {
  return simulated::world().volumes.low();
}

Result<volumes::Space> volumes::space(const std::string& path) {
  return simulated::world().volumes.space(path);
}

std::vector<Result<volumes::Space>> volumes::recentSpaces(const std::vector<std::string>& paths) {
  std::vector<Result<Space>> spaces;
  for (const std::string& path : paths) {
    spaces.push_back(space(path));
  }
  return spaces;
}

volumes::Relief volumes::beginRelief(const std::string& path) {
  return simulated::world().volumes.beginRelief(path);
}

}  // namespace kelvane
