// SPDX-License-Identifier: Apache-2.0
// What joins the ends of simulated connections, and the thread that reads them.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "platform/simulated/Random.h"
#include "platform/simulated/Scheduler.h"
#include "platform/simulated/SimulatedIpc.h"

namespace kelvane::simulated {

using ConnectionState = std::shared_ptr<ipc::Connection::State>;

/// The names that are listened on, the faults to come and the event loop: one simulated thread that makes
/// connections, reads what arrived and runs the handlers that must not block. It deals with every end that is
/// known to be dead before it reads on. Everything else runs on threads of its own. The event loop's thread
/// ends when nothing is left to do, so that no run leaves it behind, and starts again when there is.
///
/// Nothing here but run() is a scheduling point, so destructors may call it.
class IpcNetwork {
 public:
  struct Service {
    std::weak_ptr<ipc::Listener::State> listener;
    std::function<void()> starter;
    bool started = false;
    std::string refusal;
    std::vector<std::weak_ptr<ipc::Connection::State>> waiting;
  };
  struct Failure {
    const void* listener;
    std::string operation;
    CallFailure kind;
  };

  /// Has a task run on the event loop.
  void post(std::function<void()> task);
  /// Says that an end's other end is gone.
  void hangUp(const ConnectionState& connection);
  /// Says that there is something to read at an end, or may now be read.
  void readable(const ConnectionState& connection);

  /// The failure that is due for a call, taken from the script or from chance.
  std::optional<CallFailure> failureOf(const ipc::Listener::State* listener, const ipc::Operation& operation);
  /// As whom the calling thread connects.
  PeerTraits identity() const;
  /// What a new process finds: no names, no connections. The script stays.
  void reset();

  std::map<std::string, Service> services;
  std::vector<Failure> failures;
  double failureRate = 0;
  bool endpointsExhausted = false;
  PeerTraits peer;
  /// Every connection's ends, so that what only refers to itself stays reachable.
  std::set<const ipc::Connection::State*> ends;

 private:
  void run();
  void wake();
  bool step();

  bool running_ = false;
  std::deque<std::function<void()>> tasks_;
  std::deque<std::weak_ptr<ipc::Connection::State>> hangUps_;
  std::vector<std::weak_ptr<ipc::Connection::State>> readable_;
};

/// Marks the calling thread as one that runs a handler which must not block.
class MustNotBlock {
 public:
  explicit MustNotBlock(std::string_view what) : thread_(*Scheduler::currentThread()) { thread_.mustNotBlock = what; }
  ~MustNotBlock() { thread_.mustNotBlock = {}; }
  MustNotBlock(const MustNotBlock&) = delete;
  MustNotBlock& operator=(const MustNotBlock&) = delete;

 private:
  SimulatedThread& thread_;
};

}  // namespace kelvane::simulated
