// SPDX-License-Identifier: Apache-2.0
// Questions about all volumes at once.
#include "platform/linux/volumes/VolumeSurvey.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/VolumeLevelsFile.h"
#include "platform/linux/volumes/VolumeSpace.h"

namespace kelvane {

namespace {

using Visit = FileSystemProbe::Visit;

/// What is asked, by one worker or by several that share it, and the answers so far.
class Round {
 public:
  enum class Levels { Asked, NotAsked };

  Round(std::vector<VolumeMount> mounts, Levels levels)
      : mounts_(std::move(mounts)), isFileLeft_(levels == Levels::Asked) {
    for (const VolumeMount& mount : mounts_) {
      fileSystems_[mount.device].push_back(&mount);
    }
    static_cast<void>(putBack());
  }
  Round(const Round&) = delete;
  Round& operator=(const Round&) = delete;

  /// Asks what no other worker has come to.
  void run(Visit& visit) {
    begin();
    while (const std::optional<dev_t> device = takeDevice()) {
      if (!ask(visit, *device)) {
        return;
      }
    }
    if (takesFile()) {
      visit.askAbout(FileSystemProbe::About::Files);
      set(VolumeLevelsFile::find(visit));
    }
  }

  /// How much there is that no worker has come to.
  std::size_t countLeft() {
    const runtime::Lock lock(mutex_);
    return left_.size() + (isFileLeft_ ? 1 : 0);
  }

  /// Leaves to others again what workers were lost with: a mount may be reached though another one of its file system
  /// is not. False when there is nothing, or when there were no workers.
  bool putBack() {
    const runtime::Lock lock(mutex_);
    left_.clear();
    std::set<dev_t> passed = asked_;
    for (const VolumeMount& mount : mounts_) {
      if (passed.insert(mount.device).second) {
        left_.push_back(mount.device);
      }
    }
    return std::exchange(hasBegun_, false) && !left_.empty();
  }

  /// In the order of the mounts, with what is not known of those whose file system did not answer.
  std::vector<SpaceAnswer> takeSpaces() {
    const runtime::Lock lock(mutex_);
    std::vector<SpaceAnswer> answers;
    for (const VolumeMount& mount : mounts_) {
      if (const auto found = spaces_.find(&mount); found != spaces_.end()) {
        answers.push_back({mount, std::move(found->second)});
      } else if (!asked_.contains(mount.device)) {
        answers.push_back({mount, Failure{.number = ETIMEDOUT, .tried = "asking " + mount.path}});
      }
    }
    return answers;
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

  std::optional<dev_t> takeDevice() {
    const runtime::Lock lock(mutex_);
    if (left_.empty()) {
      return std::nullopt;
    }
    const dev_t device = left_.front();
    left_.pop_front();
    return device;
  }

  /// In its mounts, up to one that answers. False when an answer came too late.
  bool ask(Visit& visit, dev_t device) {
    for (const VolumeMount* mount : fileSystems_.at(device)) {
      Result<volumes::Space> space = askIn(visit, *mount);
      if (visit.isLate()) {
        return false;
      }
      const bool isAnswer = static_cast<bool>(space);
      const runtime::Lock lock(mutex_);
      spaces_.insert_or_assign(mount, std::move(space));
      if (isAnswer) {
        break;
      }
    }
    const runtime::Lock lock(mutex_);
    asked_.insert(device);
    return true;
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
  /// Their mounts, in their order.
  std::map<dev_t, std::vector<const VolumeMount*>> fileSystems_;
  runtime::Mutex mutex_;
  bool hasBegun_ KELVANE_GUARDED_BY(mutex_) = false;
  /// The file systems that no worker has come to, and those that one has come to the end of.
  std::deque<dev_t> left_ KELVANE_GUARDED_BY(mutex_);
  std::set<dev_t> asked_ KELVANE_GUARDED_BY(mutex_);
  bool isFileLeft_ KELVANE_GUARDED_BY(mutex_);
  VolumeLevelsFile file_ KELVANE_GUARDED_BY(mutex_);
  std::map<const VolumeMount*, Result<volumes::Space>> spaces_ KELVANE_GUARDED_BY(mutex_);
};

/// Comes to an end with each of them, as far as there are workers. Workers that file systems keep are joined by as
/// many.
void askAll(const std::shared_ptr<Round>& round) {
  FileSystemProbe& probe = FileSystemProbe::shared();
  std::vector<FileSystemProbe::Asked> asked;
  const auto put = [&] {
    auto one = probe.put([round](Visit& visit) { round->run(visit); });
    if (one == nullptr) {
      return false;
    }
    asked.push_back(std::move(one));
    return true;
  };
  const std::size_t most = round->countLeft();
  while (asked.size() < most && round->countLeft() > 0) {
    const std::size_t wanted = std::clamp<std::size_t>(2 * asked.size(), 1, most);
    while (asked.size() < wanted && put()) {
    }
    if (asked.size() < wanted || probe.isAnsweredWithin(FileSystemProbe::slowness, asked.back())) {
      break;
    }
  }
  for (const FileSystemProbe::Asked& one : asked) {
    static_cast<void>(probe.await(one));
  }
}

std::shared_ptr<Round> run(const std::vector<VolumeMount>& mounts, Round::Levels levels) {
  const auto round = std::make_shared<Round>(mounts, levels);
  do {
    askAll(round);
  } while (round->putBack());
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
