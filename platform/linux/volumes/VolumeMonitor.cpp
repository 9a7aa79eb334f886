// SPDX-License-Identifier: Apache-2.0
// Watches the volumes of this system and announces those that run low on space.
#include "platform/linux/volumes/VolumeMonitor.h"

#include <libmount/libmount.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "platform/Queues.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/Thread.h"
#include "platform/linux/volumes/KnownMounts.h"
#include "platform/linux/volumes/VolumeSpace.h"

namespace kelvane {

std::atomic<std::optional<volumes::Space> (*)(const VolumeMount&)> volumeSpaceReader{&spaceOf};

namespace {

using Clock = std::chrono::steady_clock;
using Time = VolumeWatch::Time;

constexpr std::uint64_t lowFlag = 0x4;
constexpr std::uint64_t veryLowFlag = 0x200;
/// Reading the mount table takes milliseconds where there are thousands of mounts, which come in bursts.
constexpr std::chrono::milliseconds shortestInterval{100};
/// The run whose handler this thread is in.
thread_local VolumeWatch::Run currentRun = VolumeWatch::noRun;

int pollTimeout(Time deadline) {
  const Time now = Clock::now();
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(std::max(deadline, now) - now);
  return static_cast<int>(rest.count());
}

struct FreeMountMonitor {
  void operator()(libmnt_monitor* monitor) const { mnt_unref_monitor(monitor); }
};
using MountMonitor = std::unique_ptr<libmnt_monitor, FreeMountMonitor>;

/// Readable when something has been mounted or unmounted; -1 when the system does not tell.
int descriptorOf(libmnt_monitor* monitor) {
  return monitor != nullptr && mnt_monitor_enable_kernel(monitor, 1) == 0 ? mnt_monitor_get_fd(monitor) : -1;
}

void reportFailure(const std::string& text) {
  reporting::reportFailure("VolumeMonitor", text);
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
  const MountMonitor mounts(mnt_new_monitor());
  const int mountsDescriptor = descriptorOf(mounts.get());
  while (true) {
    const auto look = lookAround(*KnownMounts::shared().current(), generation);
    if (!look) {
      return;
    }
    setGuard(std::chrono::seconds(0));
    pollfd events[] = {{wake_.get(), POLLIN, 0}, {mountsDescriptor, POLLIN, 0}};
    poll(events, 2, pollTimeout(decide(*look)));
    if (events[0].revents != 0) {
      eventfd_t count;
      eventfd_read(wake_.get(), &count);
    }
    if (events[1].revents != 0) {
      mnt_monitor_event_cleanup(mounts.get());
      std::this_thread::sleep_until(look->begun + shortestInterval);
    }
  }
}

/// None when a file system took so long that the thread has been replaced.
std::optional<VolumeMonitor::Look> VolumeMonitor::lookAround(const std::vector<VolumeMount>& mounts,
                                                             unsigned generation) {
  const VolumeLevels levels = VolumeLevels::current();
  Look look{Clock::now(), {}, {}};
  std::set<dev_t> seen;
  for (const VolumeMount& mount : mounts) {
    if (seen.contains(mount.device)) {
      continue;
    }
    if (!beginAsking(mount)) {
      look.unasked.push_back(mount);
      continue;
    }
    const Time asked = Clock::now();
    std::optional<VolumeWatch::Sight> sight;
    if (const auto space = volumeSpaceReader.load(std::memory_order_relaxed)(mount)) {
      sight.emplace(mount, *space, levels);
    }
    if (!endAsking(mount.device, sight, asked, generation)) {
      return std::nullopt;
    }
    if (sight) {
      seen.insert(mount.device);
      look.sights.push_back(std::move(*sight));
    }
  }
  return look;
}

bool VolumeMonitor::beginAsking(const VolumeMount& mount) {
  const std::lock_guard lock(mutex_);
  const Time now = Clock::now();
  const auto slow = slow_.find(mount.device);
  if (slow != slow_.end() && (slow->second.isAwaited || now < slow->second.restsUntil)) {
    return false;
  }
  asked_ = mount;
  askedSince_ = now;
  setGuard(patience);
  return true;
}

/// False when the thread has been replaced; then what it saw last is handed on here.
bool VolumeMonitor::endAsking(dev_t device, const std::optional<VolumeWatch::Sight>& sight, Time asked,
                              unsigned generation) {
  const std::lock_guard lock(mutex_);
  const auto slow = slow_.find(device);
  if (slow != slow_.end() && slow->second.isAwaited) {
    const Time now = Clock::now();
    slow->second.noteAnswer(now, now - asked);
  } else {
    asked_.reset();
    slow_.erase(device);
  }
  if (generation == generation_) {
    return true;
  }
  if (sight) {
    watch_.seeLate(asked, *sight);
  }
  wake();
  return false;
}

void VolumeMonitor::SlowAnswers::noteAnswer(Time now, VolumeWatch::Duration took) {
  isAwaited = false;
  rest = std::min<VolumeWatch::Duration>(std::max(2 * rest, took), longestRest);
  restsUntil = now + rest;
}

void VolumeMonitor::guard() {
  std::uint64_t expirations = 0;
  while (read(guard_.get(), &expirations, sizeof expirations) == sizeof expirations) {
    std::string volume;
    bool isNew = false;
    bool isReplaced = false;
    {
      const std::lock_guard lock(mutex_);
      // The timer may have expired for one that has answered since.
      if (!asked_ || Clock::now() - askedSince_ < patience) {
        continue;
      }
      volume = asked_->path;
      const auto slow = slow_.try_emplace(asked_->device);
      isNew = slow.second;
      slow.first->second.isAwaited = true;
      asked_.reset();
      isReplaced = runtime::startThread(watchMain, this);
      // If there is none, the thread that waits goes on when it can.
      generation_ += isReplaced ? 1 : 0;
    }
    if (isNew) {
      reportFailure(volume + " does not answer; it is watched less until it answers in time");
    }
    if (!isReplaced) {
      reportFailure("Unable to watch the other volumes until " + volume + " answers");
    }
  }
}

Time VolumeMonitor::decide(const Look& look) {
  const std::lock_guard lock(mutex_);
  watch_.look(look.begun, look.sights, look.unasked);
  if (const auto event = watch_.nextEvent(look.begun)) {
    post(*event, handler_);
  }
  Time next = watch_.nextLook();
  for (const VolumeMount& mount : look.unasked) {
    const auto slow = slow_.find(mount.device);
    if (slow != slow_.end() && !slow->second.isAwaited) {
      next = std::min(next, slow->second.restsUntil);
    }
  }
  // The device number of one that is gone may be given to another.
  std::erase_if(slow_, [&look](const auto& entry) {
    const auto isIt = [&entry](const auto& volume) { return volume.device == entry.first; };
    return !entry.second.isAwaited && std::none_of(look.unasked.begin(), look.unasked.end(), isIt) &&
           std::none_of(look.sights.begin(), look.sights.end(), isIt);
  });
  return next;
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
  const auto slow = slow_.find(device);
  return slow != slow_.end() && slow->second.isAwaited;
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
