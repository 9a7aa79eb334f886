// SPDX-License-Identifier: Apache-2.0
// The process and its service manager as a test scripts them.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "platform/simulated/Scheduler.h"

namespace kelvane::simulated {

/// What the process told the service manager, and the service manager's part for the test to play.
class Process {
 public:
  /// Keep-alive transactions that live now, and the most that ever lived at once.
  int transactions() const { return transactions_; }
  int transactionsHighWater() const { return transactionsHighWater_; }

  /// What the status tells beside that; empty when nothing.
  const std::string& remark() const { return remark_; }

  bool hasActivity(const std::string& name) const { return activities_.count(name) > 0; }
  /// Runs the activity's handler with the run state on the global queue and waits until it returns.
  void runActivity(const std::string& name);

  bool hasEventStream(const std::string& stream) const { return streams_.count(stream) > 0; }
  /// Hands an event to the stream's handler, perhaps beside others; returns at once.
  void post(const std::string& stream, const Value& event);
  /// As post(), and waits until the handler returns.
  void postAndWait(const std::string& stream, const Value& event);

  const std::vector<std::string>& notifications() const { return notifications_; }
  /// Makes every later notification fail with this status and errno; status 0 ends that.
  void setNotificationFailure(int status, int error);

  /// Runs the termination handler on a thread of its own, and returns when it has returned or exited.
  void terminate();
  bool hasReloadHandler() const { return reloadHandler_ != nullptr; }
  /// Asks the process to read its configuration again, and returns when it has.
  void reload();
  /// The status of the first exit. The thread that exits stops for good; the others go on.
  std::optional<int> exitStatus() const { return exitStatus_; }

  /// Forgets what a process registered, for the next one.
  void restart();

  /// The labels of the queues that feed the watchdog.
  const std::vector<std::string>& supervisedQueues() const { return supervisedQueues_; }

 private:
  friend struct ProcessCalls;
  using EventHandler = std::function<void(const Value&)>;
  const EventHandler& handlerOf(const std::string& name) const;

  int transactions_ = 0;
  int transactionsHighWater_ = 0;
  std::string remark_;
  std::map<std::string, std::function<void(const Activity&)>> activities_;
  std::map<std::string, EventHandler> streams_;
  std::vector<std::string> notifications_;
  int notificationStatus_ = 0;
  int notificationError_ = 0;
  void (*terminationHandler_)(int) = nullptr;
  std::function<void()> reloadHandler_;
  WaitList terminated_;
  std::optional<int> exitStatus_;
  std::vector<std::string> supervisedQueues_;
};

}  // namespace kelvane::simulated
