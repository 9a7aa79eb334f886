// SPDX-License-Identifier: Apache-2.0
// Watches the volumes of this system and announces those that run low on space.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/VolumeWatch.h"

namespace kelvane {

/// What a volume is asked with: spaceOf, unless a test puts something here that does not answer.
extern std::atomic<std::optional<volumes::Space> (*)(const VolumeMount&)> volumeSpaceReader;

/// Feeds the event stream of file systems from a thread of its own, by what a VolumeWatch decides.
///
/// There is one in a process, and it is never destroyed. Any thread may call it. The thread that looks at the
/// volumes asks them itself, which costs one wake-up a look; should a file system keep it waiting, another thread
/// takes its place and leaves that file system out for as long as it is silent. What it then says counts, and it is
/// asked again after a rest.
class VolumeMonitor {
 public:
  using Handler = std::function<void(const Value&)>;
  static constexpr char stream[] = "com.tessaly.dispatch.vfs";
  /// A file system that has not answered within this time counts as silent.
  static constexpr std::chrono::seconds patience{2};

  static constexpr std::chrono::seconds longestRest{60};

  /// A file system that has not answered in time; forgotten when it does.
  struct SlowAnswers {
    /// Whether a thread waits for it.
    bool isAwaited = true;
    /// When it may be asked again.
    VolumeWatch::Time restsUntil;
    VolumeWatch::Duration rest{};

    /// It rests for at least as long as it took, and twice as long each time, as asking it takes a thread.
    void noteAnswer(VolumeWatch::Time now, VolumeWatch::Duration took);
  };

  static VolumeMonitor& shared();

  /// Takes the handler of the stream. What is returned is to be called with the events that others post: they end
  /// all pauses.
  [[nodiscard]] Handler attend(Handler handler);
  /// Watches from now on, if there is a handler. Calls after the first do nothing.
  void start();

  /// Those of the low volumes that the event whose handler this thread runs is to relieve, in the same order;
  /// outside of a handler, those that are in no pause.
  [[nodiscard]] std::vector<std::string> volumesToRelieve(const std::vector<VolumeWatch::Sight>& low);
  /// Whether the file system keeps a thread waiting.
  [[nodiscard]] bool isSilent(dev_t device);

 private:
  VolumeMonitor();
  static void* watchMain(void* monitor);
  static void* guardMain(void* monitor);

  void watch();
  void guard();
  struct Look {
    VolumeWatch::Time begun;
    std::vector<VolumeWatch::Sight> sights;
    std::vector<VolumeMount> unasked;
  };
  [[nodiscard]] std::optional<Look> lookAround(const std::vector<VolumeMount>& mounts, unsigned generation);
  bool beginAsking(const VolumeMount& mount);
  bool endAsking(dev_t device, const std::optional<VolumeWatch::Sight>& sight, VolumeWatch::Time asked,
                 unsigned generation);
  VolumeWatch::Time decide(const Look& look);
  void post(const VolumeWatch::Event& event, const Handler& handler);
  void endRun(VolumeWatch::Run run);
  void setGuard(std::chrono::seconds time) const;
  void wake() const;

  /// Readable when the thread is to look at once.
  const FileDescriptor wake_;
  /// A timer that expires when a file system takes too long.
  const FileDescriptor guard_;
  std::mutex mutex_;
  // Guarded by mutex_:
  Handler handler_;
  VolumeWatch watch_;
  bool isStarted_ = false;
  /// Counts the threads that have watched; only the last still does.
  unsigned generation_ = 0;
  std::optional<VolumeMount> asked_;
  VolumeWatch::Time askedSince_;
  std::map<dev_t, SlowAnswers> slow_;
};

}  // namespace kelvane
