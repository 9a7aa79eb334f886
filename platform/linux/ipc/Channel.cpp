// SPDX-License-Identifier: Apache-2.0
// A connection's working half, on the event loop's thread.
#include "platform/linux/ipc/Channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/Limits.h"
#include "platform/linux/ipc/ConnectionState.h"
#include "platform/linux/ipc/ListenerCore.h"
#include "platform/linux/ipc/SocketAddress.h"

namespace kelvane::ipc {

namespace {

/// A service whose queue of connections is full is asked again, so often and for so long.
constexpr auto connectPause = std::chrono::milliseconds(20);
constexpr auto connectTime = std::chrono::seconds(30);
/// For the rest of a message that has begun to arrive.
constexpr auto partTime = std::chrono::seconds(30);
/// A request that is too long is answered with an error, but not at any length.
constexpr std::size_t longestMessage = 2 * limits::requestBytes;
/// So often it is looked whether a peer takes what there is for it, in the time that it may take nothing.
constexpr int looksPerStall = 5;

bool takesEndpoints(const Interface& interface) {
  return std::ranges::any_of(interface.operations, [](const Operation* operation) {
    return std::ranges::find(operation->arguments, ArgumentKind::Endpoint, &Argument::kind) !=
           operation->arguments.end();
  });
}

}  // namespace

Channel::Channel()
    : peer_(std::make_shared<Peer::State>()), link_(hub_.loop, hub_.libraryInput, *this), calls_(link_) {}

Channel::~Channel() = default;

void Channel::startClient(FileDescriptor socket, EndpointPlace place) {
  if (ended_) {
    return;
  }
  self_ = shared_from_this();
  place_ = std::move(place);
  begin(std::move(socket), Handshake::Role::Client);
}

void Channel::startServer(FileDescriptor socket, std::shared_ptr<ListenerCore> listener) {
  self_ = shared_from_this();
  user_ = peer_->user();
  requests_.emplace(*this, std::move(listener), connection_.lock());
  begin(std::move(socket), Handshake::Role::Server);
}

void Channel::connect(const std::string& path) {
  if (!ended_) {
    self_ = shared_from_this();
    tryConnect(path, EventLoop::Clock::now() + connectTime);
  }
}

void Channel::tryConnect(const std::string& path, EventLoop::Clock::time_point giveUp) {
  const auto address = SocketAddress::at(path);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  errno = address && socket ? 0 : (address ? errno : ENAMETOOLONG);
  if (errno == 0 && ::connect(socket.get(), address->get(), address->size()) == 0) {
    begin(std::move(socket), Handshake::Role::Client);
    return;
  }
  const int error = errno;
  const auto next = EventLoop::Clock::now() + connectPause;
  if (error == EAGAIN && next < giveUp) {
    startTimer(next, [this, path, giveUp] { tryConnect(path, giveUp); });
  } else {
    end(End::Interruption, std::string(SD_BUS_ERROR_NO_SERVER) + ": " + path + ": " + std::strerror(error));
  }
}

void Channel::begin(FileDescriptor socket, Handshake::Role role) {
  if (!socket) {
    end(End::Interruption, std::string(SD_BUS_ERROR_DISCONNECTED) + ": The endpoint is in use or gone");
    return;
  }
  connected_ = true;
  peer_->read(socket.get());
  // Whoever made the pair of sockets chose who is at its ends; who sent one of them did not.
  user_ = place_ ? *place_ : peer_->user();
  const bool takesDescriptors = requests_ && takesEndpoints(requests_->listener().interface());
  if (!link_.open(std::move(socket), Handshake(role, peer_->user()), takesDescriptors)) {
    end(End::Interruption, std::string(SD_BUS_ERROR_NO_MEMORY) + ": The system refuses a connection");
  } else if (role == Handshake::Role::Client) {
    link_.watchHangUpFirst();
  }
}

void Channel::call(Call call) {
  if (ended_) {
    failCall(std::move(call), endError_);
    return;
  }
  const bool isLimited = call.limit != call.limit.zero();
  if (isLimited) {
    call.deadline = EventLoop::Clock::now() + call.limit;
  }
  calls_.add(std::move(call));
  if (ended_) {
    // It was too long for a peer that does not read.
    calls_.fail(endError_);
  }
  watchForStall();
  if (isLimited) {
    watchForDeadline();
  }
}

bool Channel::send(const std::optional<OutgoingMessage>& message) {
  if (message && link_.isOpen()) {
    return link_.send(message->message, message->bytes) || link_.isEnding();
  }
  if (message) {
    sd_bus_message_unref(message->message);
  }
  return message.has_value();
}

void Channel::linkOpened() {
  opened_ = true;
  calls_.sendWaiting();
}

void Channel::linkReceived(sd_bus_message* message, std::size_t bytes, FileDescriptor descriptor) {
  const std::size_t most = maximumMessageBytes();
  if (most != 0 && bytes > most) {
    endForLimit("A message is too long");
    return;
  }
  std::uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  if (type == SD_BUS_MESSAGE_METHOD_CALL) {
    // Nothing is served to services; an answer to those who call all the same would only wait for them to read it.
    if (requests_) {
      requests_->receive(message, bytes, std::move(descriptor));
    }
  } else if (type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR) {
    calls_.answer(message, user_);
    if (deadlineTimer_) {
      watchForDeadline();
    }
  }
}

std::size_t Channel::maximumMessageBytes() const {
  return requests_ ? longestMessage : calls_.maximumReplyBytes();
}

void Channel::linkReceivedPart(std::size_t bytes) {
  const std::size_t most = maximumMessageBytes();
  if (most == 0) {
    return;
  }
  if (bytes > most) {
    endForLimit("A message is too long");
  } else if (!requests_) {
    // An answer is short, and whoever is long in sending it is not held to be at fault.
    return;
  } else if (bytes == 0 && inPart_) {
    inPart_ = false;
    stopTimer();
    hub_.quota.removePartial(user_);
  } else if (bytes != 0 && !inPart_) {
    inPart_ = hub_.quota.addPartial(user_);
    if (!inPart_) {
      endForLimit("Too many messages are incomplete");
      return;
    }
    startTimer(EventLoop::Clock::now() + partTime, [this] { endForLimit("A message stays incomplete"); });
  }
}

void Channel::linkUnsent(std::size_t messages, std::size_t bytes) {
  // What goes to a service is what others make this process send, of which one message at a time waits here.
  const bool isCounted = requests_.has_value();
  hub_.quota.removeUnsent(user_, countedUnsent_);
  const bool fits = !isCounted || (messages <= limits::unsentMessagesPerConnection &&
                                   bytes <= limits::unsentBytesPerConnection && hub_.quota.addUnsent(user_, bytes));
  countedUnsent_ = fits && isCounted ? bytes : 0;
  if (!fits) {
    endForLimit("The peer does not read");
  } else if (messages == 0) {
    calls_.sendWaiting();
    if (ended_) {
      calls_.fail(endError_);
    }
  }
}

void Channel::linkEnded() {
  end(End::Interruption, std::string(SD_BUS_ERROR_NO_REPLY) + ": Connection terminated");
}

void Channel::end(End how, const std::string& reason) {
  if (ended_) {
    return;
  }
  ended_ = true;
  endError_.text = reason;
  if (how == End::Interruption && !opened_) {
    endError_.cause = connected_ ? CallError::Cause::NotAdmitted : CallError::Cause::NotReached;
  }
  stopTimer();
  if (stallTimer_) {
    hub_.loop.cancel(*std::exchange(stallTimer_, std::nullopt));
  }
  if (deadlineTimer_) {
    hub_.loop.cancel(*std::exchange(deadlineTimer_, std::nullopt));
  }
  peer_->release();
  link_.close();
  hub_.quota.removeUnsent(user_, std::exchange(countedUnsent_, 0));
  if (std::exchange(inPart_, false)) {
    hub_.quota.removePartial(user_);
  }
  place_.reset();
  runHandlers(how);
  calls_.fail(endError_);
  if (requests_) {
    requests_->listener().channelEnded(shared_from_this(), requests_->connection());
    requests_->connectionEnded(how != End::Interruption);
    hub_.quota.removeConnection(user_);
  }
  // The link may be in the midst of telling this object something.
  hub_.loop.post([self = std::move(self_)] {});
}

/// The other end makes this one hold too much. A connection that this side opened is invalidated.
void Channel::endForLimit(const char* reason) {
  end(requests_ ? End::Interruption : End::Invalidation, std::string(SD_BUS_ERROR_LIMITS_EXCEEDED) + ": " + reason);
}

void Channel::runHandlers(End how) {
  const auto connection = connection_.lock();
  if (connection == nullptr) {
    return;
  }
  Connection::State::Handlers handlers = connection->takeHandlers();
  if (!handlers.interruption && !handlers.invalidation) {
    return;
  }
  hub_.endHandlers.run([handlers = std::move(handlers), how] {
    if (how == End::Interruption && handlers.interruption) {
      handlers.interruption();
    } else if (how == End::Invalidation && handlers.invalidation) {
      handlers.invalidation();
    }
  });
}

Stall::Look Channel::lookAtSocket() const {
  return {.moves = link_.moves(), .untaken = link_.untaken()};
}

bool Channel::isToSend() const {
  return link_.hasUnsent() || calls_.areWaiting();
}

/// What a call begins, the looks go on with.
void Channel::watchForStall() {
  const auto most = calls_.maximumStall();
  if (ended_ || most == most.zero() || !isToSend()) {
    stall_.reset();
    return;
  }
  if (!stall_) {
    stall_.emplace(most, EventLoop::Clock::now(), lookAtSocket());
  }
  if (!stallTimer_) {
    stallTimer_ = hub_.loop.runAt(EventLoop::Clock::now() + most / looksPerStall, [this] {
      stallTimer_.reset();
      lookForStall(EventLoop::Clock::now());
    });
  }
}

void Channel::lookForStall(EventLoop::Clock::time_point now) {
  if (stall_ && stall_->isTooLong(now, lookAtSocket()) && isToSend()) {
    endForLimit("The peer takes nothing off its socket");
  } else {
    watchForStall();
  }
}

void Channel::watchForDeadline() {
  const auto next = ended_ ? std::nullopt : calls_.nextDeadline();
  if (deadlineTimer_ && (!next || deadlineTimer_->first != *next)) {
    hub_.loop.cancel(*std::exchange(deadlineTimer_, std::nullopt));
  }
  if (next && !deadlineTimer_) {
    deadlineTimer_ = hub_.loop.runAt(*next, [this] {
      deadlineTimer_.reset();
      // The call may have left by itself, and the next one's time may be later.
      if (const auto due = calls_.nextDeadline(); due && *due <= EventLoop::Clock::now()) {
        endForDeadline();
      } else {
        watchForDeadline();
      }
    });
  }
}

void Channel::endForDeadline() {
  endError_.cause = CallError::Cause::Unanswered;
  end(End::Invalidation, std::string(SD_BUS_ERROR_TIMEOUT) + ": A call was not answered in time");
}

void Channel::startTimer(EventLoop::Clock::time_point when, EventLoop::Task task) {
  timer_ = hub_.loop.runAt(when, [this, task = std::move(task)] {
    timer_.reset();
    task();
  });
}

void Channel::stopTimer() {
  if (timer_) {
    hub_.loop.cancel(*timer_);
    timer_.reset();
  }
}

}  // namespace kelvane::ipc
