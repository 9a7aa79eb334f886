// SPDX-License-Identifier: Apache-2.0
// One connected socket that speaks D-Bus.
#include "platform/linux/ipc/BusLink.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "platform/Limits.h"
#include "platform/linux/ipc/MessageHeader.h"

namespace kelvane::ipc {

namespace {

constexpr std::uint32_t hangUpEvents = EPOLLHUP | EPOLLRDHUP | EPOLLERR;
/// How many messages of one connection, and about how many bytes of them, are taken in a turn before the others have
/// theirs.
constexpr int messagesPerTurn = 64;
constexpr std::size_t bytesPerTurn = std::size_t{256} * 1024;
/// What is read at once while it is not known how long a message is; so much may wait while reading is paused.
constexpr std::size_t readBytes = std::size_t{8} * 1024;
/// A turn of the library reads part of a line and sends what is to be answered; so many are always enough.
constexpr int turnsPerLine = 64;
/// Longer than any message that the library takes.
constexpr std::size_t longestMessage = std::size_t{128} * 1024 * 1024;
/// The library asks for 8 MiB, which nobody would count; what it does not fit waits where it is counted.
constexpr int socketSendBytes = 128 * 1024;

bool hasHungUp(int socket) {
  pollfd state{.fd = socket, .events = POLLRDHUP, .revents = 0};
  return poll(&state, 1, 0) != 0;
}

/// As the kernel counts them: with what it needs itself.
std::size_t setSendBuffer(int socket, int bytes) {
  socklen_t size = sizeof bytes;
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, size);
  return getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, &size) == 0 ? static_cast<std::size_t>(bytes) : SIZE_MAX;
}

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

bool BusLink::open(FileDescriptor socket, const Handshake& handshake, bool takesDescriptors) {
  const int fd = socket.get();
  bus_ = handshake.begin(library_.end(), std::move(socket), takesDescriptors);
  // A start that fails has closed the socket, whose number another thread may be given; so it is watched only after.
  if (bus_ == nullptr) {
    return false;
  }
  handshake_.emplace(handshake);
  socket_ = fd;
  events_ = EPOLLIN | EPOLLRDHUP;
  if (!loop_.watch(fd, events_, *this) || sd_bus_add_filter(bus_, nullptr, receive, this) < 0) {
    destroy();
    return false;
  }
  sendBufferBytes_ = setSendBuffer(fd, socketSendBytes);
  input_.start(fd, takesDescriptors);
  startHandshakeTimer();
  loop_.runAgain(*this);
  return true;
}

void BusLink::close() {
  if (processing_) {
    closing_ = true;
  } else if (bus_ != nullptr) {
    destroy();
  }
}

void BusLink::ready(std::uint32_t events) {
  hungUp_ = hungUp_ || (events & hangUpEvents) != 0;
  moves_ += (events & EPOLLOUT) != 0 ? 1 : 0;
  processing_ = true;
  const bool goesOn = process(events);
  processing_ = false;
  if (closing_) {
    destroy();
  } else if (goesOn) {
    countUnsent((events & EPOLLOUT) != 0 && std::exchange(awaitsRoom_, false));
  } else {
    owner_.linkEnded();
  }
}

/// Reads and writes what can be; false when the connection has failed, everything before that being taken.
bool BusLink::process(std::uint32_t events) {
  // A write has failed, perhaps to a peer that has not hung up and only reads no more.
  if (sd_bus_is_open(bus_) <= 0) {
    return false;
  }
  if ((handshake_ || (events & EPOLLOUT) != 0) && !runLibrary(handshake_ ? 2 : turnsPerLine)) {
    return false;
  }
  int messages = 0;
  std::size_t bytes = 0;
  bool mayRead = true;
  while (!closing_ && (!paused_ || hungUp_)) {
    if (messages == messagesPerTurn || bytes >= bytesPerTurn) {
      loop_.runAgain(*this);
      break;
    }
    const std::size_t before = input_.waiting().size();
    const Step step = handshake_ ? takeLine() : takeMessage();
    if (step == Step::Failed) {
      return false;
    }
    if (step == Step::Taken) {
      ++messages;
    } else if (!mayRead || isWriting()) {
      break;
    } else if (const auto arrival = input_.read(wantedBytes()); arrival == PeerInput::Arrival::Bytes) {
      // A peer that has hung up sends nothing more, and its end is to be seen now.
      mayRead = !input_.isExhausted() || hungUp_;
      bytes += input_.waiting().size() - before;
    } else if (arrival == PeerInput::Arrival::Nothing) {
      break;
    } else {
      return false;
    }
  }
  countPart();
  return true;
}

