// SPDX-License-Identifier: Apache-2.0
// Brings the daemon's requests to a service's functions.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "platform/Ipc.h"
#include "platform/Queues.h"
#include "platform/ThreadSafety.h"
#include "support/Cancellation.h"
#include "support/KelvaneService.h"

namespace kelvane {

/// Takes a service's requests from the IPC facility's threads, which must be free again at once, to queues of
/// its own. Shared by the service and the listeners that deliver to it, which may outlive the service; it
/// touches the service only between the two ends of a request that end() waits for.
class ServiceRequests : public std::enable_shared_from_this<ServiceRequests> {
 public:
  ServiceRequests(KelvaneService& service, const std::string& identifier);

  /// Delivers one request; returns without waiting for the service.
  void handle(const ipc::Request& request);

  /// Cancels what is under way and turns down what comes from now on. Any thread.
  void refuse();
  /// Waits until the service has been left for good. After refuse() only.
  void awaitEnd() const { underWay_.wait(); }

 private:
  using Work = std::function<Value(const Cancellation&)>;

  bool enter() const;
  void submit(const SerialQueue& queue, bool isPurge, const ipc::Reply& reply, Work work);
  void add(const Cancellation& cancellation, bool isPurge);
  void remove(const Cancellation& cancellation, bool isPurge);
  void cancelPurges();
  Value notify(const Value& notifications);

  KelvaneService& service_;
  const SerialQueue purgeQueue_;
  const SerialQueue queryQueue_;
  /// Guards the cancellations.
  const SerialQueue cancelQueue_;
  std::vector<Cancellation> purges_ KELVANE_GUARDED_BY(cancelQueue_);
  std::vector<Cancellation> others_ KELVANE_GUARDED_BY(cancelQueue_);
  const Group underWay_;
  std::atomic<bool> refusing_ = false;
};

}  // namespace kelvane
