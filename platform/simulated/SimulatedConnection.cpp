// SPDX-License-Identifier: Apache-2.0
// The functions of connections, proxies and peers.
#include <algorithm>

#include "platform/simulated/IpcState.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane::ipc {

using simulated::IpcNetwork;
using Phase = Connection::State::Phase;

namespace {

/// On the event loop: finds who listens on the connection's name.
void connect(const std::shared_ptr<Connection::State>& connection) {
  if (connection->phase != Phase::Connecting) {
    return;
  }
  const std::string& name = *connection->service;
  IpcNetwork& network = connection->network;
  const auto service = network.services.find(name);
  if (!isServiceName(name) || service == network.services.end()) {
    connection->interrupt(
        {"org.freedesktop.DBus.Error.ServiceUnknown: Nobody listens on " + name, CallError::Cause::NotReached});
  } else if (const auto listener = service->second.listener.lock()) {
    listener->admit(connection);
  } else if (service->second.starter) {
    service->second.waiting.push_back(connection);
    if (!service->second.started) {
      service->second.started = true;
      simulated::scheduler().start("starter of " + name, service->second.starter);
    }
  } else {
    connection->interrupt({"org.freedesktop.DBus.Error.ServiceUnknown: Nobody listens on " + name + " any more",
                           CallError::Cause::NotReached});
  }
}

Arguments frozenArguments(const Arguments& arguments) {
  Arguments result;
  for (const auto& argument : arguments) {
    const Value* value = std::get_if<Value>(&argument);
    result.push_back(value == nullptr ? argument : frozen(*value));
  }
  return result;
}

}  // namespace

Connection Connection::toEndpoint(const Endpoint& endpoint) {
  auto state = std::make_shared<State>();
  Endpoint::State& end = *endpoint.state();
  const std::shared_ptr<State> served = end.used ? nullptr : end.served.lock();
  end.used = true;
  state->peer = end.server;
  if (served == nullptr) {
    state->otherGone = true;
  } else {
    state->other = served;
    served->other = state;
    state->otherGone = served->phase == Phase::Ended;
  }
  return Connection(state);
}

Connection Connection::toService(const std::string& name) {
  auto state = std::make_shared<State>();
  state->service = name;
  return Connection(state);
}

void Connection::setInvalidationHandler(std::function<void()> handler) const {
  state_->invalidationHandler = std::move(handler);
}

void Connection::setInterruptionHandler(std::function<void()> handler) const {
  state_->interruptionHandler = std::move(handler);
}

void Connection::setRemoteInterface(const Interface& interface) const {
  state_->remoteInterface = &interface;
}

Proxy Connection::remoteProxy(Proxy::ErrorHandler handler, Proxy::Wanted wanted) const {
  return Proxy(std::make_shared<Proxy::State>(Proxy::State{state_, std::move(handler), std::move(wanted)}));
}

void Connection::resume() const {
  const std::shared_ptr<State> state = state_;
  if (simulated::dropsCall() || state->phase != Phase::SettingUp) {
    return;
  }
  simulated::scheduler().yield();
  if (state->phase != Phase::SettingUp) {
    return;
  }
  if (state->service) {
    state->phase = Phase::Connecting;
    state->network.post([state] { connect(state); });
  } else {
    state->phase = Phase::Open;
    state->sendUnsent();
    if (state->otherGone) {
      state->network.hangUp(state);
    }
  }
  simulated::scheduler().yield();
}

void Connection::invalidate() const {
  const std::shared_ptr<State> state = state_;
  if (simulated::dropsCall()) {
    return;
  }
  simulated::scheduler().yield();
  state->invalidate();
  simulated::scheduler().yield();
}

Peer Connection::peer() const {
  return Peer(std::make_shared<Peer::State>(Peer::State{state_->peer}));
}

void Proxy::call(const Operation& operation, Arguments arguments, ReplyHandler reply,
                 std::chrono::seconds limit) const {
  State::call(
      state_, operation, arguments,
      [reply = std::move(reply)](std::variant<Value, CallError> outcome) {
        Value* value = std::get_if<Value>(&outcome);
        if (reply) {
          reply(value == nullptr ? Value() : std::move(*value));
        }
      },
      limit);
}

void Proxy::callForOutcome(const Operation& operation, Arguments arguments, OutcomeHandler outcome) const {
  State::call(state_, operation, arguments, std::move(outcome), std::chrono::seconds(0));
}

void Proxy::State::call(const std::shared_ptr<State>& proxy, const Operation& operation, const Arguments& arguments,
                        OutcomeHandler outcome, std::chrono::seconds limit) {
  const std::shared_ptr<Connection::State> connection = proxy->connection;
  if (simulated::dropsCall()) {
    return;
  }
  simulated::Message message = {++connection->lastSerial, &operation, frozenArguments(arguments), {}};
  simulated::scheduler().yield();
  Connection::State::Call call = {proxy, &operation, std::move(outcome), limit};
  if (connection->phase == Phase::Ended) {
    connection->failCall(std::move(call), connection->endedBy);
  } else if (connection->remoteInterface == nullptr) {
    connection->failCall(std::move(call),
                         {"org.freedesktop.DBus.Error.UnknownInterface: The connection has no remote interface"});
  } else {
    const std::uint64_t serial = message.serial;
    connection->take(std::move(message), std::move(call));
    if (limit != limit.zero()) {
      simulated::scheduler().start("limit of " + std::string(operation.member),
                                   [connection, serial, limit] { connection->awaitAnswer(serial, limit); });
    }
  }
  simulated::scheduler().yield();
}

bool Connection::hasEnded() const {
  return state_->phase == Phase::Ended;
}

bool Peer::isUser(std::string_view user) const {
  return !user.empty() && (user == state_->traits.user || user == std::to_string(state_->traits.uid));
}

bool Peer::isInGroup(std::string_view group) const {
  const std::vector<std::string>& groups = state_->traits.groups;
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool Peer::runsExecutable(const std::string& path) const {
  return !path.empty() && path == state_->traits.executable;
}

bool Peer::runsInUnit(std::string_view unit) const {
  return !unit.empty() && unit == state_->traits.unit;
}

bool Peer::hasSecurityLabel(std::string_view label) const {
  return !label.empty() && label == state_->traits.label;
}

std::uint32_t Peer::userNumber() const {
  return state_->traits.uid;
}

std::string Peer::description() const {
  return "pid " + std::to_string(state_->traits.pid) + ", uid " + std::to_string(state_->traits.uid);
}

}  // namespace kelvane::ipc
