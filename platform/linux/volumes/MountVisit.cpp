// SPDX-License-Identifier: Apache-2.0
// Ways to mounts, through others that may never answer.
#include "platform/linux/volumes/MountVisit.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

namespace kelvane {

Result<EnteredMount> enterMount(FileSystemProbe::Visit& visit, const VolumeMount& mount) {
  using About = FileSystemProbe::About;
  const Failure unknown{.number = ETIMEDOUT, .tried = "asking " + mount.path};
  EnteredMount entered{mount, {}};
  for (std::size_t index = 0; index < mount.way.size(); ++index) {
    const PassedMount& passed = mount.way[index];
    visit.askAbout(About::Files);
    if (!visit.enter(passed.device, passed.path)) {
      return unknown;
    }
    const bool isLast = index + 1 == mount.way.size();
    const std::string& next = isLast ? mount.path : mount.way[index + 1].path;
    entered.place = FileDescriptor(open(next.c_str(), O_PATH | O_CLOEXEC));
    if (!entered.place) {
      return systemFailure("asking", mount.path);
    }
    entered.mount.path = "/proc/self/fd/" + std::to_string(entered.place.get());
  }
  visit.askAbout(About::Space);
  return visit.enter(mount.device, mount.path) ? Result<EnteredMount>(std::move(entered)) : unknown;
}

std::optional<FileSystemProbe::Time> closedUntil(const VolumeMount& mount) {
  FileSystemProbe& probe = FileSystemProbe::shared();
  auto until = probe.closedUntil(mount.device);
  for (const PassedMount& passed : mount.way) {
    until = std::max(until, probe.closedUntil(passed.device));
  }
  return until;
}

}  // namespace kelvane
