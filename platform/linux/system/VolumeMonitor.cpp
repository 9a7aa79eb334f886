// SPDX-License-Identifier: Apache-2.0
// Watches the volumes of this system and announces those that run low on space.
#include "platform/linux/system/VolumeMonitor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/Queues.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/Thread.h"
#include "platform/linux/system/CurrentVolumes.h"
#include "platform/linux/system/LocalVolumes.h"

namespace kelvane {

std::atomic<std::optional<VolumeSpace> (*)(const std::string&)> volumeSpaceReader{&spaceOf};

namespace {

using Clock = std::chrono::steady_clock;
using Time = VolumeWatch::Time;

constexpr std::uint64_t lowFlag = 0x4;
constexpr std::uint64_t veryLowFlag = 0x200;
/// The run whose handler this thread is in.
thread_local VolumeWatch::Run currentRun = VolumeWatch::noRun;

int pollTimeout(Time deadline) {
  const Time now = Clock::now();
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(std::max(deadline, now) - now);
  return static_cast<int>(rest.count());
}

void reportFailure(const std::string& text) {
  reporting::writeLog(3, "Kelvane", "VolumeMonitor", text);
}

}  // namespace

VolumeMonitor::VolumeMonitor()
    : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), guard_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {}

VolumeMonitor& VolumeMonitor::shared() {
  static auto* const monitor = new VolumeMonitor;
  return *monitor;
}

VolumeMonitor::Handler VolumeMonitor::attend(Handler handler) {
  const std::lock_guard lock(mutex_);
  handler_ = handler;
  return [this, handler = std::move(handler)](const Value& event) {
    {
      const std::lock_guard beginLock(mutex_);
      currentRun = watch_.beginOutside(Clock::now());
    }
    handler(event);
    endRun(std::exchange(currentRun, VolumeWatch::noRun));
  };
}

void VolumeMonitor::start() {
  {
    const std::lock_guard lock(mutex_);
    if (handler_ == nullptr || std::exchange(isStarted_, true)) {
      return;
    }
  }
  if (!wake_ || !guard_ || !runtime::startThread(guardMain, this) || !runtime::startThread(watchMain, this)) {
    reportFailure("Unable to watch the volumes");
  }
}

void* VolumeMonitor::watchMain(void* monitor) {
  static_cast<VolumeMonitor*>(monitor)->watch();
  return nullptr;
}

void* VolumeMonitor::guardMain(void* monitor) {
  static_cast<VolumeMonitor*>(monitor)->guard();
  return nullptr;
}

void VolumeMonitor::watch() {
  const unsigned generation = [this] {
    const std::lock_guard lock(mutex_);
    return generation_;
  }();
  CurrentVolumes volumes;
  while (true) {
    const std::vector<VolumeMount>& mounts = volumes.list();
    const Time now = Clock::now();
    const auto sights = lookAround(mounts, generation);
    if (!sights) {
      return;
    }
    setGuard(std::chrono::seconds(0));
    pollfd events[] = {{wake_.get(), POLLIN, 0}, {volumes.descriptor(), POLLIN, 0}};
    poll(events, 2, pollTimeout(decide(now, *sights)));
    if (events[0].revents != 0) {
      eventfd_t count;
      eventfd_read(wake_.get(), &count);
    }
    if (events[1].revents != 0) {
      volumes.noteChange();
    }
  }
}

std::optional<std::vector<VolumeWatch::Sight>> VolumeMonitor::lookAround(const std::vector<VolumeMount>& mounts,
                                                                         unsigned generation) {
  const VolumeLevels levels = VolumeLevels::current();
  std::vector<VolumeWatch::Sight> sights;
  for (const VolumeMount& mount : mounts) {
    if (!beginAsking(mount)) {
      continue;
    }
    const auto space = volumeSpaceReader.load(std::memory_order_relaxed)(mount.path);
    if (!endAsking(mount.device, generation)) {
      return std::nullopt;
    }
    if (space) {
      sights.emplace_back(mount, *space, levels);
    }
  }
  return sights;
}

bool VolumeMonitor::beginAsking(const VolumeMount& mount) {
  const std::lock_guard lock(mutex_);
  if (silent_.contains(mount.device)) {
    return false;
  }
  asked_ = mount;
  setGuard(patience);
  return true;
}

/// False when the file system took so long that the thread has been replaced.
bool VolumeMonitor::endAsking(dev_t device, unsigned generation) {
  const std::lock_guard lock(mutex_);
  if (generation == generation_) {
    asked_.reset();
    return true;
  }
  silent_.erase(device);
  wake();
  return false;
}

void VolumeMonitor::guard() {
  std::uint64_t expirations = 0;
  while (read(guard_.get(), &expirations, sizeof expirations) == sizeof expirations) {
    std::string volume;
    {
      const std::lock_guard lock(mutex_);
      if (!asked_) {
        continue;
      }
      volume = asked_->path;
      silent_.insert(asked_->device);
      asked_.reset();
      ++generation_;
    }
    reportFailure(volume + " does not answer; it is not watched until it does");
    if (!runtime::startThread(watchMain, this)) {
      reportFailure("Unable to watch the volumes");
    }
  }
}

Time VolumeMonitor::decide(Time now, const std::vector<VolumeWatch::Sight>& sights) {
  const std::lock_guard lock(mutex_);
  watch_.look(now, sights);
  if (const auto event = watch_.nextEvent(now)) {
    post(*event, handler_);
  }
  return watch_.nextLook();
}

void VolumeMonitor::post(const VolumeWatch::Event& event, const Handler& handler) {
  const std::uint64_t flags = event.level == SpaceLevel::VeryLow ? veryLowFlag : lowFlag;
  globalQueue::async([this, run = event.run, flags, handler] {
    currentRun = run;
    handler(Value::Dictionary{{"_Flags", flags}});
    endRun(std::exchange(currentRun, VolumeWatch::noRun));
  });
}

void VolumeMonitor::endRun(VolumeWatch::Run run) {
  {
    const std::lock_guard lock(mutex_);
    watch_.end(run, Clock::now());
  }
  wake();
}

std::vector<std::string> VolumeMonitor::volumesToRelieve(const std::vector<VolumeWatch::Sight>& low) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  for (const VolumeWatch::Sight& sight : low) {
    if (watch_.take(currentRun, Clock::now(), sight)) {
      result.push_back(sight.volume);
    }
  }
  return result;
}

bool VolumeMonitor::isSilent(dev_t device) {
  const std::lock_guard lock(mutex_);
  return silent_.contains(device);
}

void VolumeMonitor::setGuard(std::chrono::seconds time) const {
  itimerspec timer = {};
  timer.it_value.tv_sec = time.count();
  timerfd_settime(guard_.get(), 0, &timer, nullptr);
}

void VolumeMonitor::wake() const {
  eventfd_write(wake_.get(), 1);
}

}  // namespace kelvane
