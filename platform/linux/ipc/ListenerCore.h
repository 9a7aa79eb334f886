// SPDX-License-Identifier: Apache-2.0
// A listener's working half, on the event loop's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_set>

#include "platform/linux/ipc/Hub.h"
#include "platform/linux/ipc/ListeningSocket.h"
#include "platform/linux/ipc/PeerState.h"

namespace kelvane::ipc {

class Channel;

/// Accepts connections, has them admitted and keeps the channels that serve them. Refuses connections over
/// the limits of Quota. Made on any thread and held by its channels; everything else is for the event
/// loop's thread.
class ListenerCore final : public std::enable_shared_from_this<ListenerCore>, private EventLoop::Source {
 public:
  using DisconnectHandler = std::function<void(const Connection&)>;

  ListenerCore(const Interface& interface, RequestHandler handler);

  const Interface& interface() const { return interface_; }
  /// Null once the listener has stopped.
  const std::shared_ptr<const RequestHandler>& handler() const { return handler_; }

  void setAdmission(Listener::Admission admission);
  void readmit();
  void setDisconnectHandler(DisconnectHandler handler);
  /// The socket is none for a listener that serves only the ends it is given.
  void start(std::optional<ListeningSocket> socket);
  /// Serves one end of a connected pair, from start() on.
  void serve(FileDescriptor end);
  /// Ends all connections without their being told to anyone, drops what was not delivered yet and lets go
  /// of the handlers.
  void stop();

  /// A connection of this listener has ended.
  void channelEnded(const std::shared_ptr<Channel>& channel, const std::shared_ptr<Connection::State>& connection);

 private:
  void ready(std::uint32_t events) override;
  void pauseAccepting();
  void consider(FileDescriptor socket);
  void serveAdmitted(FileDescriptor socket);

  Hub& hub_ = Hub::shared();
  const Interface& interface_;
  std::shared_ptr<const RequestHandler> handler_;
  std::shared_ptr<const Listener::Admission> admission_;
  /// How often all have been readmitted.
  std::uint64_t readmissions_ = 0;
  std::shared_ptr<const DisconnectHandler> disconnectHandler_;
  std::optional<ListeningSocket> socket_;
  /// Ends from before start().
  std::vector<FileDescriptor> early_;
  std::unordered_set<std::shared_ptr<Channel>> channels_;
  std::optional<EventLoop::Timer> acceptTimer_;
  bool isStarted_ = false;
  bool isStopped_ = false;
};

}  // namespace kelvane::ipc
