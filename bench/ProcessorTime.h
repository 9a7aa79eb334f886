// SPDX-License-Identifier: Apache-2.0
// How busy a process has been.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>

#include "bench/BareBus.h"

namespace kelvane::bench {

/// The nanoseconds that all threads of a process have spent on processors, whoever owns it.
class ProcessorTime {
 public:
  explicit ProcessorTime(pid_t process) { must(-clock_getcpuclockid(process, &clock_), "a process's clock"); }

  std::uint64_t now() const {
    timespec time{};
    mustCall(clock_gettime(clock_, &time), "a process's clock");
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
  }

 private:
  clockid_t clock_{};
};

}  // namespace kelvane::bench
