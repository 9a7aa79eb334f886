// SPDX-License-Identifier: Apache-2.0
// The requests of one connection that a listener admitted.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/linux/ipc/DeliveryGate.h"
#include "platform/linux/ipc/MessageCodec.h"

namespace kelvane::ipc {

class Channel;
class ListenerCore;

/// Takes calls in, has them delivered one after the other on the global queue and sends their answers.
///
/// A request is under way until its handler has returned and its reply was sent or dropped; until then it
/// counts for its kind and its user. At most limits::unansweredRequestsPerConnection have no answer before
/// the socket is left unread. Requests outlive their connection: what was received is delivered.
/// Owned by a channel; lives on the event loop's thread.
class Requests final : private DeliveryGate::Waiter {
 public:
  Requests(Channel& channel, std::shared_ptr<ListenerCore> listener, std::shared_ptr<Connection::State> connection);
  Requests(const Requests&) = delete;
  Requests& operator=(const Requests&) = delete;

  ListenerCore& listener() { return *listener_; }
  const std::shared_ptr<Connection::State>& connection() const { return connection_; }

  /// A method call came, with this descriptor if with any.
  void receive(sd_bus_message* call, std::size_t bytes, FileDescriptor descriptor);

  void handlerReturned(std::uint64_t request);
  void reply(std::uint64_t request, const Value& value);
  void replyWithError(std::uint64_t request, const CallFault& fault);
  void replyDropped(std::uint64_t request);

  /// The connection has ended. What was not delivered yet is dropped, if so wished.
  void connectionEnded(bool drop);

 private:
  struct Record {
    const Operation* operation;
    Arguments arguments;
    std::uint64_t cookie;
    std::size_t cost;
    bool expectsReply;
    bool isAnswered = false;
    bool hasReturned = false;
  };

  void admitted() override;
  void refuse(sd_bus_message* call, const CallFault& fault);
  void take(sd_bus_message* call, const Operation& operation, DecodedArguments decoded);
  void deliverSoon();
  void deliverNext();
  void deliver();
  void finish(std::uint64_t request);
  uid_t user() const;
  void releaseWhenDone();

  Channel& channel_;
  std::shared_ptr<ListenerCore> listener_;
  std::shared_ptr<Connection::State> connection_;
  std::map<std::uint64_t, Record> records_;
  /// Numbers of the request received last and of the one to deliver next.
  std::uint64_t last_ = 0;
  std::uint64_t next_ = 1;
  int unanswered_ = 0;
  bool delivering_ = false;
  bool waiting_ = false;
  bool scheduled_ = false;
};

}  // namespace kelvane::ipc
