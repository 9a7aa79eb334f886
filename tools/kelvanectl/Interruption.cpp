// SPDX-License-Identifier: Apache-2.0
// SIGINT and SIGTERM as something to wait for.
#include "tools/kelvanectl/Interruption.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace kelvane::ctl {

Interruption::Interruption() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  descriptor_ = signalfd(-1, &signals, SFD_CLOEXEC);
  if (descriptor_ >= 0) {
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  }
}

bool Interruption::comesWithin(std::chrono::milliseconds duration) const {
  pollfd event{descriptor_, POLLIN, 0};
  return poll(&event, 1, static_cast<int>(duration.count())) == 1;
}

Interruption::~Interruption() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

}  // namespace kelvane::ctl
