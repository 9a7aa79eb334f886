// SPDX-License-Identifier: Apache-2.0
// How much space a volume really has.
#include "services/directory-cache/VolumeMeter.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>

#include "platform/Clock.h"

namespace kelvane::directoryCache {

namespace {

constexpr int idleTurns = 50;
// Less than the time in which a client expects the answer of a first purge.
constexpr int mostTurns = 150;
constexpr std::uint32_t turnMicroseconds = 10'000;
constexpr int turnsToFlush = 20;

/// Not among the system's headers yet.
constexpr decltype(statfs::f_type) bcachefsMagic = 0xca451a4e;

}  // namespace

std::uint64_t VolumeMeter::settledFree(std::uint64_t expected, std::uint64_t least) {
  std::uint64_t bytes = freeBytes();
  if (bytes >= expected && !freesWithCommits()) {
    return bytes;
  }
  // Some file systems free blocks with a commit only, and some in the background before one, so that it may be too
  // early for them.
  flush();
  bytes = freeBytes();
  std::uint64_t most = bytes;
  int idle = 0;
  for (int turn = 0; turn < mostTurns && bytes < expected && (idle < idleTurns || bytes < least); ++turn) {
    clock::sleepMicroseconds(turnMicroseconds);
    if (turn % turnsToFlush == turnsToFlush - 1) {
      flush();
    }
    bytes = freeBytes();
    idle = bytes > most ? 0 : idle + 1;
    most = std::max(most, bytes);
  }
  return bytes;
}

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

bool MountedVolumeMeter::freesWithCommits() {
  struct statfs status = {};
  return fstatfs(volume_.number(), &status) == 0 &&
         (status.f_type == BTRFS_SUPER_MAGIC || status.f_type == bcachefsMagic);
}

void MountedVolumeMeter::flush() {
  syncfs(volume_.number());
}

}  // namespace kelvane::directoryCache
