// SPDX-License-Identifier: Apache-2.0
// The daemon that a test runs against.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kelvane::test {

/// What a daemon is started in.
struct Circumstances {
  /// How many descriptors it can have.
  rlim_t descriptors = RLIM_INFINITY;
  /// More for its environment, as NAME=value.
  std::vector<std::string> environment = {};
  /// Takes the place of the log when it is a descriptor.
  int standardError = -1;
};

/// A kelvaned built as the test was, in a process of its own, which ends with this object at the latest. A report of a
/// sanitizer ends it too.
class DaemonProcess {
 public:
  DaemonProcess() = default;
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  /// Returns when it has begun to serve, or has ended.
  void start(const Circumstances& circumstances = {});
  /// Returns at once.
  void launch(const Circumstances& circumstances = {});
  [[nodiscard]] bool isRunning();
  void send(int signal) const;
  /// How many it can have from now on; those there are stay.
  void limitDescriptors(rlim_t count) const;
  /// Waits for its end and describes that: "exit 0", "signal 9".
  std::string wait();

  /// What it wrote to standard error, unless that was somewhere else.
  [[nodiscard]] std::string log() const;
  /// But for those by which it learns of writes to volumes, of which it has as many as there are quiet volumes.
  [[nodiscard]] std::size_t openDescriptors() const;
  [[nodiscard]] std::size_t threads() const;
  /// Its memory, without what sanitizers keep beside it.
  [[nodiscard]] std::size_t residentBytes() const;

 private:
  pid_t pid_ = 0;
  int status_ = 0;
};

}  // namespace kelvane::test
