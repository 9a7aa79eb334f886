// SPDX-License-Identifier: Apache-2.0
// Questions about the space on volumes.
#include "platform/linux/volumes/VolumeSpace.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <memory>
#include <set>
#include <utility>

#include "platform/linux/runtime/Mutex.h"

namespace kelvane {

std::atomic<Result<volumes::Space> (*)(const VolumeMount&)> spaceReader{&readSpace};

namespace {

using Visit = FileSystemProbe::Visit;

Failure unknown(const VolumeMount& mount) {
  return {.number = ETIMEDOUT, .tried = "asking " + mount.path};
}

Result<volumes::Space> askIn(Visit& visit, const VolumeMount& mount) {
  return visit.enter(mount.device, mount.path) ? spaceReader.load(std::memory_order_relaxed)(mount) : unknown(mount);
}

/// Mounts that are asked one after the other, and the answers so far. A worker that hangs keeps it; another one goes on
/// with a copy.
class Round {
 public:
  explicit Round(std::vector<VolumeMount> mounts) : mounts_(std::move(mounts)) {}
  Round(Round& hung) : mounts_(hung.mounts_) {
    const runtime::Lock lock(hung.mutex_);
    next_ = hung.next_;
    answers_ = hung.answers_;
    answered_ = hung.answered_;
  }

  void run(Visit& visit) {
    while (const VolumeMount* mount = nextMount()) {
      SpaceAnswer answer{*mount, askIn(visit, *mount)};
      if (visit.isLate()) {
        return;
      }
      add(std::move(answer));
    }
  }

  /// False when no worker has come to it.
  bool hasBegun() {
    const runtime::Lock lock(mutex_);
    return hasBegun_;
  }

  /// With what is not known of those that were not asked.
  std::vector<SpaceAnswer> take() {
    while (const VolumeMount* mount = nextMount()) {
      add({*mount, unknown(*mount)});
    }
    const runtime::Lock lock(mutex_);
    return std::move(answers_);
  }

 private:
  /// Stays the next until there is an answer.
  const VolumeMount* nextMount() {
    const runtime::Lock lock(mutex_);
    hasBegun_ = true;
    while (next_ < mounts_.size() && answered_.contains(mounts_[next_].device)) {
      ++next_;
    }
    return next_ < mounts_.size() ? &mounts_[next_] : nullptr;
  }

  void add(SpaceAnswer answer) {
    const runtime::Lock lock(mutex_);
    ++next_;
    if (answer.space) {
      answered_.insert(answer.mount.device);
    }
    answers_.push_back(std::move(answer));
  }

  const std::vector<VolumeMount> mounts_;
  runtime::Mutex mutex_;
  bool hasBegun_ KELVANE_GUARDED_BY(mutex_) = false;
  std::size_t next_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::vector<SpaceAnswer> answers_ KELVANE_GUARDED_BY(mutex_);
  std::set<dev_t> answered_ KELVANE_GUARDED_BY(mutex_);
};

}  // namespace

Result<volumes::Space> readSpace(const VolumeMount& mount) {
  struct stat file;
  if (!mount.isWhole && stat(mount.path.c_str(), &file) != 0) {
    return systemFailure("asking", mount.path);
  }
  if (!mount.isWhole && !S_ISDIR(file.st_mode)) {
    return Failure{.number = ENOTDIR, .tried = "asking " + mount.path};
  }
  struct statvfs status;
  if (statvfs(mount.path.c_str(), &status) != 0) {
    return systemFailure("asking", mount.path);
  }
  return volumes::Space{.size = std::uint64_t{status.f_blocks} * status.f_frsize,
                        .available = std::uint64_t{status.f_bavail} * status.f_frsize,
                        .free = std::uint64_t{status.f_bfree} * status.f_frsize,
                        .fileSystem = mount.device};
}

Result<volumes::Space> askSpace(const VolumeMount& mount) {
  return FileSystemProbe::shared().ask<volumes::Space>("asking " + mount.path,
                                                       [mount](Visit& visit) { return askIn(visit, mount); });
}

std::vector<SpaceAnswer> askEachSpace(const std::vector<VolumeMount>& mounts) {
  auto round = std::make_shared<Round>(mounts);
  // What hung is silent from then on, so that every other worker comes further than the one before.
  while (!FileSystemProbe::shared().run([round](Visit& visit) { round->run(visit); }) && round->hasBegun()) {
    round = std::make_shared<Round>(*round);
  }
  return round->take();
}

}  // namespace kelvane
