// SPDX-License-Identifier: Apache-2.0
// Calls one service's operations.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/Ipc.h"
#include "platform/Value.h"

namespace kelvane {

/// A service as the daemon sees it: answers KelvaneServiceProtocol. Every call returns at once; its reply
/// runs at most once, on a thread of the IPC facility that may block, and not at all when the connection
/// fails first. A service's reply that is no dictionary is given as absent.
class KelvaneServiceProxy {
 public:
  using Reply = std::function<void(const Value&)>;
  using Done = std::function<void()>;

  explicit KelvaneServiceProxy(ipc::Proxy proxy) : proxy_(std::move(proxy)) {}

  void servicePurgeable(std::int32_t urgency, const Value& info, Reply reply) const;
  void servicePurge(std::int32_t urgency, const Value& info, Reply reply) const;
  void servicePeriodic(std::int32_t urgency, const Value& info, Reply reply) const;
  void serviceCancelPurge(Done reply) const;
  /// Within the limit of the settings, if there is one; then it is given a reply in any case.
  void servicePing(Done reply) const;
  /// The dictionary maps the notification's name to its value.
  void serviceNotify(const Value& notification, Done reply) const;

 private:
  ipc::Proxy proxy_;
};

}  // namespace kelvane
