// SPDX-License-Identifier: Apache-2.0
// What simulated connections, listeners and replies are made of.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Ipc.h"
#include "platform/common/FrozenValue.h"
#include "platform/simulated/IpcNetwork.h"

namespace kelvane {

namespace simulated {

/// What travels from one end to the other.
struct Message {
  std::uint64_t serial = 0;
  /// Null for an answer.
  const ipc::Operation* operation = nullptr;
  ipc::Arguments arguments = {};
  std::variant<Value, ipc::CallError> answer = {};
};

}  // namespace simulated

struct ipc::Endpoint::State {
  State(const std::shared_ptr<Connection::State>& end, simulated::PeerTraits by) : served(end), server(std::move(by)) {}
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  /// The end that the listener serves.
  std::weak_ptr<Connection::State> served;
  simulated::PeerTraits server;
  bool used = false;
};

struct ipc::Peer::State {
  simulated::PeerTraits traits;
};

struct ipc::Proxy::State {
  std::shared_ptr<Connection::State> connection;
  ErrorHandler errorHandler;
  Wanted wanted;

  static void call(const std::shared_ptr<State>& proxy, const Operation& operation, const Arguments& arguments,
                   OutcomeHandler outcome, std::chrono::seconds limit);
};

/// One end of a connection: the caller's, or the one that a listener serves. An end that nobody refers to
/// any more hangs up.
struct ipc::Connection::State : std::enable_shared_from_this<ipc::Connection::State> {
  enum class Phase { SettingUp, Connecting, Open, Ended };
  struct Call {
    std::shared_ptr<Proxy::State> proxy;
    const Operation* operation;
    Proxy::OutcomeHandler outcome;
    /// How long an answer is waited for; 0 is no limit. Then it is answered in any case.
    std::chrono::seconds limit{0};
  };

  State();
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  simulated::IpcNetwork& network;
  Phase phase = Phase::SettingUp;
  std::weak_ptr<State> other;
  bool otherGone = false;
  std::deque<simulated::Message> inbox;
  simulated::PeerTraits peer;
  std::function<void()> invalidationHandler;
  std::function<void()> interruptionHandler;
  /// What calls fail with once the connection has ended.
  CallError endedBy;

  // The caller's end.
  std::optional<std::string> service;
  simulated::PeerTraits self;
  const Interface* remoteInterface = nullptr;
  /// In order: what waits for the connection to open, or for answers to those that were sent.
  std::deque<simulated::Message> unsent;
  std::uint64_t lastSerial = 0;
  /// By their serials, those that are unsent too.
  std::map<std::uint64_t, Call> calls;
  /// For one of them to be answered or to fail.
  simulated::WaitList waitForAnswers;

  // The served end.
  bool served = false;
  std::weak_ptr<Listener::State> listener;
  std::shared_ptr<RequestHandler> handler;
  std::deque<std::pair<Request, std::optional<simulated::CallFailure>>> requests;
  bool delivering = false;
  int unanswered = 0;

  void send(simulated::Message message);
  /// Takes a call, which fails when it is one too many, and sends it in its turn.
  void take(simulated::Message message, Call call);
  /// Sends what may be sent by now.
  void sendUnsent();
  /// Whether the event loop may read the next message now.
  bool canRead() const;
  /// On the event loop: takes the next message.
  void readMessage();
  /// On the event loop: finds the other end dead, after reading what it sent.
  void findOtherDead();
  /// On the event loop: ends as an interruption.
  void interrupt(const CallError& error);
  /// Ends from this side; the handlers run on the event loop later.
  void invalidate();
  /// Returns when the call has been answered or has failed, or its limit is over, whereupon the connection ends.
  void awaitAnswer(std::uint64_t call, std::chrono::seconds limit);
  /// Tells the other end that this one is gone.
  void hangUp();
  /// Makes each end find the other dead.
  void breakLink();
  /// Has a call's error handler run.
  static void failCall(Call call, const CallError& error);

 private:
  bool isFull() const;
  bool isTooMuch(const simulated::Message& message) const;
  void makeRoomFor(const simulated::Message& message);
  void dropUnwanted();
  void drop(std::uint64_t serial, const char* why);
  void readRequest(simulated::Message message);
  void readAnswer(simulated::Message message);
  void endFor(const CallError& error);
  void deliver();
  /// On the event loop, after the end.
  void runEndHandlers(const std::function<void()>& handler, std::map<std::uint64_t, Call> failed);
};

struct ipc::Reply::State {
  State(std::shared_ptr<Connection::State> to, std::uint64_t of, std::optional<simulated::CallFailure> failing)
      : connection(std::move(to)), serial(of), failure(failing) {}
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  std::shared_ptr<Connection::State> connection;
  std::uint64_t serial;
  std::optional<simulated::CallFailure> failure;
  bool sent = false;

  void send(std::variant<Value, CallError> answer);
};

struct ipc::Listener::State : std::enable_shared_from_this<ipc::Listener::State> {
  explicit State(const Interface& served);
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  /// The state of a listener, which only its class can reach.
  static const std::shared_ptr<State>& of(const Listener& listener) { return listener.state_; }

  simulated::IpcNetwork& network;
  std::optional<std::string> name;
  const Interface& interface;
  std::shared_ptr<RequestHandler> handler;
  Admission admission;
  std::function<void(const Connection&)> disconnectHandler;
  bool serving = false;
  simulated::PeerTraits self;
  std::vector<std::shared_ptr<Connection::State>> accepted;

  /// The served end of a new connection.
  std::shared_ptr<Connection::State> accept(const simulated::PeerTraits& peer);
  /// On the event loop: joins a connection to this listener, if it admits it.
  void admit(const std::shared_ptr<Connection::State>& connection);
  /// On the event loop: cuts off whom it would not admit now.
  void readmit();
  /// Gives up the name and all connections, without a handler.
  void close();
};

}  // namespace kelvane
