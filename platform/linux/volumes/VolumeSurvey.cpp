// SPDX-License-Identifier: Apache-2.0
// Questions about all volumes at once.
#include "platform/linux/volumes/VolumeSurvey.h"

#include <cerrno>
#include <memory>
#include <set>
#include <utility>

#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/VolumeLevelsFile.h"
#include "platform/linux/volumes/VolumeSpace.h"

namespace kelvane {

namespace {

using Visit = FileSystemProbe::Visit;

/// What is asked one after the other, and the answers so far. A worker that hangs keeps it; another one goes on with a
/// copy.
class Round {
 public:
  enum class Levels { Asked, NotAsked };

  Round(std::vector<VolumeMount> mounts, Levels levels)
      : mounts_(std::move(mounts)), isFileLeft_(levels == Levels::Asked) {}
  Round(Round& hung) : mounts_(hung.mounts_) {
    const runtime::Lock lock(hung.mutex_);
    isFileLeft_ = hung.isFileLeft_;
    next_ = hung.next_;
    answers_ = hung.answers_;
    answered_ = hung.answered_;
  }

  void run(Visit& visit) {
    begin();
    while (const VolumeMount* mount = nextMount()) {
      SpaceAnswer answer{*mount, askIn(visit, *mount)};
      if (visit.isLate()) {
        return;
      }
      add(std::move(answer));
    }
    if (takesFile()) {
      visit.askAbout(FileSystemProbe::About::Files);
      set(VolumeLevelsFile::find(visit));
    }
  }

  /// Whether a worker has come to it, and has left something to another.
  bool goesOn() {
    const bool isMountLeft = nextMount() != nullptr;
    const runtime::Lock lock(mutex_);
    return hasBegun_ && (isMountLeft || isFileLeft_);
  }

  /// With what is not known of those that were not asked.
  std::vector<SpaceAnswer> takeSpaces() {
    while (const VolumeMount* mount = nextMount()) {
      add({*mount, Failure{.number = ETIMEDOUT, .tried = "asking " + mount->path}});
    }
    const runtime::Lock lock(mutex_);
    return std::move(answers_);
  }
  VolumeLevelsFile takeFile() {
    const runtime::Lock lock(mutex_);
    return std::move(file_);
  }

 private:
  void begin() {
    const runtime::Lock lock(mutex_);
    hasBegun_ = true;
  }

  /// Stays the next until there is an answer.
  const VolumeMount* nextMount() {
    const runtime::Lock lock(mutex_);
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

  /// Once: there is nothing to be asked after the file.
  bool takesFile() {
    const runtime::Lock lock(mutex_);
    return std::exchange(isFileLeft_, false);
  }

  void set(VolumeLevelsFile file) {
    const runtime::Lock lock(mutex_);
    file_ = std::move(file);
  }

  const std::vector<VolumeMount> mounts_;
  runtime::Mutex mutex_;
  bool hasBegun_ KELVANE_GUARDED_BY(mutex_) = false;
  bool isFileLeft_ KELVANE_GUARDED_BY(mutex_);
  VolumeLevelsFile file_ KELVANE_GUARDED_BY(mutex_);
  std::size_t next_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::vector<SpaceAnswer> answers_ KELVANE_GUARDED_BY(mutex_);
  std::set<dev_t> answered_ KELVANE_GUARDED_BY(mutex_);
};

std::shared_ptr<Round> run(const std::vector<VolumeMount>& mounts, Round::Levels levels) {
  auto round = std::make_shared<Round>(mounts, levels);
  // What hung is silent from then on, so that every other worker comes further than the one before.
  while (!FileSystemProbe::shared().run([round](Visit& visit) { round->run(visit); }) && round->goesOn()) {
    round = std::make_shared<Round>(*round);
  }
  return round;
}

}  // namespace

std::vector<SpaceAnswer> askEachSpace(const std::vector<VolumeMount>& mounts) {
  return run(mounts, Round::Levels::NotAsked)->takeSpaces();
}

VolumeSurvey surveyVolumes(const std::vector<VolumeMount>& mounts) {
  const std::shared_ptr<Round> round = run(mounts, Round::Levels::Asked);
  return {round->takeFile().levels(), round->takeSpaces()};
}

}  // namespace kelvane
