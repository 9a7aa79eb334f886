// SPDX-License-Identifier: Apache-2.0
// The IPC facility's script.
#include "platform/simulated/SimulatedIpc.h"

#include <algorithm>

#include "platform/simulated/IpcState.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane::simulated {

namespace {

/// What a script does outside a run takes effect; within one it is a step like any other.
void schedulingPoint() {
  if (Scheduler* scheduler = Scheduler::current()) {
    scheduler->yield();
  }
}

}  // namespace

Ipc::Ipc() : network_(std::make_unique<IpcNetwork>()) {}

Ipc::~Ipc() = default;

void Ipc::setPeer(PeerTraits peer) {
  network_->peer = std::move(peer);
}

void Ipc::onDemand(const std::string& name, std::function<void()> starter) {
  network_->services[name].starter = std::move(starter);
}

void Ipc::refuse(const std::string& name, const std::string& error) {
  network_->services[name].refusal = error;
}

void Ipc::setEndpointsExhausted(bool exhausted) {
  network_->endpointsExhausted = exhausted;
}

bool Ipc::isListening(const std::string& name) const {
  const auto service = network_->services.find(name);
  return service != network_->services.end() && !service->second.listener.expired();
}

int Ipc::openConnections() const {
  return static_cast<int>(std::count_if(network_->ends.begin(), network_->ends.end(), [](const auto* end) {
    return !end->served && !end->otherGone && end->phase == ipc::Connection::State::Phase::Open;
  }));
}

void Ipc::kill(const ipc::Connection& connection) {
  schedulingPoint();
  connection.state()->breakLink();
  schedulingPoint();
}

void Ipc::kill(const ipc::Listener& listener) {
  schedulingPoint();
  ipc::Listener::State::of(listener)->close();
  schedulingPoint();
}

void Ipc::failNextCall(const ipc::Listener& listener, CallFailure failure) {
  network_->failures.push_back({ipc::Listener::State::of(listener).get(), {}, failure});
}

void Ipc::failNextCall(const std::string& operation, CallFailure failure) {
  network_->failures.push_back({nullptr, operation, failure});
}

void Ipc::setFailureRate(double probability) {
  network_->failureRate = probability;
}

ActingAs::ActingAs(PeerTraits peer) {
  SimulatedThread* thread = Scheduler::currentThread();
  if (thread == nullptr) {
    fail("ActingAs outside a run");
  }
  before_ = std::exchange(thread->identity, std::make_shared<const PeerTraits>(std::move(peer)));
}

ActingAs::~ActingAs() {
  Scheduler::currentThread()->identity = before_;
}

}  // namespace kelvane::simulated