/// Lets the library write; false when it has failed.
bool BusLink::runLibrary(int turns) {
  for (; turns > 0 && !closing_; --turns) {
    const int result = sd_bus_process(bus_, nullptr);
    if (result < 0 || sd_bus_is_open(bus_) <= 0) {
      return false;
    }
    if (handshake_ && sd_bus_is_ready(bus_) > 0) {
      handshake_.reset();
      stopHandshakeTimer();
      owner_.linkOpened();
    }
    if (result == 0) {
      break;
    }
  }
  return true;
}

/// Whether the handshake waits for the peer to read: the library takes the last line only then.
bool BusLink::isWriting() const {
  const int events = handshake_ ? sd_bus_get_events(bus_) : 0;
  return events > 0 && (events & POLLOUT) != 0;
}

/// One line of the handshake.
BusLink::Step BusLink::takeLine() {
  std::string line;
  const Handshake::Arrival arrival = isWriting() ? Handshake::Arrival::Incomplete : handshake_->takeLine(input_, line);
  if (arrival != Handshake::Arrival::Line) {
    return arrival == Handshake::Arrival::Incomplete ? Step::Incomplete : Step::Failed;
  }
  if (library_.put(bytesOf(line)) != line.size() || !runLibrary(turnsPerLine) || !library_.isEmpty()) {
    library_.drain();
    return Step::Failed;
  }
  return Step::Taken;
}

/// One message.
BusLink::Step BusLink::takeMessage() {
  const auto waiting = input_.waiting();
  if (waiting.size() < messageHeaderBytes) {
    return Step::Incomplete;
  }
  const auto length = messageLength(waiting);
  if (!length || *length > longestMessage) {
    return Step::Failed;
  }
  if (waiting.size() < *length) {
    return Step::Incomplete;
  }
  tellPart(0);
  if (closing_) {
    return Step::Failed;
  }
  descriptor_ = input_.takeDescriptor(*length);
  if (descriptor_ && !hideDescriptor(waiting.first(*length))) {
    return Step::Failed;
  }
  messageBytes_ = *length;
  if (!giveMessage(waiting.first(*length))) {
    library_.drain();
    descriptor_ = FileDescriptor();
    // A malformed message is passed over.
    if (sd_bus_is_open(bus_) <= 0) {
      return Step::Failed;
    }
  }
  input_.drop(*length);
  return Step::Taken;
}

/// Has the library make a message of these bytes; false when it makes none.
bool BusLink::giveMessage(std::span<const std::uint8_t> bytes) {
  received_ = false;
  for (int result = 1; result > 0 && !received_;) {
    if (!bytes.empty()) {
      bytes = bytes.subspan(library_.put(bytes));
    }
    result = sd_bus_process(bus_, nullptr);
  }
  // A bus object that has failed tells so with a message of its own.
  return received_ && sd_bus_is_open(bus_) > 0;
}

int BusLink::receive(sd_bus_message* message, void* link, sd_bus_error*) {
  auto& self = *static_cast<BusLink*>(link);
  self.received_ = true;
  FileDescriptor descriptor = std::move(self.descriptor_);
  if (!self.closing_) {
    self.owner_.linkReceived(message, self.messageBytes_, std::move(descriptor));
  }
  // The library would answer by itself, at any length.
  return 1;
}

/// How much to read at once: of a long message the rest, and nothing of the next.
std::size_t BusLink::wantedBytes() const {
  const std::size_t size = input_.waiting().size();
  if (handshake_ || size < messageHeaderBytes) {
    return readBytes;
  }
  const auto length = messageLength(input_.waiting());
  return length && *length > size ? std::max(readBytes, *length - size) : readBytes;
}

