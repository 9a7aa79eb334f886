// SPDX-License-Identifier: Apache-2.0
// A service whose answers a test scripts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "support/KLService.h"

namespace kelvane::test {

/// Serves KelvaneServiceProtocol, records what it is asked and answers as the test says: unless told
/// otherwise, with what it was asked for. Set the handlers before it is asked. Works on both platforms.
class ScriptedService {
 public:
  /// One request with urgency and info. Without an answer through reply, or later, there is none.
  struct Request {
    std::int32_t urgency;
    Value info;
    ipc::Reply reply;
    ipc::Connection connection;
  };
  using Handler = std::function<void(const Request&)>;

  explicit ScriptedService(std::string identifier);
  /// Serves under its identifier as the name of an IPC service, as one known from a description does.
  void listenByName();

  const std::string& identifier() const { return identifier_; }

  /// A record as a check-in would have made it: purges, connected to this service.
  std::shared_ptr<KLService> record() const;
  /// A new endpoint that this service serves.
  ipc::Endpoint endpoint() const { return *listener_->endpoint(); }

  Handler onPurge;
  Handler onPeriodic;
  Handler onPurgeable;
  /// Given the notification's dictionary in the info.
  Handler onNotify;
  Handler onCancel;
  Handler onPing;

  /// What it was asked so far: the requests' member names with their urgency, "servicePurge 1", in order.
  std::vector<std::string> calls() const;
  std::size_t count(const std::string& call) const;
  /// The infos of the requests that carried one, in order.
  std::vector<Value> infos() const;

  /// Answers {"KELVANE_AMOUNT": bytes}.
  static Handler gives(Value bytes);
  /// Answers nothing, ever.
  static Handler silence();
  /// Ends the connection instead of answering.
  static Handler dies();

 private:
  void handle(const ipc::Request& request);

  const std::string identifier_;
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::vector<Value> infos_;
  std::optional<ipc::Listener> listener_;
};

/// A table of these services' records.
ServiceTable tableOf(const std::vector<std::shared_ptr<KLService>>& records);

}  // namespace kelvane::test
