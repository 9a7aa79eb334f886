// SPDX-License-Identifier: Apache-2.0
// Inter-process calls: listeners that serve an interface and connections that call one.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/IpcInterface.h"
#include "platform/Value.h"

namespace kelvane::ipc {

/// One end of a connected pair, on whose other end a service serves. A copy refers to the same end; the end
/// is closed with its last reference unless a connection was made of it.
class Endpoint {
 public:
  struct State;
  explicit Endpoint(std::shared_ptr<State> state) : state_(std::move(state)) {}
  const std::shared_ptr<State>& state() const { return state_; }

 private:
  std::shared_ptr<State> state_;
};

/// The process at the other end of a connection, as the system vouches for it at the time it connected.
/// Names that the system does not know match nobody. Any thread may ask; asking may read files.
class Peer {
 public:
  struct State;
  explicit Peer(std::shared_ptr<State> state) : state_(std::move(state)) {}

  /// By name or decimal number.
  bool isUser(std::string_view user) const;
  bool isInGroup(std::string_view group) const;
  /// Whether the process runs the file at path, compared by device and inode.
  bool runsExecutable(const std::string& path) const;
  /// Whether the process belongs to this unit of the service manager.
  bool runsInUnit(std::string_view unit) const;
  bool hasSecurityLabel(std::string_view label) const;
  /// The number of its user. What the system knows nothing of has the greatest number, which no user has.
  std::uint32_t userNumber() const;
  /// For log lines: "pid 123, uid 0".
  std::string description() const;

 private:
  std::shared_ptr<State> state_;
};

/// A call's arguments in the order of its operation: a value for each argument but the endpoint. Values cross a
/// connection as they are at the moment of the call or the answer; no live view does.
using Arguments = std::vector<std::variant<Value, Endpoint>>;

/// Answers one request. A copy refers to the same answer; the first send wins, later ones do nothing.
/// When the last copy goes without an answer, the caller is sent nothing. Any thread may call it.
class Reply {
 public:
  struct State;
  explicit Reply(std::shared_ptr<State> state) : state_(std::move(state)) {}

  /// Absent for "none", and for operations that are answered with nothing.
  void send(const Value& value = {}) const;
  /// A D-Bus error, for what cannot be delivered: a name ("org.freedesktop.DBus.Error.LimitsExceeded") and
  /// what is wrong, in words.
  void sendError(const std::string& name, const std::string& text) const;

 private:
  std::shared_ptr<State> state_;
};

/// Why a call got no answer that can be used, in words ("org.freedesktop.DBus.Error.NoReply: Connection terminated").
struct CallError {
  enum class Cause : char {
    NotReached,   ///< nobody listens, or the connection could not be made
    NotAdmitted,  ///< the connection was made and ended before its handshake was complete
    Lost,         ///< the connection ended later, or by invalidate()
    Answered,     ///< by the peer: a D-Bus error, or a value outside the mapping
    NotSent,      ///< it was one call too many, or no longer wanted; the connection stays
    Unanswered,   ///< a call had a time limit, and its connection was ended for it
  };
  std::string text;
  Cause cause = Cause::Lost;
};

/// Sends calls to the remote end of a connection. Holds its error handler for as long as it lives, and
/// the connection with it. An outstanding call holds the proxy until one of its handlers has run.
class Proxy {
 public:
  /// Given the reply's value, absent for a reply of nothing.
  using ReplyHandler = std::function<void(Value)>;
  /// Given the reply's value, absent for a reply of nothing, or the error that came in its place.
  using OutcomeHandler = std::function<void(std::variant<Value, CallError>)>;
  /// Given what went wrong, or none.
  using ErrorHandler = std::function<void(std::optional<CallError>)>;
  /// Whether a call is still to be sent. Asked right before it is, or when another needs its place, on a thread that
  /// must not wait. Once it is not, it never is.
  using Wanted = std::function<bool()>;

  struct State;
  explicit Proxy(std::shared_ptr<State> state) : state_(std::move(state)) {}

  /// Sends a call of the connection's remote interface and returns at once. Then exactly one of the two
  /// handlers runs, once, on a thread of the IPC facility that may block: the reply handler when an answer
  /// came, the proxy's error handler when the connection failed first or the call is never sent: because too many
  /// are outstanding, or because it is not wanted any more. A D-Bus error and a value outside
  /// the mapping count as an absent reply. No time limit, unless one is given. What comes after the first answer is
  /// dropped.
  ///
  /// A call with a limit (0 is none) is always answered: when the error handler has run for it, the reply handler runs
  /// too, with an absent reply. If there is no answer within the limit, which begins at once, the connection is
  /// invalidated.
  void call(const Operation& operation, Arguments arguments, ReplyHandler reply,
            std::chrono::seconds limit = std::chrono::seconds(0)) const;
  /// As call(), for callers that tell an absent reply from a refusal: a D-Bus error and a value outside the
  /// mapping are given to the handler as what they are.
  void callForOutcome(const Operation& operation, Arguments arguments, OutcomeHandler outcome) const;

