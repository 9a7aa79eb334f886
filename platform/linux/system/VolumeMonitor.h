// SPDX-License-Identifier: Apache-2.0
// Watches the volumes of this system and announces those that run low on space.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "platform/linux/system/FileDescriptor.h"
#include "platform/linux/system/VolumeWatch.h"

namespace kelvane {

/// What a volume is asked with: spaceOf, unless a test puts something here that does not answer.
extern std::atomic<std::optional<VolumeSpace> (*)(const std::string&)> volumeSpaceReader;

/// Feeds the event stream of file systems from a thread of its own, by what a VolumeWatch decides.
///
/// There is one in a process, and it is never destroyed. Any thread may call it. The thread that looks at the
/// volumes asks them itself, which costs one wake-up a look; should a file system keep it waiting, another thread
/// takes its place and leaves that file system out for as long as it is silent.
class VolumeMonitor {
 public:
  using Handler = std::function<void(const Value&)>;
  static constexpr char stream[] = "com.tessaly.dispatch.vfs";
  /// A file system that has not answered within this time counts as silent.
  static constexpr std::chrono::seconds patience{2};

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
  [[nodiscard]] std::optional<std::vector<VolumeWatch::Sight>> lookAround(const std::vector<VolumeMount>& mounts,
                                                                          unsigned generation);
  bool beginAsking(const VolumeMount& mount);
  bool endAsking(dev_t device, unsigned generation);
  VolumeWatch::Time decide(VolumeWatch::Time now, const std::vector<VolumeWatch::Sight>& sights);
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
  std::set<dev_t> silent_;
};

}  // namespace kelvane
