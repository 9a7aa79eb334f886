// SPDX-License-Identifier: Apache-2.0
// The clock: nanoseconds of CLOCK_MONOTONIC are the ticks.
#include "platform/Clock.h"

#include <cerrno>
#include <ctime>

#include "platform/linux/runtime/BlockedScope.h"

namespace kelvane::clock {

namespace {

constexpr long nanosecondsPerSecond = 1'000'000'000;

timespec read(clockid_t id) {
  timespec time{};
  clock_gettime(id, &time);
  return time;
}

}  // namespace

std::optional<Timebase> timebase() {
  timespec resolution;
  if (clock_getres(CLOCK_MONOTONIC, &resolution) != 0)
    return std::nullopt;
  return Timebase{1, 1};
}

std::uint64_t ticks() {
  const timespec time = read(CLOCK_MONOTONIC);
  return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond + static_cast<std::uint64_t>(time.tv_nsec);
}

Date now() {
  const timespec time = read(CLOCK_REALTIME);
  return Date{static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / nanosecondsPerSecond};
}

void sleepMicroseconds(std::uint32_t microseconds) {
  timespec end = read(CLOCK_MONOTONIC);
  end.tv_sec += microseconds / 1'000'000;
  end.tv_nsec += static_cast<long>(microseconds % 1'000'000) * 1000;
  if (end.tv_nsec >= nanosecondsPerSecond) {
    ++end.tv_sec;
    end.tv_nsec -= nanosecondsPerSecond;
  }
  const runtime::BlockedScope blocked;
  // An absolute end: signals that interrupt the sleep do not lengthen it.
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

}  // namespace kelvane::clock
