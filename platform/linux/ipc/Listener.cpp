// SPDX-License-Identifier: Apache-2.0
// Listeners, as their holders see them.
#include <sys/resource.h>
#include <sys/socket.h>

#include <mutex>

#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/ListenerCore.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "platform/linux/ipc/ServiceNames.h"

namespace kelvane::ipc {

namespace {

/// Anyone may connect to a named service: whom it serves is decided by admission.
constexpr mode_t serviceMode = 0666;

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

/// Stops the working half when the last holder goes.
struct Listener::State {
 public:
  /// Where to listen; none for an anonymous listener.
  struct Address {
    std::string path;
    mode_t mode;
    /// Empty for a socket that is no named service's.
    std::string serviceName;
  };

  State(std::optional<Address> address, const Interface& interface, RequestHandler handler)
      : core_(std::make_shared<ListenerCore>(interface, std::move(handler))), address_(std::move(address)) {}
  ~State() {
    post([](ListenerCore& core) { core.stop(); });
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  static Listener listener(std::shared_ptr<State> state) { return Listener(std::move(state)); }

  void post(std::function<void(ListenerCore&)> task) const {
    Hub::shared().loop.post([core = core_, task = std::move(task)] { task(*core); });
  }

  std::optional<std::string> resume() {
    static std::once_flag raised;
    std::call_once(raised, raiseDescriptorLimit);
    const std::lock_guard lock(mutex_);
    if (isResumed_) {
      return std::nullopt;
    }
    auto socket = std::make_shared<std::optional<ListeningSocket>>();
    if (address_ && address_->path.empty()) {
      return "\"" + address_->serviceName + "\" is no name of a service";
    }
    if (address_) {
      auto made = ListeningSocket::at(address_->path, address_->mode, address_->serviceName);
      if (auto* error = std::get_if<ListeningSocket::Error>(&made)) {
        return error->text;
      }
      socket->emplace(std::get<ListeningSocket>(std::move(made)));
    }
    isResumed_ = true;
    post([socket](ListenerCore& core) { core.start(std::move(*socket)); });
    return std::nullopt;
  }

 private:
  const std::shared_ptr<ListenerCore> core_;
  const std::optional<Address> address_;
  std::mutex mutex_;
  bool isResumed_ = false;  // guarded by mutex_
};

Listener Listener::named(const std::string& name, const Interface& interface, RequestHandler handler) {
  State::Address address{isServiceName(name) ? servicePath(name) : "", serviceMode, name};
  return Listener(std::make_shared<State>(std::move(address), interface, std::move(handler)));
}

Listener Listener::anonymous(const Interface& interface, RequestHandler handler) {
  return Listener(std::make_shared<State>(std::nullopt, interface, std::move(handler)));
}

Listener listenAt(std::string path, mode_t mode, const Interface& interface, RequestHandler handler) {
  Listener::State::Address address{std::move(path), mode, ""};
  return Listener::State::listener(
      std::make_shared<Listener::State>(std::move(address), interface, std::move(handler)));
}

void Listener::setAdmission(Admission admission) const {
  state_->post([admission = std::move(admission)](ListenerCore& core) { core.setAdmission(admission); });
}

void Listener::readmit() const {
  state_->post([](ListenerCore& core) { core.readmit(); });
}

void Listener::setDisconnectHandler(std::function<void(const Connection&)> handler) const {
  state_->post([handler = std::move(handler)](ListenerCore& core) { core.setDisconnectHandler(handler); });
}

std::optional<std::string> Listener::resume() const {
  return state_->resume();
}

std::optional<Endpoint> Listener::endpoint() const {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) < 0) {
    return std::nullopt;
  }
  auto served = std::make_shared<FileDescriptor>(ends[1]);
  state_->post([served](ListenerCore& core) { core.serve(std::move(*served)); });
  return Endpoint(std::make_shared<Endpoint::State>(FileDescriptor(ends[0])));
}

}  // namespace kelvane::ipc
