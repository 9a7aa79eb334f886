// SPDX-License-Identifier: Apache-2.0
// The calls of one connection that have no answer yet.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>

#include "platform/linux/ipc/BusLink.h"
#include "platform/linux/ipc/MessageCodec.h"

namespace kelvane::ipc {

/// A call and who waits for its answer. It keeps the connection and the proxy's error handler.
struct Call {
  const Interface* interface;
  const Operation* operation;
  Arguments arguments;
  Proxy::OutcomeHandler outcome;
  std::shared_ptr<const Proxy::ErrorHandler> error;
  std::shared_ptr<Connection::State> connection;
};

/// Runs the call's error handler on the global queue, after the handlers of ends that came before, and lets go of the
/// call there. Any thread.
void failCall(Call call, const CallError& error);

/// Sends calls once the handshake is over and gives their answers to those who wait, on the global queue:
/// a handler that blocks holds up no other. Owned by a channel; lives on the event loop's thread.
class Calls {
 public:
  explicit Calls(BusLink& link) : link_(link) {}

  std::size_t count() const { return waiting_.size() + sent_.size(); }
  void add(Call call);
  /// The handshake is over, or the peer has read everything: until then calls wait, whose values may be shared,
  /// which messages are not.
  void sendWaiting();
  /// A reply or a D-Bus error came from this user.
  void answer(sd_bus_message* reply, uid_t user);
  /// The connection has ended: every call fails, in the order they were made.
  void fail(const CallError& error);

  /// The limit on the reply to any call that is under way; 0 when there is none.
  std::size_t maximumReplyBytes() const { return maximumReplyBytes_; }

 private:
  bool send(Call call);
  bool maySend() const { return link_.isReady() && !link_.hasUnsent(); }

  BusLink& link_;
  std::list<Call> waiting_;
  std::map<std::uint64_t, Call> sent_;
  std::size_t maximumReplyBytes_ = 0;
  bool isSending_ = false;
};

}  // namespace kelvane::ipc
