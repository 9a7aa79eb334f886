// SPDX-License-Identifier: Apache-2.0
// What the holders of a connection share, whichever thread they are on.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "platform/linux/ipc/Calls.h"
#include "platform/linux/ipc/PeerState.h"

namespace kelvane::ipc {

class Channel;

/// Handlers and set-up of a connection whose work a channel does on the event loop's thread. When the last
/// reference goes and the connection has not ended, it is closed and neither handler runs; a call keeps a
/// reference until it is answered. Any thread may call any function.
struct Connection::State : public std::enable_shared_from_this<Connection::State> {
 public:
  /// start begins the channel's work, on the event loop's thread; empty for a connection that was admitted
  /// and works already.
  using Start = std::function<void(Channel&)>;

  static std::shared_ptr<State> make(std::shared_ptr<Channel> channel, Start start);
  State(std::shared_ptr<Channel> channel, Start start);
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void setInvalidationHandler(std::function<void()> handler);
  void setInterruptionHandler(std::function<void()> handler);
  void setRemoteInterface(const Interface& interface);
  /// Sends the call, of the remote interface, once the connection is resumed.
  void call(Call call);
  void resume();
  void invalidate();
  bool hasEnded() const;

  struct Handlers {
    std::function<void()> invalidation;
    std::function<void()> interruption;
  };
  /// For the end of the connection, after which it holds no handler any more.
  Handlers takeHandlers();

  const std::shared_ptr<Channel>& channel() const { return channel_; }

 private:
  void post(Start task) const;
  void postCall(Call call);
  void startOnce(const Start& start);

  const std::shared_ptr<Channel> channel_;
  mutable std::mutex mutex_;
  // Guarded by mutex_:
  Handlers handlers_;
  const Interface* remoteInterface_ = nullptr;
  Start start_;
  bool isStarted_ = false;
  bool hasEnded_ = false;
  /// Calls from before resume(); they do not hold the connection, which holds them.
  std::list<Call> early_;
};

}  // namespace kelvane::ipc
