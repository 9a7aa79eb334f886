// SPDX-License-Identifier: Apache-2.0
// Hands the answer of one request from the thread that got it to the one that waits.
#include "tools/kelvanectl/AnswerSlot.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace kelvane::ctl {

AnswerSlot::AnswerSlot() : event_(eventfd(0, EFD_CLOEXEC)) {}

AnswerSlot::~AnswerSlot() {
  close(event_);
}

void AnswerSlot::put(const KelvaneClientResult& answer) {
  {
    const std::lock_guard lock(mutex_);
    answer_ = answer;
  }
  eventfd_write(event_, 1);
}

std::optional<KelvaneClientResult> AnswerSlot::wait(int descriptor, std::optional<std::chrono::milliseconds> time) {
  std::array<pollfd, 2> events = {pollfd{event_, POLLIN, 0}, pollfd{descriptor, POLLIN, 0}};
  const int limit = time ? static_cast<int>(time->count()) : -1;
  while (poll(events.data(), events.size(), limit) < 0 && errno == EINTR) {
  }
  const std::lock_guard lock(mutex_);
  return answer_;
}

}  // namespace kelvane::ctl
