// SPDX-License-Identifier: Apache-2.0
// The requests of one connection that a listener admitted.
#include "platform/linux/ipc/Requests.h"

#include <string_view>

#include "platform/linux/ipc/Channel.h"
#include "platform/linux/ipc/ListenerCore.h"
#include "platform/linux/ipc/ReplyState.h"
#include "platform/linux/ipc/StandardInterfaces.h"

namespace kelvane::ipc {

namespace {

std::string_view textOf(const char* text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
}

std::uint64_t cookieOf(sd_bus_message* call) {
  std::uint64_t cookie = 0;
  sd_bus_message_get_cookie(call, &cookie);
  return cookie;
}

/// The operation that a call is of, or what is wrong with it.
std::variant<const Operation*, CallFault> operationOf(sd_bus_message* call, const Interface& interface) {
  const std::string_view path = textOf(sd_bus_message_get_path(call));
  const std::string_view name = textOf(sd_bus_message_get_interface(call));
  const std::string_view member = textOf(sd_bus_message_get_member(call));
  if (path != interface.objectPath) {
    return CallFault{SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object " + std::string(path)};
  }
  // A call need not name its interface.
  if (name != interface.name && !name.empty()) {
    return CallFault{SD_BUS_ERROR_UNKNOWN_INTERFACE, "Unknown interface " + std::string(name)};
  }
  if (const Operation* operation = interface.operationForMember(member)) {
    return operation;
  }
  return CallFault{SD_BUS_ERROR_UNKNOWN_METHOD,
                   "Unknown method " + std::string(member) + " of interface " + std::string(interface.name)};
}

}  // namespace

Requests::Requests(Channel& channel, std::shared_ptr<ListenerCore> listener,
                   std::shared_ptr<Connection::State> connection)
    : channel_(channel), listener_(std::move(listener)), connection_(std::move(connection)) {}

uid_t Requests::user() const {
  return channel_.user();
}

void Requests::receive(sd_bus_message* call, std::size_t bytes, FileDescriptor descriptor) {
  const Interface& interface = listener_->interface();
  if (const auto answer = answerStandardCall(call, interface)) {
    const CallFault* fault = std::get_if<CallFault>(&*answer);
    if (fault != nullptr) {
      refuse(call, *fault);
    } else {
      channel_.send(std::get<OutgoingMessage>(*answer));
    }
    return;
  }
  const auto operation = operationOf(call, interface);
  if (const auto* fault = std::get_if<CallFault>(&operation)) {
    refuse(call, *fault);
    return;
  }
  if (bytes > limits::requestBytes) {
    refuse(call, {SD_BUS_ERROR_LIMITS_EXCEEDED, "A request of " + std::to_string(bytes) + " bytes is longer than " +
                                                    std::to_string(limits::requestBytes)});
    return;
  }
  const Operation& known = *std::get<const Operation*>(operation);
  auto decoded = decodeArguments(call, known, std::move(descriptor), user(), Hub::shared().quota.holdable(user()));
  if (const auto* fault = std::get_if<CallFault>(&decoded)) {
    refuse(call, *fault);
  } else {
    take(call, known, std::get<DecodedArguments>(std::move(decoded)));
  }
}

void Requests::refuse(sd_bus_message* call, const CallFault& fault) {
  if (sd_bus_message_get_expect_reply(call) > 0) {
    channel_.send(makeError(channel_.link().bus(), cookieOf(call), fault));
  }
}

void Requests::take(sd_bus_message* call, const Operation& operation, DecodedArguments decoded) {
  if (!Hub::shared().quota.hold(user(), decoded.cost)) {
    refuse(call, {SD_BUS_ERROR_LIMITS_EXCEEDED, "The requests of this user take too much memory"});
    return;
  }
  records_.emplace(++last_, Record{.operation = &operation,
                                   .arguments = std::move(decoded.arguments),
                                   .cookie = cookieOf(call),
                                   .cost = decoded.cost,
                                   .expectsReply = sd_bus_message_get_expect_reply(call) > 0});
  ++unanswered_;
  channel_.link().pauseReading(unanswered_ >= limits::unansweredRequestsPerConnection);
  deliverSoon();
}

void Requests::deliverSoon() {
  if (!scheduled_) {
    scheduled_ = true;
    Hub::shared().loop.afterReading([channel = channel_.shared_from_this()] { channel->requests()->deliverNext(); });
  }
}

void Requests::deliverNext() {
  scheduled_ = false;
  if (delivering_ || waiting_ || next_ > last_) {
    return;
  }
  if (Hub::shared().gate.enter(*records_.at(next_).operation, user(), *this)) {
    deliver();
  } else {
    waiting_ = true;
  }
}

void Requests::admitted() {
  waiting_ = false;
  deliver();
}

void Requests::deliver() {
  delivering_ = true;
  const std::uint64_t number = next_++;
  Record& record = records_.at(number);
  auto channel = channel_.shared_from_this();
  if (listener_->handler() == nullptr) {
    Hub::shared().loop.post([channel, number] {
      channel->requests()->replyDropped(number);
      channel->requests()->handlerReturned(number);
    });
    return;
  }
  auto request =
      std::make_shared<Request>(Request{*record.operation, std::exchange(record.arguments, {}), Connection(connection_),
                                        Reply(std::make_shared<Reply::State>(channel, number))});
  // After the handlers of connections that were found to have ended before the request was read.
  Hub::shared().endHandlers.runAfter([handler = listener_->handler(), request = std::move(request), channel, number] {
    (*handler)(std::move(*request));
    Hub::shared().loop.post([channel, number] { channel->requests()->handlerReturned(number); });
  });
}

void Requests::handlerReturned(std::uint64_t request) {
  delivering_ = false;
  records_.at(request).hasReturned = true;
  if (next_ <= last_) {
    deliverSoon();
  }
  finish(request);
}

void Requests::reply(std::uint64_t request, const Value& value) {
  const Record& record = records_.at(request);
  if (record.expectsReply && channel_.link().isOpen() &&
      !channel_.send(makeReply(channel_.link().bus(), record.cookie, *record.operation, value))) {
    replyWithError(request, {SD_BUS_ERROR_LIMITS_EXCEEDED, "The answer is too long"});
    return;
  }
  replyDropped(request);
}

void Requests::replyWithError(std::uint64_t request, const CallFault& fault) {
  const Record& record = records_.at(request);
  if (record.expectsReply && channel_.link().isOpen()) {
    channel_.send(makeError(channel_.link().bus(), record.cookie, fault));
  }
  replyDropped(request);
}

void Requests::replyDropped(std::uint64_t request) {
  records_.at(request).isAnswered = true;
  --unanswered_;
  channel_.link().pauseReading(unanswered_ >= limits::unansweredRequestsPerConnection);
  finish(request);
}

void Requests::finish(std::uint64_t request) {
  const auto found = records_.find(request);
  const Record& record = found->second;
  if (!record.hasReturned || !record.isAnswered) {
    return;
  }
  const Operation& operation = *record.operation;
  Hub::shared().quota.release(user(), record.cost);
  records_.erase(found);
  releaseWhenDone();
  // Last, for it may be this connection's next request that is let through.
  Hub::shared().gate.leave(operation, user());
}

void Requests::connectionEnded(bool drop) {
  if (drop) {
    if (waiting_) {
      waiting_ = false;
      Hub::shared().gate.withdraw(*records_.at(next_).operation, user(), *this);
    }
    for (; next_ <= last_; ++next_) {
      Hub::shared().quota.release(user(), records_.at(next_).cost);
      records_.erase(next_);
    }
  }
  releaseWhenDone();
}

/// The connection's holders hold the channel too.
void Requests::releaseWhenDone() {
  if (channel_.hasEnded() && records_.empty()) {
    connection_.reset();
  }
}

}  // namespace kelvane::ipc