 private:
  std::shared_ptr<State> state_;
};

/// A connection to a peer: to an endpoint, to a named service, or one that a listener admitted.
///
/// A copy refers to the same connection. Set it up first, then resume() it once; calls sent before that
/// wait. It ends once: by the peer's death (or a connection that could not be made), which runs the
/// interruption handler, or by invalidate(), which runs the invalidation handler; whichever came first.
/// Replies received before the end still reach their reply handlers; the other outstanding calls run their
/// error handlers, and so does every call made afterwards. The two handlers run one at a time over all connections,
/// in the order in which the ends became known; when the peer's death becomes known, the interruption handler has run
/// before any request read later is delivered. They may write to the log, but must not wait for other work, which
/// may wait for them. No handler is ever run inline from a function of this file, and all are let go after the end.
/// A connection whose last reference goes ends without a handler.
/// Any thread may call any function, but set-up precedes resume().
class Connection {
 public:
  struct State;
  explicit Connection(std::shared_ptr<State> state) : state_(std::move(state)) {}

  static Connection toEndpoint(const Endpoint& endpoint);
  /// Nothing is connected before resume(), and never synchronously. A name that cannot be called (see
  /// isServiceName) and a service that does not listen end as an interruption.
  static Connection toService(const std::string& name);

  void setInvalidationHandler(std::function<void()> handler) const;
  void setInterruptionHandler(std::function<void()> handler) const;
  /// Must outlive the connection: one of the constant tables.
  void setRemoteInterface(const Interface& interface) const;
  /// Its calls are sent while they are wanted, always if nobody says.
  Proxy remoteProxy(Proxy::ErrorHandler handler, Proxy::Wanted wanted = nullptr) const;
  void resume() const;
  void invalidate() const;

  Peer peer() const;
  /// Whether it is known to have ended.
  bool hasEnded() const;
  /// Identity, for keeping connections in sets.
  const void* identity() const { return state_.get(); }
  const std::shared_ptr<State>& state() const { return state_; }

 private:
  std::shared_ptr<State> state_;
};

/// A request as a listener delivers it. Its arguments have the kinds that the operation declares.
struct Request {
  const Operation& operation;
  Arguments arguments;
  Connection connection;
  Reply reply;

  const Value& value(std::size_t index) const;
  const Endpoint& endpoint(std::size_t index) const;
};
using RequestHandler = std::function<void(Request)>;

/// Not empty, at most limits::serviceNameBytes, not beginning with '.', without '/' and NUL.
[[nodiscard]] bool isServiceName(std::string_view name);

/// Serves an interface: under a name, or to the holders of its endpoints.
///
/// A copy refers to the same listener; it serves for as long as a reference lives, then its connections
/// end. Each connection's requests are delivered in order, one at a time, on a thread that may block.
/// A call that does not decode is answered with a D-Bus error and not delivered.
class Listener {
 public:
  /// Decides whether a process that connects is served, before its first request is delivered, on a thread
  /// that may block.
  using Admission = std::function<bool(const Peer&)>;

  /// On the socket that the service manager passed for this name, else on one of its own.
  static Listener named(const std::string& name, const Interface& interface, RequestHandler handler);
  /// Only for the endpoints it hands out.
  static Listener anonymous(const Interface& interface, RequestHandler handler);

  void setAdmission(Admission admission) const;
  /// Has the admission decide again about everybody it has admitted, and about those it is deciding about. Whom it
  /// refuses now is cut off, and what of theirs has not been delivered never is. Returns at once.
  void readmit() const;
  /// Runs when a connection of this listener has ended, as its interruption handler would.
  void setDisconnectHandler(std::function<void(const Connection&)> handler) const;
  /// Starts serving. For a named listener, an error's text when the name cannot be listened on.
  [[nodiscard]] std::optional<std::string> resume() const;
  /// A new endpoint whose other end this listener serves; none when the system refuses it.
  [[nodiscard]] std::optional<Endpoint> endpoint() const;

  struct State;

 private:
  explicit Listener(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

}  // namespace kelvane::ipc
