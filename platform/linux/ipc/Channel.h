// SPDX-License-Identifier: Apache-2.0
// A connection's working half, on the event loop's thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/linux/ipc/BusLink.h"
#include "platform/linux/ipc/Calls.h"
#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/Hub.h"
#include "platform/linux/ipc/PeerState.h"
#include "platform/linux/ipc/Requests.h"
#include "platform/linux/ipc/Stall.h"

namespace kelvane::ipc {

class ListenerCore;

/// Joins the link of one connection with the calls that go out on it and, for a connection that a listener
/// admitted, the requests that come in. Lives from start() until the connection has ended and its last
/// request is done with, and as long as anyone refers to it.
///
/// It is made and referred to on any thread; everything else is for the event loop's.
class Channel final : public std::enable_shared_from_this<Channel>, private BusLink::Owner {
 public:
  enum class End {
    Interruption,  ///< the peer's doing, or a connection that could not be made
    Invalidation,  ///< this side's
    Release,       ///< nobody refers to the connection any more: no handler runs
  };

  Channel();
  ~Channel();

  /// Any thread.
  const std::shared_ptr<Peer::State>& peer() const { return peer_; }

  /// Once, before anything else: the connection whose handlers to run.
  void belongTo(std::weak_ptr<Connection::State> connection) { connection_ = std::move(connection); }

  /// Works on a connected socket, as the D-Bus client.
  void startClient(FileDescriptor socket, EndpointPlace place);
  /// As startClient, at the socket of this path, and without waiting for the other end.
  void connect(const std::string& path);
  /// Works on a connected socket as a listener's D-Bus server. The user's quota has room for it.
  void startServer(FileDescriptor socket, std::shared_ptr<ListenerCore> listener);

  void call(Call call);
  /// Ends the connection if, at this time, its peer has taken nothing off its socket for too long.
  void lookForStall(EventLoop::Clock::time_point now);
  void end(End how, const std::string& reason);
  bool hasEnded() const { return ended_; }

  BusLink& link() { return link_; }
  Requests* requests() { return requests_ ? &*requests_ : nullptr; }
  /// Sends a message if the connection still can; false when there is none or it is too long.
  bool send(const std::optional<OutgoingMessage>& message);
  /// Whose quota this connection counts against.
  uid_t user() const { return user_; }

 private:
  void linkOpened() override;
  void linkReceived(sd_bus_message* message, std::size_t bytes, FileDescriptor descriptor) override;
  void linkReceivedPart(std::size_t bytes) override;
  void linkUnsent(std::size_t messages, std::size_t bytes) override;
  void linkEnded() override;

  void tryConnect(const std::string& path, EventLoop::Clock::time_point giveUp);
  void begin(FileDescriptor socket, Handshake::Role role);
  void endForLimit(const char* reason);
  void runHandlers(End how);
  std::size_t maximumMessageBytes() const;
  void startTimer(EventLoop::Clock::time_point when, EventLoop::Task task);
  void stopTimer();
  void watchForStall();
  void watchForDeadline();
  void endForDeadline();
  Stall::Look lookAtSocket() const;
  bool isToSend() const;

  Hub& hub_ = Hub::shared();
  const std::shared_ptr<Peer::State> peer_;
  uid_t user_ = Peer::State::nobody;
  BusLink link_;
  Calls calls_;
  std::optional<Requests> requests_;
  std::weak_ptr<Connection::State> connection_;
  EndpointPlace place_;
  std::size_t countedUnsent_ = 0;
  /// For the next attempt to connect, then for the rest of a message.
  std::optional<EventLoop::Timer> timer_;
  /// While something waits to be sent, and for the next look.
  std::optional<Stall> stall_;
  std::optional<EventLoop::Timer> stallTimer_;
  /// For the first call that is to be answered by some time.
  std::optional<EventLoop::Timer> deadlineTimer_;
  CallError endError_;
  bool ended_ = false;
  /// Whether the socket was connected, and whether the handshake over it was completed.
  bool connected_ = false;
  bool opened_ = false;
  bool inPart_ = false;
  /// While the connection lasts.
  std::shared_ptr<Channel> self_;
};

}  // namespace kelvane::ipc