/// Messages that are complete wait for a turn, and an incomplete one while reading is paused is not the peer's doing.
void BusLink::countPart() {
  if (closing_ || handshake_) {
    return;
  }
  const std::size_t size = input_.waiting().size();
  const auto length = size < messageHeaderBytes ? std::nullopt : messageLength(input_.waiting());
  const bool isComplete = length && *length <= size;
  tellPart(isComplete || paused_ || size == 0 ? 0 : (length ? *length : size));
}

void BusLink::tellPart(std::size_t bytes) {
  if (bytes != 0 || inPart_) {
    inPart_ = bytes != 0;
    owner_.linkReceivedPart(bytes);
  }
}

std::optional<std::uint64_t> BusLink::send(sd_bus_message* message, std::size_t bytes) {
  std::uint64_t cookie = 0;
  // A failed write would make the library drop what has arrived and was not read yet.
  hungUp_ = hungUp_ || hasHungUp(socket_);
  const bool sent = !hungUp_ && bytes <= limits::unsentBytesPerConnection && sd_bus_send(bus_, message, &cookie) >= 0;
  sd_bus_message_unref(message);
  if (!sent) {
    loop_.runAgain(*this);
    return std::nullopt;
  }
  ++moves_;
  unsent_.push_back(bytes + limits::unsentMessageBytes);
  unsentBytes_ += unsent_.back();
  if (!processing_) {
    countUnsent(false);
  }
  return cookie;
}

bool BusLink::hasRoom() const {
  // So the kernel decides; it calls a socket writable only when much less is in it.
  return untaken() < sendBufferBytes_;
}

void BusLink::awaitRoom() {
  awaitsRoom_ = true;
  if (!processing_) {
    refreshEvents();
  }
}

std::size_t BusLink::untaken() const {
  int bytes = 0;
  return isOpen() && ioctl(socket_, SIOCOUTQ, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

void BusLink::countUnsent(bool roomCame) {
  std::uint64_t queued = 0;
  sd_bus_get_n_queued_write(bus_, &queued);
  const bool wereUnsent = !unsent_.empty();
  while (unsent_.size() > queued) {
    unsentBytes_ -= unsent_.front();
    unsent_.pop_front();
  }
  refreshEvents();
  if (roomCame || wereUnsent || !unsent_.empty()) {
    owner_.linkUnsent(unsent_.size(), unsentBytes_);
  }
}

void BusLink::refreshEvents() {
  const int wanted = sd_bus_get_events(bus_);
  std::uint32_t events = EPOLLRDHUP;
  events |= awaitsRoom_ || (wanted >= 0 && (wanted & POLLOUT) != 0) ? EPOLLOUT : 0U;
  events |= paused_ || isWriting() ? 0U : EPOLLIN;
  if (events != events_) {
    events_ = events;
    loop_.change(socket_, events, *this);
  }
}

void BusLink::pauseReading(bool paused) {
  if (paused_ != paused && isOpen()) {
    paused_ = paused;
    if (!processing_) {
      refreshEvents();
    }
    if (!paused) {
      loop_.runAgain(*this);
    }
  }
}

void BusLink::watchHangUpFirst() {
  loop_.watchHangUp(socket_, *this);
}

/// The library ends a handshake that takes too long when it is given a turn after that.
void BusLink::startHandshakeTimer() {
  std::uint64_t when = 0;
  if (sd_bus_get_timeout(bus_, &when) >= 0 && when != UINT64_MAX) {
    const auto time = EventLoop::Clock::time_point(std::chrono::microseconds(when));
    handshakeTimer_ = loop_.runAt(time, [this] {
      handshakeTimer_.reset();
      ready(0);
    });
  }
}

void BusLink::stopHandshakeTimer() {
  if (handshakeTimer_) {
    loop_.cancel(*handshakeTimer_);
    handshakeTimer_.reset();
  }
}

void BusLink::destroy() {
  stopHandshakeTimer();
  loop_.forget(socket_, *this);
  bus_ = sd_bus_close_unref(bus_);
}

}  // namespace kelvane::ipc
