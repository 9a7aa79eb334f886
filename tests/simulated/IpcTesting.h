// SPDX-License-Identifier: Apache-2.0
// An interface to test with, and a caller that remembers what became of its calls.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "platform/simulated/Simulation.h"

namespace kelvane::ipcTesting {

inline constexpr std::array echoArguments = {ipc::Argument{"value", ipc::ArgumentKind::Any}};
inline constexpr std::array countArguments = {ipc::Argument{"number", ipc::ArgumentKind::Integer},
                                              ipc::Argument{"text", ipc::ArgumentKind::String},
                                              ipc::Argument{"info", ipc::ArgumentKind::Dictionary}};
inline constexpr std::array tellArguments = {ipc::Argument{"info", ipc::ArgumentKind::Dictionary}};
inline constexpr std::array handArguments = {ipc::Argument{"endpoint", ipc::ArgumentKind::Endpoint}};

inline constexpr ipc::Operation echo = {"echo:replyBlock:", "echo", echoArguments, ipc::ReplyKind::Any};
inline constexpr ipc::Operation count = {"count:text:info:", "count", countArguments, ipc::ReplyKind::Nothing};
inline constexpr ipc::Operation hand = {"hand:replyBlock:", "hand", handArguments, ipc::ReplyKind::Any};
inline constexpr ipc::Operation foreign = {"foreign:", "foreign", {}, ipc::ReplyKind::Any};

inline constexpr ipc::Operation tell = {"tell:", "tell", tellArguments, ipc::ReplyKind::Any, ipc::BeyondLimit::Waits};

inline constexpr std::array operations = {&echo, &count, &hand, &tell};
inline constexpr ipc::Interface interface = {"/test", "com.tessaly.Test", operations};
/// As a caller that limits what it has under way.
inline constexpr ipc::Interface limitedInterface = {.objectPath = interface.objectPath,
                                                    .name = interface.name,
                                                    .operations = operations,
                                                    .maximumOutstandingCalls = 2,
                                                    .maximumWaitingCalls = 3,
                                                    .maximumWaitingBytes = 4096};

inline void answerWithArgument(const ipc::Request& request) {
  request.reply.send(request.value(0));
}

/// Serves the interface without a name.
inline ipc::Listener serve(ipc::RequestHandler handler) {
  ipc::Listener listener = ipc::Listener::anonymous(interface, std::move(handler));
  (void)listener.resume();
  return listener;
}

/// A connection with handlers that write down what happened: "reply VALUE", "error", "interrupted",
/// "invalidated".
class Caller {
 public:
  explicit Caller(ipc::Connection connection, const ipc::Interface& remote = interface)
      : connection_(std::move(connection)) {
    connection_.setInterruptionHandler([events = events_] { events->push_back("interrupted"); });
    connection_.setInvalidationHandler([events = events_] { events->push_back("invalidated"); });
    connection_.setRemoteInterface(remote);
  }
  explicit Caller(const ipc::Listener& listener) : Caller(ipc::Connection::toEndpoint(*listener.endpoint())) {
    connection_.resume();
  }

  void call(const ipc::Operation& operation, ipc::Arguments arguments,
            std::chrono::seconds limit = std::chrono::seconds(0)) const {
    const ipc::Proxy proxy = connection_.remoteProxy([events = events_, error = error_](const auto& failure) {
      events->push_back("error");
      *error = failure;
    });
    proxy.call(
        operation, std::move(arguments),
        [events = events_](const Value& value) { events->push_back("reply " + value.description()); }, limit);
  }
  void echo(const Value& value) const { call(ipcTesting::echo, {value}); }

  const ipc::Connection& connection() const { return connection_; }
  const std::vector<std::string>& events() const { return *events_; }
  const std::optional<ipc::CallError>& error() const { return *error_; }

 private:
  ipc::Connection connection_;
  std::shared_ptr<std::vector<std::string>> events_ = std::make_shared<std::vector<std::string>>();
  std::shared_ptr<std::optional<ipc::CallError>> error_ = std::make_shared<std::optional<ipc::CallError>>();
};

/// Runs the body under 50 schedules.
inline void underManySchedules(const std::function<void(Simulation&)>& body) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    Simulation simulation(seed);
    simulation.run([&] { body(simulation); });
  }
}

}  // namespace kelvane::ipcTesting
