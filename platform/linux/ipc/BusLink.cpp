// SPDX-License-Identifier: Apache-2.0
// One connected socket that speaks D-Bus.
#include "platform/linux/ipc/BusLink.h"

#include <poll.h>
#include <sys/socket.h>

#include "platform/Limits.h"

namespace kelvane::ipc {

namespace {

constexpr std::uint32_t hangUpEvents = EPOLLHUP | EPOLLRDHUP | EPOLLERR;
/// How many reads and writes one connection gets in a turn before the others have theirs.
constexpr int stepsPerTurn = 64;
/// The library asks for 8 MiB, which nobody would count; what it does not fit waits where it is counted.
constexpr int socketSendBytes = 128 * 1024;
/// About how long an answer is that the library gives by itself.
constexpr std::size_t ownAnswerBytes = 256;
/// What messages are from; peers do not look at it.
constexpr char senderName[] = ":1.0";

bool hasHungUp(int socket) {
  pollfd state{.fd = socket, .events = POLLRDHUP, .revents = 0};
  return poll(&state, 1, 0) != 0;
}

/// A bus object that owns the socket; null when something is refused.
sd_bus* makeBus(FileDescriptor& socket, BusLink::Role role) {
  sd_bus* bus = nullptr;
  sd_id128_t id;
  if (sd_bus_new(&bus) < 0) {
    return nullptr;
  }
  const bool isServer = role == BusLink::Role::Server;
  if (sd_bus_negotiate_fds(bus, 1) < 0 || (isServer && sd_id128_randomize(&id) < 0) ||
      (isServer && sd_bus_set_server(bus, 1, id) < 0) || (isServer && sd_bus_set_sender(bus, senderName) < 0) ||
      sd_bus_set_fd(bus, socket.get(), socket.get()) < 0) {
    sd_bus_unref(bus);
    return nullptr;
  }
  [[maybe_unused]] const int owned = socket.release();
  return bus;
}

}  // namespace

bool BusLink::open(FileDescriptor socket, Role role) {
  const int fd = socket.get();
  bus_ = makeBus(socket, role);
  if (bus_ == nullptr) {
    return false;
  }
  socket_ = fd;
  events_ = EPOLLIN | EPOLLRDHUP;
  if (!loop_.watch(fd, events_, *this) || sd_bus_start(bus_) < 0 ||
      sd_bus_add_filter(bus_, nullptr, receive, this) < 0) {
    destroy();
    return false;
  }
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &socketSendBytes, sizeof socketSendBytes);
  meter_.start(fd);
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
  processing_ = true;
  const bool goesOn = process(events);
  processing_ = false;
  if (closing_) {
    destroy();
  } else if (goesOn) {
    countUnsent();
  } else {
    owner_.linkEnded();
  }
}

/// Reads and writes what can be; false when the connection has failed, everything before that being read.
bool BusLink::process(std::uint32_t events) {
  for (int step = 0; !closing_; ++step) {
    // The library reads whenever it is given a turn; so while that has to wait, it only gets one to write.
    if (paused_ && !hungUp_ && (step > 0 || (events & EPOLLOUT) == 0)) {
      break;
    }
    if (step == stepsPerTurn) {
      loop_.runAgain(*this);
      break;
    }
    const int result = sd_bus_process(bus_, nullptr);
    if (result < 0 || sd_bus_is_open(bus_) <= 0) {
      return false;
    }
    if (!ready_ && sd_bus_is_ready(bus_) > 0) {
      ready_ = true;
      stopHandshakeTimer();
      meter_.mark();
      owner_.linkOpened();
    }
    if (result == 0) {
      break;
    }
  }
  countPart();
  return true;
}

int BusLink::receive(sd_bus_message* message, void* link, sd_bus_error*) {
  auto& self = *static_cast<BusLink*>(link);
  const std::size_t bytes = self.meter_.sinceMark();
  self.meter_.mark();
  return self.closing_ || self.owner_.linkReceived(message, bytes) ? 1 : 0;
}

void BusLink::countPart() {
  if (closing_ || !ready_) {
    return;
  }
  const std::size_t part = meter_.sinceMark();
  if (part != 0 || inPart_) {
    inPart_ = part != 0;
    owner_.linkReceivedPart(part);
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
  unsent_.push_back(bytes);
  unsentBytes_ += bytes;
  if (!processing_) {
    countUnsent();
  }
  return cookie;
}

void BusLink::countUnsent() {
  std::uint64_t queued = 0;
  sd_bus_get_n_queued_write(bus_, &queued);
  const bool wereUnsent = !unsent_.empty();
  while (unsent_.size() > queued) {
    unsentBytes_ -= unsent_.front();
    unsent_.pop_front();
  }
  // The library answers a few calls by itself.
  while (unsent_.size() < queued) {
    unsent_.push_back(ownAnswerBytes);
    unsentBytes_ += ownAnswerBytes;
  }
  refreshEvents();
  if (wereUnsent || !unsent_.empty()) {
    owner_.linkUnsent(unsentBytes_);
  }
}

void BusLink::refreshEvents() {
  const int wanted = sd_bus_get_events(bus_);
  std::uint32_t events = EPOLLRDHUP;
  events |= wanted >= 0 && (wanted & POLLOUT) != 0 ? EPOLLOUT : 0U;
  events |= paused_ ? 0U : EPOLLIN;
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
  sd_bus_close_unref(bus_);
  bus_ = nullptr;
}

}  // namespace kelvane::ipc
