// SPDX-License-Identifier: Apache-2.0
// Mounts of this process's namespace, read no more often than they change.
#include "platform/linux/volumes/Mounts.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <utility>

#include "platform/Reporting.h"
#include "platform/linux/volumes/Paths.h"

namespace kelvane {

Mounts& Mounts::shared() {
  static Mounts& mounts = *new Mounts;
  return mounts;
}

Mounts::Mounts()
    : watch_(open(paths::mountInfo, O_RDONLY | O_CLOEXEC)), listener_(open(paths::mountInfo, O_RDONLY | O_CLOEXEC)) {}

Mounts::Table Mounts::current() {
  std::string news;
  {
    const runtime::Lock lock(mutex_);
    // Asked before the table is read, so that a change while it is being read shows the next time.
    if (!haveChanged() && read_ && Clock::now() - *read_ < longestAge) {
      return table_;
    }
    news = read();
  }
  return told(news);
}

Mounts::Table Mounts::readAgain() {
  std::string news;
  {
    const runtime::Lock lock(mutex_);
    news = read();
  }
  return told(news);
}

/// Returns what people should know.
std::string Mounts::read() {
  auto mounts = volumeMounts(paths::mountInfo);
  read_ = mounts ? std::optional(Clock::now()) : std::nullopt;
  const bool wasReadable = std::exchange(isReadable_, static_cast<bool>(mounts));
  if (mounts) {
    table_ = std::make_shared<const std::vector<VolumeMount>>(*std::move(mounts));
    return {};
  }
  return wasReadable ? mounts.failure().text() + "; the volumes there were are taken for those there are" : "";
}

Mounts::Table Mounts::told(const std::string& news) {
  if (!news.empty()) {
    reporting::reportFailure("Mounts", news);
  }
  const runtime::Lock lock(mutex_);
  return table_;
}

/// A table that cannot be watched may always have changed.
bool Mounts::haveChanged() {
  pollfd state{.fd = watch_.get(), .events = POLLPRI, .revents = 0};
  return !watch_ || poll(&state, 1, 0) != 0;
}

const VolumeMount* findMount(const std::vector<VolumeMount>& mounts, const std::string& path) {
  const auto mount = std::find_if(mounts.begin(), mounts.end(),
                                  [&path](const VolumeMount& candidate) { return candidate.path == path; });
  return mount == mounts.end() ? nullptr : &*mount;
}

}  // namespace kelvane
