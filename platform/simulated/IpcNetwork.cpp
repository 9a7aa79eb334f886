// SPDX-License-Identifier: Apache-2.0
// What joins the ends of simulated connections, and the thread that reads them.
#include "platform/simulated/IpcNetwork.h"

#include <algorithm>

#include "platform/simulated/IpcState.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane::simulated {

void IpcNetwork::post(std::function<void()> task) {
  tasks_.push_back(std::move(task));
  wake();
}

void IpcNetwork::hangUp(const ConnectionState& connection) {
  connection->otherGone = true;
  hangUps_.push_back(connection);
  wake();
}

void IpcNetwork::readable(const ConnectionState& connection) {
  const bool known =
      std::any_of(readable_.begin(), readable_.end(), [&](const auto& other) { return other.lock() == connection; });
  if (!known) {
    readable_.push_back(connection);
  }
  wake();
}

std::optional<CallFailure> IpcNetwork::failureOf(const ipc::Listener::State* listener,
                                                 const ipc::Operation& operation) {
  const auto due = std::find_if(failures.begin(), failures.end(), [&](const Failure& failure) {
    return failure.listener == nullptr ? failure.operation == operation.name : failure.listener == listener;
  });
  if (due != failures.end()) {
    const CallFailure kind = due->kind;
    failures.erase(due);
    return kind;
  }
  if (failureRate > 0 && world().faults.chance(failureRate)) {
    return static_cast<CallFailure>(world().faults.below(3));
  }
  return std::nullopt;
}

PeerTraits IpcNetwork::identity() const {
  const SimulatedThread* thread = Scheduler::currentThread();
  return thread != nullptr && thread->identity ? *static_cast<const PeerTraits*>(thread->identity.get()) : peer;
}

void IpcNetwork::reset() {
  for (auto& [name, service] : services) {
    service.listener.reset();
    service.started = false;
    service.waiting.clear();
  }
  running_ = false;
  tasks_.clear();
  hangUps_.clear();
  readable_.clear();
}

void IpcNetwork::wake() {
  Scheduler* scheduler = Scheduler::current();
  if (scheduler != nullptr && !running_) {
    running_ = true;
    scheduler->start("IPC", [this] { run(); });
  }
}

void IpcNetwork::run() {
  do {
    scheduler().yield();
  } while (step());
  running_ = false;
}

bool IpcNetwork::step() {
  if (!hangUps_.empty()) {
    const ConnectionState connection = hangUps_.front().lock();
    hangUps_.pop_front();
    if (connection != nullptr) {
      connection->findOtherDead();
    }
    return true;
  }
  std::erase_if(readable_, [](const auto& entry) {
    const ConnectionState connection = entry.lock();
    return connection == nullptr || connection->inbox.empty();
  });
  std::vector<ConnectionState> ready;
  for (const auto& entry : readable_) {
    if (ConnectionState connection = entry.lock(); connection->canRead()) {
      ready.push_back(std::move(connection));
    }
  }
  const std::size_t choices = ready.size() + (tasks_.empty() ? 0 : 1);
  if (choices == 0) {
    return false;
  }
  const std::size_t chosen = scheduler().choose(choices);
  if (chosen < ready.size()) {
    ready[chosen]->readMessage();
  } else {
    const std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    task();
  }
  return true;
}

}  // namespace kelvane::simulated
