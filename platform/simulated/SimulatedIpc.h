// SPDX-License-Identifier: Apache-2.0
// The IPC facility as a test scripts it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Ipc.h"

namespace kelvane::simulated {

class IpcNetwork;

/// What the system vouches for about a process.
struct PeerTraits {
  int pid = 100;
  unsigned uid = 0;
  std::string user = "root";
  std::vector<std::string> groups = {};  ///< names and numbers
  std::string executable = {};
  std::string unit = {};
  std::string label = {};
};

/// When the connection of a call breaks: before the request is delivered; once it was delivered and its
/// handler has answered (to nobody) or returned; right after the answer, which arrives.
enum class CallFailure { Before, During, After };

/// What connects whom. All connections, endpoints and listeners of a simulation are in one process; who is
/// at an end is scripted.
class Ipc {
 public:
  Ipc();
  ~Ipc();

  /// Whose the connections and listeners are that are made from now on, by threads not ActingAs another.
  void setPeer(PeerTraits peer);
  /// Has starter run, on a thread of its own, when something connects to a name that nobody listens on.
  /// Connections wait until the name is listened on.
  void onDemand(const std::string& name, std::function<void()> starter);
  /// Makes listening on this name fail with this text.
  void refuse(const std::string& name, const std::string& error);
  /// Makes listeners hand out no more endpoints.
  void setEndpointsExhausted(bool exhausted);
  bool isListening(const std::string& name) const;
  /// Connections that exist and have not ended, counted once for both ends.
  int openConnections() const;

  /// Breaks a connection: each end finds the other dead.
  void kill(const ipc::Connection& connection);
  /// Ends a listener as its process's death would: its requests, replies and connections are gone.
  void kill(const ipc::Listener& listener);
  /// Makes the next call that reaches this listener fail; more than one adds up.
  void failNextCall(const ipc::Listener& listener, CallFailure failure);
  /// Makes the next call of this operation fail, by its full name.
  void failNextCall(const std::string& operation, CallFailure failure);
  /// Makes calls fail at random with this probability, in one of the three ways.
  void setFailureRate(double probability);

  IpcNetwork& network() const { return *network_; }

 private:
  std::unique_ptr<IpcNetwork> network_;
};

/// While it lives, the thread that made it acts as this process: connections, listeners and endpoints that it
/// makes are that process's. Scopes nest; threads do not inherit them.
class ActingAs {
 public:
  explicit ActingAs(PeerTraits peer);
  ~ActingAs();
  ActingAs(const ActingAs&) = delete;
  ActingAs& operator=(const ActingAs&) = delete;

 private:
  std::shared_ptr<const void> before_;
};

}  // namespace kelvane::simulated
