// SPDX-License-Identifier: Apache-2.0
// Listeners, endpoints, requests and replies.
#include "platform/simulated/IpcState.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane::ipc {

using simulated::CallFailure;
using Phase = Connection::State::Phase;

Endpoint::State::~State() {
  const std::shared_ptr<Connection::State> end = served.lock();
  if (!used && end != nullptr) {
    end->network.hangUp(end);
  }
}

Reply::State::~State() {
  if (!sent) {
    --connection->unanswered;
    connection->network.readable(connection);
  }
}

void Reply::State::send(std::variant<Value, CallError> answer) {
  if (sent) {
    return;
  }
  sent = true;
  --connection->unanswered;
  connection->network.readable(connection);
  if (failure != CallFailure::During) {
    connection->send({serial, nullptr, {}, std::move(answer)});
  }
  if (failure) {
    connection->breakLink();
  }
}

void Reply::send(const Value& value) const {
  if (simulated::dropsCall()) {
    return;
  }
  const std::shared_ptr<State> state = state_;
  Value sent = frozen(value);
  simulated::scheduler().yield();
  state->send(std::move(sent));
  simulated::scheduler().yield();
}

void Reply::sendError(const std::string& name, const std::string& text) const {
  if (simulated::dropsCall()) {
    return;
  }
  const std::shared_ptr<State> state = state_;
  simulated::scheduler().yield();
  state->send(CallError{name + ": " + text, CallError::Cause::Answered});
  simulated::scheduler().yield();
}

Listener::State::State(const Interface& served)
    : network(simulated::world().ipc.network()), interface(served), self(network.identity()) {}

Listener::State::~State() {
  close();
}

void Listener::State::close() {
  serving = false;
  const auto service = network.services.find(name.value_or(std::string()));
  if (service != network.services.end() &&
      (service->second.listener.expired() || service->second.listener.lock().get() == this)) {
    service->second.listener.reset();
    service->second.started = false;
  }
  for (const std::shared_ptr<Connection::State>& connection : std::exchange(accepted, {})) {
    connection->phase = Phase::Ended;
    connection->hangUp();
    connection->inbox.clear();
    connection->requests.clear();
  }
}

std::shared_ptr<Connection::State> Listener::State::accept(const simulated::PeerTraits& peer) {
  auto connection = std::make_shared<Connection::State>();
  connection->phase = Phase::Open;
  connection->served = true;
  connection->self = self;
  connection->peer = peer;
  connection->listener = weak_from_this();
  connection->handler = handler;
  accepted.push_back(connection);
  return connection;
}

void Listener::State::admit(const std::shared_ptr<Connection::State>& connection) {
  if (connection->phase != Phase::Connecting) {
    return;
  }
  const Peer peer(std::make_shared<Peer::State>(Peer::State{connection->self}));
  bool admitted = true;
  if (admission) {
    const simulated::MustNotBlock scope("an admission");
    admitted = admission(peer);
  }
  if (!admitted) {
    connection->interrupt({"org.freedesktop.DBus.Error.AccessDenied: Not admitted", CallError::Cause::NotAdmitted});
    return;
  }
  const std::shared_ptr<Connection::State> end = accept(connection->self);
  end->other = connection;
  connection->other = end;
  connection->peer = self;
  connection->phase = Phase::Open;
  connection->sendUnsent();
}

void Listener::State::readmit() {
  if (!admission) {
    return;
  }
  for (const std::shared_ptr<Connection::State>& connection : std::vector(accepted)) {
    bool admitted = true;
    {
      const simulated::MustNotBlock scope("an admission");
      admitted = admission(Peer(std::make_shared<Peer::State>(Peer::State{connection->peer})));
    }
    if (!admitted) {
      connection->requests.clear();
      connection->invalidate();
    }
  }
}

Listener Listener::named(const std::string& name, const Interface& interface, RequestHandler handler) {
  Listener listener = anonymous(interface, std::move(handler));
  listener.state_->name = name;
  return listener;
}

Listener Listener::anonymous(const Interface& interface, RequestHandler handler) {
  auto state = std::make_shared<State>(interface);
  state->handler = std::make_shared<RequestHandler>(std::move(handler));
  return Listener(std::move(state));
}

void Listener::setAdmission(Admission admission) const {
  state_->admission = std::move(admission);
}

void Listener::readmit() const {
  state_->network.post([state = state_] { state->readmit(); });
}

void Listener::setDisconnectHandler(std::function<void(const Connection&)> handler) const {
  state_->disconnectHandler = std::move(handler);
}

std::optional<std::string> Listener::resume() const {
  const std::shared_ptr<State> state = state_;
  simulated::scheduler().yield();
  if (state->name) {
    if (!isServiceName(*state->name)) {
      return "not a service name";
    }
    simulated::IpcNetwork::Service& service = state->network.services[*state->name];
    if (!service.refusal.empty()) {
      return service.refusal;
    }
    if (!service.listener.expired()) {
      return "Address already in use";
    }
    service.listener = state;
    for (const auto& waiting : std::exchange(service.waiting, {})) {
      if (const std::shared_ptr<Connection::State> connection = waiting.lock()) {
        state->network.post([state, connection] { state->admit(connection); });
      }
    }
  }
  state->serving = true;
  for (const std::shared_ptr<Connection::State>& connection : state->accepted) {
    state->network.readable(connection);
  }
  simulated::scheduler().yield();
  return std::nullopt;
}

std::optional<Endpoint> Listener::endpoint() const {
  if (state_->network.endpointsExhausted) {
    return std::nullopt;
  }
  const std::shared_ptr<Connection::State> end = state_->accept(state_->self);
  return Endpoint(std::make_shared<Endpoint::State>(end, state_->self));
}

}  // namespace kelvane::ipc
