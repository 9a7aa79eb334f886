// SPDX-License-Identifier: Apache-2.0
// A listener's working half, on the event loop's thread.
#include "platform/linux/ipc/ListenerCore.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/Queues.h"
#include "platform/linux/ipc/Channel.h"
#include "platform/linux/ipc/ConnectionState.h"
#include "platform/linux/runtime/BlockedScope.h"

namespace kelvane::ipc {

namespace {

/// Connections accepted in one turn before other descriptors have theirs.
constexpr int acceptedPerTurn = 64;
/// When the system gives none, as for want of descriptors, it is asked again after this.
constexpr auto acceptPause = std::chrono::milliseconds(100);

/// The next connection may be better than this one was.
bool isOfOneConnection(int error) {
  return error == ECONNABORTED || error == EINTR || error == EPERM || error == EPROTO;
}

}  // namespace

ListenerCore::ListenerCore(const Interface& interface, RequestHandler handler)
    : interface_(interface), handler_(std::make_shared<const RequestHandler>(std::move(handler))) {}

void ListenerCore::setAdmission(Listener::Admission admission) {
  admission_ = admission ? std::make_shared<const Listener::Admission>(std::move(admission)) : nullptr;
}

void ListenerCore::readmit() {
  ++readmissions_;
  if (admission_ == nullptr) {
    return;
  }
  globalQueue::async([self = shared_from_this(), admission = admission_,
                      channels = std::vector<std::shared_ptr<Channel>>(channels_.begin(), channels_.end())]() mutable {
    std::erase_if(channels, [&](const auto& channel) { return (*admission)(Peer(channel->peer())); });
    self->hub_.loop.post([refused = std::move(channels)] {
      for (const auto& channel : refused) {
        channel->end(Channel::End::Invalidation, "");
      }
    });
  });
}

void ListenerCore::setDisconnectHandler(DisconnectHandler handler) {
  disconnectHandler_ = handler ? std::make_shared<const DisconnectHandler>(std::move(handler)) : nullptr;
}

void ListenerCore::start(std::optional<ListeningSocket> socket) {
  isStarted_ = true;
  if (socket) {
    socket_.emplace(*std::move(socket));
    if (!hub_.loop.watch(socket_->get(), EPOLLIN, *this)) {
      pauseAccepting();
    }
  }
  for (FileDescriptor& end : std::exchange(early_, {})) {
    serve(std::move(end));
  }
}

void ListenerCore::serve(FileDescriptor end) {
  if (!isStarted_ && !isStopped_) {
    early_.push_back(std::move(end));
  } else if (!isStopped_) {
    auto peer = std::make_shared<Peer::State>();
    peer->read(end.get());
    peer->release();
    if (hub_.quota.addConnection(peer->user())) {
      serveAdmitted(std::move(end));
    }
  }
}

void ListenerCore::stop() {
  isStopped_ = true;
  early_.clear();
  // What the handlers hold may take its time to go.
  globalQueue::async([handler = std::move(handler_), admission = std::move(admission_),
                      disconnectHandler = std::move(disconnectHandler_)] {});
  if (acceptTimer_) {
    hub_.loop.cancel(*acceptTimer_);
  } else if (socket_) {
    hub_.loop.forget(socket_->get(), *this);
  }
  socket_.reset();
  for (const auto& channel : std::exchange(channels_, {})) {
    channel->end(Channel::End::Release, "");
  }
}

void ListenerCore::ready(std::uint32_t) {
  for (int accepted = 0; accepted < acceptedPerTurn; ++accepted) {
    FileDescriptor socket(accept4(socket_->get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
      consider(std::move(socket));
    } else if (errno == EAGAIN) {
      return;
    } else if (!isOfOneConnection(errno)) {
      hub_.loop.forget(socket_->get(), *this);
      pauseAccepting();
      return;
    }
  }
}

void ListenerCore::pauseAccepting() {
  acceptTimer_ = hub_.loop.runAt(EventLoop::Clock::now() + acceptPause, [this] {
    acceptTimer_.reset();
    if (!hub_.loop.watch(socket_->get(), EPOLLIN, *this)) {
      pauseAccepting();
    }
  });
}

/// Whether a process is admitted may take reading files, or asking the network who it is.
void ListenerCore::consider(FileDescriptor socket) {
  auto peer = std::make_shared<Peer::State>();
  peer->read(socket.get());
  if (!hub_.quota.addConnection(peer->user())) {
    peer->release();
    return;
  }
  if (admission_ == nullptr) {
    peer->release();
    serveAdmitted(std::move(socket));
    return;
  }
  globalQueue::async([self = shared_from_this(), admission = admission_, readmissions = readmissions_, peer,
                      socket = std::make_shared<FileDescriptor>(std::move(socket))] {
    const bool admitted = (*admission)(Peer(peer));
    peer->release();
    if (!admitted) {
      const runtime::BlockedScope blocked;
      *socket = FileDescriptor();
    }
    self->hub_.loop.post([self, admitted, readmissions, user = peer->user(), socket] {
      if (admitted && !self->isStopped_ && readmissions == self->readmissions_) {
        self->serveAdmitted(std::move(*socket));
        return;
      }
      self->hub_.quota.removeConnection(user);
      if (admitted && !self->isStopped_) {
        self->consider(std::move(*socket));
      }
    });
  });
}

void ListenerCore::serveAdmitted(FileDescriptor socket) {
  letDescriptorsThrough(socket.get(), true);
  auto channel = std::make_shared<Channel>();
  const auto connection = Connection::State::make(channel, nullptr);
  channels_.insert(channel);
  channel->startServer(std::move(socket), shared_from_this());
}

void ListenerCore::channelEnded(const std::shared_ptr<Channel>& channel,
                                const std::shared_ptr<Connection::State>& connection) {
  channels_.erase(channel);
  if (disconnectHandler_) {
    hub_.endHandlers.run([handler = disconnectHandler_, connection] { (*handler)(Connection(connection)); });
  }
}

}  // namespace kelvane::ipc
