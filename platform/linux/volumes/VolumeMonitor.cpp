// SPDX-License-Identifier: Apache-2.0
// The watch over the volumes of this system.
#include "platform/linux/volumes/VolumeMonitor.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Reporting.h"
#include "platform/common/Utf8.h"
#include "platform/linux/runtime/Thread.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/MountVisit.h"
#include "platform/linux/volumes/Mounts.h"
#include "platform/linux/volumes/Paths.h"

namespace kelvane {

namespace {

using Clock = std::chrono::steady_clock;

/// Reading the mount table takes milliseconds where there are thousands of mounts, which come in bursts.
constexpr std::chrono::milliseconds shortestInterval{100};
/// At one look.
constexpr std::size_t mostNamesTold = 10;

int pollTimeout(ReliefPolicy::Time deadline) {
  const ReliefPolicy::Time now = Clock::now();
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(std::max(deadline, now) - now);
  return static_cast<int>(rest.count());
}

}  // namespace

VolumeMonitor::VolumeMonitor()
    : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      events_([this] { return beginOutside(); }, [this](ReliefPolicy::Run run) { endRun(run); }) {}

VolumeMonitor& VolumeMonitor::shared() {
  static auto* const monitor = new VolumeMonitor;
  return *monitor;
}

void VolumeMonitor::start() {
  if (!events_.haveHandler()) {
    return;
  }
  {
    const runtime::Lock lock(mutex_);
    if (std::exchange(isStarted_, true)) {
      return;
    }
  }
  FileSystemProbe::shared().setListener([this] { wake(); });
  if (!wake_ || !runtime::startThread(watchMain, this)) {
    reporting::reportFailure("VolumeMonitor", "Unable to watch the volumes");
  }
}

void* VolumeMonitor::watchMain(void* monitor) {
  pthread_setname_np(pthread_self(), "kelvane-volumes");
  static_cast<VolumeMonitor*>(monitor)->watch();
  return nullptr;
}

void VolumeMonitor::watch() {
  while (true) {
    const Look look = lookAround(*Mounts::shared().current());
    awaitNews(decide(look), look.begun);
    noteWrites();
  }
}

void VolumeMonitor::awaitNews(Time deadline, Time lookBegun) {
  std::vector<pollfd> events = {{wake_.get(), POLLIN, 0}, {Mounts::shared().listener(), POLLPRI, 0}};
  notices_.addTo(events);
  poll(events.data(), events.size(), pollTimeout(deadline));
  if (events[0].revents != 0) {
    eventfd_t count;
    eventfd_read(wake_.get(), &count);
  }
  if (events[1].revents != 0) {
    std::this_thread::sleep_until(lookBegun + shortestInterval);
  }
}

void VolumeMonitor::noteWrites() {
  const std::vector<dev_t> written = notices_.take();
  const runtime::Lock lock(mutex_);
  for (const dev_t device : written) {
    policy_.noteWrite(Clock::now(), device);
  }
}

VolumeMonitor::Look VolumeMonitor::lookAround(const std::vector<VolumeMount>& mounts) {
  askForNotices(mounts);
  Look look{Clock::now(), {}, {}};
  const VolumeSurvey survey = surveyVolumes(mounts);
  tellOfUnknown(survey.levels, mounts);
  tellOfTroubles(survey.spaces);
  for (const SpaceAnswer& answer : survey.spaces) {
    if (answer.space) {
      look.sights.emplace_back(answer.mount, *answer.space, survey.levels, notices_.areAskedFor(answer.mount.device));
    } else if (answer.space.failure().number != ENOTDIR) {
      look.unasked.push_back(answer.mount);
    }
  }
  return look;
}

/// Before the look, which sees what was written before. Once a volume has kept it waiting the others have to wait for
/// the next look: this one asks all of them at the same time, and those that hang are known from then on.
void VolumeMonitor::askForNotices(const std::vector<VolumeMount>& mounts) {
  notices_.keepOnly(mounts);
  const Clock::time_point begin = Clock::now();
  for (const VolumeMount& mount : mounts) {
    if (Clock::now() >= begin + FileSystemProbe::slowness) {
      return;
    }
    const bool mayRest = [&] {
      const runtime::Lock lock(mutex_);
      return policy_.mayRest(Clock::now(), mount.path);
    }();
    if (mayRest) {
      notices_.ask(mount);
    }
  }
}

void VolumeMonitor::tellOfUnknown(const VolumeLevels& levels, const std::vector<VolumeMount>& mounts) {
  std::set<std::string> unknown = levels.volumes();
  for (const VolumeMount& mount : mounts) {
    unknown.erase(mount.path);
  }
  std::size_t news = 0;
  for (const std::string& name : unknown) {
    if (!unknown_.contains(name) && ++news <= mostNamesTold) {
      reporting::reportFailure("VolumeMonitor", std::string(paths::volumeLevelsFile) + ": " + name + " is no volume");
    }
  }
  if (news > mostNamesTold) {
    reporting::reportFailure("VolumeMonitor", std::string(paths::volumeLevelsFile) + ": nor are " +
                                                  std::to_string(news - mostNamesTold) + " more");
  }
  unknown_ = std::move(unknown);
}

/// Of what keeps volumes from being relieved, but for not answering, of which the probe tells, and for being gone.
void VolumeMonitor::tellOfTroubles(const std::vector<SpaceAnswer>& answers) {
  std::set<dev_t> troubled;
  for (const SpaceAnswer& answer : answers) {
    const VolumeMount& mount = answer.mount;
    const int error = answer.space ? 0 : answer.space.failure().number;
    const bool wasTroubled = troubled_.contains(mount.device);
    const bool isWell = error == ENOTDIR || error == ENOENT || (error == 0 && utf8::isValid(mount.path));
    if (error == ETIMEDOUT ? !wasTroubled : isWell) {
      continue;
    }
    if (troubled.insert(mount.device).second && !wasTroubled) {
      const std::string trouble = error == 0 ? "its name is not UTF-8" : std::generic_category().message(error);
      reporting::reportFailure("VolumeMonitor", mount.path + " cannot be relieved: " + trouble);
    }
  }
  troubled_ = std::move(troubled);
}

ReliefPolicy::Time VolumeMonitor::decide(const Look& look) {
  const runtime::Lock lock(mutex_);
  policy_.look(look.begun, look.sights, look.unasked);
  if (const auto event = policy_.nextEvent(look.begun)) {
    events_.post(*event);
  }
  Time next = policy_.nextLook();
  for (const VolumeMount& mount : look.unasked) {
    next = std::min(next, closedUntil(mount).value_or(Time::max()));
  }
  return next;
}

ReliefPolicy::Run VolumeMonitor::beginOutside() {
  const runtime::Lock lock(mutex_);
  return policy_.beginOutside(Clock::now());
}

void VolumeMonitor::endRun(ReliefPolicy::Run run) {
  {
    const runtime::Lock lock(mutex_);
    policy_.end(run, Clock::now());
  }
  wake();
}

std::vector<std::string> VolumeMonitor::volumesToRelieve(const std::vector<ReliefPolicy::Sight>& low) {
  const runtime::Lock lock(mutex_);
  std::vector<std::string> result;
  for (const ReliefPolicy::Sight& sight : low) {
    if (policy_.isFor(LowDiskEvents::currentRun(), Clock::now(), sight)) {
      result.push_back(sight.volume);
    }
  }
  return result;
}

void VolumeMonitor::beginRelief(const VolumeMount& mount, const Result<volumes::Space>& space,
                                const VolumeLevels& levels) {
  const runtime::Lock lock(mutex_);
  if (space) {
    policy_.take(LowDiskEvents::currentRun(), Clock::now(), ReliefPolicy::Sight(mount, *space, levels));
  } else {
    policy_.takeUnseen(LowDiskEvents::currentRun(), mount.path);
  }
}

void VolumeMonitor::wake() const {
  eventfd_write(wake_.get(), 1);
}

}  // namespace kelvane
