// SPDX-License-Identifier: Apache-2.0
// What the holders of a connection share, whichever thread they are on.
#include "platform/linux/ipc/ConnectionState.h"

#include "platform/linux/ipc/Channel.h"

namespace kelvane::ipc {

std::shared_ptr<Connection::State> Connection::State::make(std::shared_ptr<Channel> channel, Start start) {
  auto state = std::make_shared<State>(std::move(channel), std::move(start));
  state->channel_->belongTo(state);
  return state;
}

Connection::State::State(std::shared_ptr<Channel> channel, Start start)
    : channel_(std::move(channel)), start_(std::move(start)), isStarted_(start_ == nullptr) {}

Connection::State::~State() {
  if (isStarted_) {
    post([](Channel& channel) { channel.end(Channel::End::Release, ""); });
    return;
  }
  channel_->peer()->release();
  for (Call& call : early_) {
    failCall(std::move(call), {std::string(SD_BUS_ERROR_DISCONNECTED) + ": The connection was never resumed"});
  }
}

void Connection::State::post(Start task) const {
  Hub::shared().loop.post([channel = channel_, task = std::move(task)] { task(*channel); });
}

void Connection::State::setInvalidationHandler(std::function<void()> handler) {
  const std::lock_guard lock(mutex_);
  if (!hasEnded_) {
    handlers_.invalidation = std::move(handler);
  }
}

void Connection::State::setInterruptionHandler(std::function<void()> handler) {
  const std::lock_guard lock(mutex_);
  if (!hasEnded_) {
    handlers_.interruption = std::move(handler);
  }
}

void Connection::State::setRemoteInterface(const Interface& interface) {
  const std::lock_guard lock(mutex_);
  remoteInterface_ = &interface;
}

Connection::State::Handlers Connection::State::takeHandlers() {
  const std::lock_guard lock(mutex_);
  hasEnded_ = true;
  return std::exchange(handlers_, {});
}

bool Connection::State::hasEnded() const {
  const std::lock_guard lock(mutex_);
  return hasEnded_;
}

void Connection::State::call(Call call) {
  const std::lock_guard lock(mutex_);
  call.interface = remoteInterface_;
  if (remoteInterface_ == nullptr) {
    failCall(std::move(call),
             {std::string(SD_BUS_ERROR_UNKNOWN_INTERFACE) + ": The connection has no remote interface"});
  } else if (!isStarted_) {
    early_.push_back(std::move(call));
  } else {
    postCall(std::move(call));
  }
}

void Connection::State::postCall(Call call) {
  call.connection = shared_from_this();
  // Tasks are copied; calls are not meant to be.
  post([call = std::make_shared<Call>(std::move(call))](Channel& channel) { channel.call(std::move(*call)); });
}

void Connection::State::startOnce(const Start& start) {
  if (!isStarted_) {
    isStarted_ = true;
    post(start);
    for (Call& call : std::exchange(early_, {})) {
      postCall(std::move(call));
    }
    start_ = nullptr;
  }
}

void Connection::State::resume() {
  const std::lock_guard lock(mutex_);
  startOnce(start_);
}

void Connection::State::invalidate() {
  const Start end = [](Channel& channel) {
    channel.end(Channel::End::Invalidation, std::string(SD_BUS_ERROR_DISCONNECTED) + ": Connection invalidated");
  };
  const std::lock_guard lock(mutex_);
  if (isStarted_) {
    post(end);
  } else {
    startOnce(end);
  }
}

}  // namespace kelvane::ipc
