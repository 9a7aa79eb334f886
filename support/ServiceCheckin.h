// SPDX-License-Identifier: Apache-2.0
// Introduces a service to the daemon, as often as it takes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/Ipc.h"
#include "platform/Queues.h"
#include "platform/Value.h"

namespace kelvane {

struct KelvaneServiceConfiguration;

/// Keeps a service known to the daemon: serves an endpoint, checks in with it, and does so again with another
/// one whenever that has closed. Between two attempts it pauses, longer each time, until one has succeeded. A
/// check-in counts as a success when it was answered and the daemon has used the endpoint: an endpoint that
/// the daemon has no use for, because it still knows the identifier by an earlier one, is closed although
/// the check-in is answered.
///
/// Owned by the service; runs on the thread that runs it.
class ServiceCheckin {
 public:
  static constexpr std::chrono::milliseconds firstPause{100};
  static constexpr std::chrono::milliseconds longestPause{30'000};

  ServiceCheckin(const KelvaneServiceConfiguration& configuration, ipc::RequestHandler handler);

  /// Returns after stop().
  void run();
  /// Any thread.
  void stop();

 private:
  struct Attempt;

  std::shared_ptr<Attempt> begin() const;
  /// Waits until the attempt's endpoint is of no more use, and says so in the log when it is news.
  void await(const Attempt& attempt);
  void reportAnswer(const Attempt& attempt);
  void report(std::int32_t level, const std::string& event);

  const std::string identifier_;
  const Value info_;
  const ipc::RequestHandler handler_;
  /// Signalled at every event of an attempt, and by stop().
  const Semaphore changed_{0};
  const Semaphore stopped_{0};
  std::atomic<bool> stopping_ = false;
  std::string lastReport_;
};

}  // namespace kelvane
