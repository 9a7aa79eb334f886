// SPDX-License-Identifier: Apache-2.0
// The process's life time and its small dealings with the system.
#include "platform/Process.h"

#include <fcntl.h>
#include <systemd/sd-id128.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/FileNames.h"
#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/system/AtomicFile.h"
#include "platform/linux/system/Paths.h"
#include "platform/linux/system/ServiceManager.h"

namespace kelvane {

namespace {

/// What the service manager is told of at each change, in the order they happen.
class Status {
 public:
  void changeTransactions(int difference) {
    const runtime::BlockedScope blocked;
    const runtime::Lock lock(mutex_);
    transactions_ += static_cast<unsigned>(difference);
    tell();
  }
  void setRemark(const std::string& remark) {
    const runtime::BlockedScope blocked;
    const runtime::Lock lock(mutex_);
    remark_ = remark;
    tell();
  }

 private:
  /// The service manager may be slow to read.
  void tell() KELVANE_REQUIRES(mutex_) { serviceManager::notifyStatus(transactions_, remark_); }

  runtime::Mutex mutex_;
  unsigned transactions_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::string remark_ KELVANE_GUARDED_BY(mutex_);
};

/// Outlives every thread.
Status& status() {
  static Status& status = *new Status;
  return status;
}

}  // namespace

Transaction::Transaction() {
  status().changeTransactions(1);
}
Transaction::~Transaction() {
  status().changeTransactions(-1);
}

void remarkInStatus(const std::string& remark) {
  status().setRemark(remark);
}

int postNotification(const std::string& name) {
  if (!isFileName(name)) {
    errno = EINVAL;
    return -1;
  }
  timespec now;
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
    return -1;
  }
  // The time of the post, so that whoever reads the file can tell one post from the next.
  char contents[64];
  const int length = std::snprintf(contents, sizeof contents, "%lld.%09ld\n", static_cast<long long>(now.tv_sec),
                                   static_cast<long>(now.tv_nsec));
  const auto replaced = replaceFile(paths::notificationDirectory, name, {contents, static_cast<std::size_t>(length)});
  if (!replaced) {
    errno = replaced.failure().number;
    return -1;
  }
  return 0;
}

void installTerminationHandler(void (*handler)(int signal)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  // Whoever started the process may have blocked it.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void holdStandardDescriptors() {
  // Open for reading alone, so that a write fails.
  int descriptor = 0;
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
    descriptor = open("/dev/null", O_RDONLY);
  }
  if (descriptor >= 0) {
    close(descriptor);
  }
}

void outliveFileSizeLimit() {
  std::signal(SIGXFSZ, SIG_IGN);
}

void exitImmediately(int status) {
  _exit(status);
}

std::string randomUuid() {
  sd_id128_t identifier;
  // Fails only where the kernel gives no random numbers at all, and then nothing could be told apart.
  if (sd_id128_randomize(&identifier) < 0) {
    std::abort();
  }
  char text[SD_ID128_UUID_STRING_MAX];
  return sd_id128_to_uuid_string(identifier, text);
}

}  // namespace kelvane
