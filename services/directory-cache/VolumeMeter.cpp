// SPDX-License-Identifier: Apache-2.0
// How much space a volume really has.
#include "services/directory-cache/VolumeMeter.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/Clock.h"

namespace kelvane::directoryCache {

namespace {

constexpr int settlingTurns = 50;
constexpr std::uint32_t settlingTurnMicroseconds = 10'000;

}  // namespace

MountedVolumeMeter::MountedVolumeMeter(const std::string& volume, const Descriptor& directory)
    : volume_(::open(volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!volume_.isValid()) {
    volume_ = Descriptor(::openat(directory.number(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
}

std::uint64_t MountedVolumeMeter::freeBytes() {
  struct statvfs status = {};
  if (fstatvfs(volume_.number(), &status) != 0) {
    return 0;
  }
  return static_cast<std::uint64_t>(status.f_bfree) * status.f_frsize;
}

std::uint64_t MountedVolumeMeter::settledFree(std::uint64_t expected) {
  std::uint64_t bytes = freeBytes();
  if (bytes >= expected) {
    return bytes;
  }
  // Some file systems free blocks in the background or with their next commit only.
  syncfs(volume_.number());
  bytes = freeBytes();
  for (int turn = 0; turn < settlingTurns && bytes < expected; ++turn) {
    clock::sleepMicroseconds(settlingTurnMicroseconds);
    bytes = freeBytes();
  }
  return bytes;
}

}  // namespace kelvane::directoryCache
