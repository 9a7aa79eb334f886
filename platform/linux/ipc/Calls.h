// SPDX-License-Identifier: Apache-2.0
// The calls of one connection that have no answer yet.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>

#include "platform/linux/ipc/BusLink.h"
#include "platform/linux/ipc/MessageCodec.h"
#include "platform/linux/ipc/SharedCalls.h"

namespace kelvane::ipc {

/// A call and who waits for its answer. It keeps the connection and the proxy's error handler.
struct Call {
  const Interface* interface;
  const Operation* operation;
  Arguments arguments;
  Proxy::OutcomeHandler outcome;
  std::shared_ptr<const Proxy::ErrorHandler> error;
  Proxy::Wanted wanted;
  std::shared_ptr<Connection::State> connection;
  /// How long an answer is waited for; 0 is no limit. Then it is answered in any case.
  std::chrono::seconds limit{0};
  /// When that is over, once its channel has taken the call.
  std::optional<EventLoop::Clock::time_point> deadline = std::nullopt;
  /// In place of the arguments, of an operation whose calls wait beyond the limit. For the event loop's thread.
  std::shared_ptr<const SharedCall> shared = nullptr;
};

/// Runs the call's error handler on the global queue, after the handlers of ends that came before, gives a call with a
/// limit its answer, and lets go of the call there. Any thread.
void failCall(Call call, const CallError& error);

/// Sends calls once the handshake is over and gives their answers to those who wait, on the global queue:
/// a handler that blocks holds up no other. All calls are sent in the order they were made, and never more than the
/// interface allows to be outstanding. Owned by a channel; lives on the event loop's thread.
class Calls {
 public:
  explicit Calls(BusLink& link) : link_(link) {}

  /// Takes a call, which fails when it is one too many.
  void add(Call call);
  /// The handshake is over, or the peer has read everything: until then calls wait, whose values may be shared,
  /// which messages are not.
  void sendWaiting();
  /// A reply or a D-Bus error came from this user.
  void answer(sd_bus_message* reply, uid_t user);
  /// The connection has ended: every call fails.
  void fail(const CallError& error);

  bool areWaiting() const { return !waiting_.empty(); }
  /// When the first call that has no answer is to have one; none when none is.
  std::optional<EventLoop::Clock::time_point> nextDeadline() const;
  /// The limit on the reply to any call that is under way; 0 when there is none.
  std::size_t maximumReplyBytes() const { return maximumReplyBytes_; }
  /// As Interface::maximumStall.
  std::chrono::seconds maximumStall() const { return maximumStall_; }

 private:
  using Waiting = std::list<Call>;

  bool isFull() const;
  void makeRoomFor(const Call& call);
  void dropUnwanted();
  void wait(Waiting::iterator place, Call call);
  Call take(Waiting::iterator call);
  bool send(Call call);
  std::optional<OutgoingMessage> messageOf(const Call& call);
  bool maySend();

  BusLink& link_;
  Waiting waiting_;
  /// Of shared calls.
  std::size_t waitingBytes_ = 0;
  std::map<std::uint64_t, Call> sent_;
  /// The last one sent, until the peer has read it.
  std::shared_ptr<const SharedCall> writing_;
  std::size_t maximumOutstanding_ = 0;
  std::size_t maximumReplyBytes_ = 0;
  std::chrono::seconds maximumStall_{0};
  bool isSending_ = false;
};

}  // namespace kelvane::ipc
