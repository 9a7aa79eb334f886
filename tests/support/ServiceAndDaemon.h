// SPDX-License-Identifier: Apache-2.0
// A service made with the library and a daemon that a test scripts, in one simulation.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "platform/Queues.h"
#include "platform/simulated/Simulation.h"
#include "support/KelvaneService.h"

namespace kelvane::test {

/// Does what the test says; run in the background.
class TestedService : public KelvaneService {
 public:
  using KelvaneService::KelvaneService;

  void start();
  bool hasEnded() const { return ended_; }
  const std::optional<std::string>& error() const { return error_; }

  std::function<std::optional<std::uint64_t>(const SpaceRequest&, const Cancellation&)> onPurgeable;
  std::function<std::uint64_t(const SpaceRequest&, const Cancellation&)> onPurge;
  std::function<std::uint64_t(const SpaceRequest&, const Cancellation&)> onPeriodic;
  std::function<void()> onCancelPurge;
  std::function<void(const std::string&, const Value&)> onNotify;
  std::function<Value(const Value&)> onCallback;

 private:
  std::optional<std::uint64_t> purgeable(const SpaceRequest& request, const Cancellation& cancellation) override;
  std::uint64_t purge(const SpaceRequest& request, const Cancellation& cancellation) override;
  std::uint64_t periodic(const SpaceRequest& request, const Cancellation& cancellation) override;
  void cancelPurge() override;
  void notify(const std::string& name, const Value& value) override;
  Value callback(const Value& info) override;

  bool ended_ = false;
  std::optional<std::string> error_;
};

/// Answers check-ins and calls the services that made them.
class ScriptedDaemon {
 public:
  enum class Answer {
    Accept,    ///< connects to the endpoint, pings and answers
    Describe,  ///< answers none: a description holds the identifier
    Silence,   ///< never answers, as for a service without the entitlement
    Ignore,    ///< answers as for a record that has an endpoint, and lets the new one go
    Error,     ///< a D-Bus error
  };

  explicit ScriptedDaemon(Simulation& simulation) : simulation_(simulation) {}

  void launch();
  /// Takes the listener and all connections with it.
  void die();

  Answer answer = Answer::Accept;
  /// When check-ins came, with their identifiers and infos.
  std::vector<std::chrono::milliseconds> checkins;
  std::vector<std::string> identifiers;
  std::vector<Value> infos;
  int pongs = 0;
  int answered = 0;

  /// Calls the service that checked in last. The reply is absent as long as there is none.
  struct Outcome {
    bool isAnswered = false;
    Value value;
  };
  std::shared_ptr<Outcome> call(const ipc::Operation& operation, ipc::Arguments arguments) const;
  const ipc::Connection& service() const { return services_.back(); }

 private:
  void checkIn(const ipc::Request& request);

  Simulation& simulation_;
  std::optional<ipc::Listener> listener_;
  std::vector<ipc::Connection> services_;
};

/// The arguments of a request about space.
ipc::Arguments spaceArguments(int urgency, std::uint64_t amount);

}  // namespace kelvane::test
