// SPDX-License-Identifier: Apache-2.0
// Connections and the proxies that call over them.
#include "platform/common/FrozenValue.h"
#include "platform/linux/ipc/Channel.h"
#include "platform/linux/ipc/ConnectionState.h"
#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "platform/linux/ipc/ServiceNames.h"

namespace kelvane::ipc {

namespace {

/// The values may be live views that change before they are sent.
Arguments frozenArguments(Arguments arguments) {
  for (auto& argument : arguments) {
    if (Value* value = std::get_if<Value>(&argument)) {
      *value = frozen(*value);
    }
  }
  return arguments;
}

}  // namespace

struct Proxy::State {
  const std::shared_ptr<Connection::State> connection;
  const std::shared_ptr<const ErrorHandler> error;
  const Wanted wanted;

  void call(const Operation& operation, Arguments arguments, OutcomeHandler outcome, std::chrono::seconds limit) const {
    connection->call({.interface = nullptr,
                      .operation = &operation,
                      .arguments = frozenArguments(std::move(arguments)),
                      .outcome = std::move(outcome),
                      .error = error,
                      .wanted = wanted,
                      .connection = nullptr,
                      .limit = limit});
  }
};

void Proxy::call(const Operation& operation, Arguments arguments, ReplyHandler reply,
                 std::chrono::seconds limit) const {
  state_->call(
      operation, std::move(arguments),
      [reply = std::move(reply)](std::variant<Value, CallError> outcome) {
        Value* value = std::get_if<Value>(&outcome);
        if (reply) {
          reply(value != nullptr ? std::move(*value) : Value());
        }
      },
      limit);
}

void Proxy::callForOutcome(const Operation& operation, Arguments arguments, OutcomeHandler outcome) const {
  state_->call(operation, std::move(arguments), std::move(outcome), std::chrono::seconds(0));
}

Connection Connection::toEndpoint(const Endpoint& endpoint) {
  auto channel = std::make_shared<Channel>();
  auto taken = std::make_shared<Endpoint::State::Taken>(endpoint.state()->take());
  if (taken->socket) {
    channel->peer()->read(taken->socket.get());
  }
  return Connection(State::make(std::move(channel), [taken](Channel& started) {
    started.startClient(std::move(taken->socket), std::move(taken->place));
  }));
}

Connection Connection::toService(const std::string& name) {
  // A name that cannot be called has an empty path, at which nothing listens.
  return connectAt(isServiceName(name) ? servicePath(name) : "");
}

Connection connectAt(std::string path) {
  return Connection(Connection::State::make(std::make_shared<Channel>(),
                                            [path = std::move(path)](Channel& started) { started.connect(path); }));
}

void Connection::setInvalidationHandler(std::function<void()> handler) const {
  state_->setInvalidationHandler(std::move(handler));
}

void Connection::setInterruptionHandler(std::function<void()> handler) const {
  state_->setInterruptionHandler(std::move(handler));
}

void Connection::setRemoteInterface(const Interface& interface) const {
  state_->setRemoteInterface(interface);
}

Proxy Connection::remoteProxy(Proxy::ErrorHandler handler, Proxy::Wanted wanted) const {
  return Proxy(std::make_shared<Proxy::State>(
      Proxy::State{state_, std::make_shared<const Proxy::ErrorHandler>(std::move(handler)), std::move(wanted)}));
}

void Connection::resume() const {
  state_->resume();
}

void Connection::invalidate() const {
  state_->invalidate();
}

Peer Connection::peer() const {
  return Peer(state_->channel()->peer());
}

bool Connection::hasEnded() const {
  return state_->hasEnded();
}

}  // namespace kelvane::ipc
