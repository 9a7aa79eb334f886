// SPDX-License-Identifier: Apache-2.0
// SIGINT and SIGTERM as something to wait for.
#pragma once

#include <chrono>

namespace kelvane::ctl {

/// Keeps both signals from ending the process while it lives. Made before the process has other threads, which would
/// take them otherwise.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  /// Readable once one of the signals has come; -1 when the system refused it.
  int descriptor() const { return descriptor_; }
  /// Waits for one of the signals for so long at most; whether one has come.
  bool comesWithin(std::chrono::milliseconds duration) const;

 private:
  int descriptor_ = -1;
};

}  // namespace kelvane::ctl
