// SPDX-License-Identifier: Apache-2.0
// A service's life: how it is found, and how it ends.
#include "support/KelvaneService.h"

#include <utility>

#include "platform/Ipc.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "support/ServiceCheckin.h"
#include "support/ServiceRequests.h"

namespace kelvane {

KelvaneService::KelvaneService(KelvaneServiceConfiguration configuration)
    : configuration_(std::move(configuration)),
      requests_(std::make_shared<ServiceRequests>(*this, configuration_.identifier)),
      stopped_(0),
      checkin_(
          configuration_.manner == KelvaneServiceConfiguration::Manner::Checkin
              ? std::make_unique<ServiceCheckin>(
                    configuration_, [requests = requests_](const ipc::Request& request) { requests->handle(request); })
              : nullptr) {}

KelvaneService::~KelvaneService() = default;

std::optional<std::string> KelvaneService::run() {
  std::optional<std::string> error;
  if (checkin_) {
    checkin_->run();
  } else {
    const ipc::Listener listener =
        ipc::Listener::named(configuration_.identifier, KelvaneServiceProtocol::interface,
                             [requests = requests_](const ipc::Request& request) { requests->handle(request); });
    listener.setAdmission([user = configuration_.daemonUser](const ipc::Peer& peer) { return peer.isUser(user); });
    error = listener.resume();
    if (!error) {
      stopped_.wait();
    }
  }
  requests_->refuse();
  requests_->awaitEnd();
  return error;
}

void KelvaneService::stop() {
  requests_->refuse();
  if (checkin_) {
    checkin_->stop();
  }
  stopped_.signal();
}

std::optional<std::uint64_t> KelvaneService::purgeable(const SpaceRequest&, const Cancellation&) {
  return std::nullopt;
}

std::uint64_t KelvaneService::purge(const SpaceRequest&, const Cancellation&) {
  return 0;
}

std::uint64_t KelvaneService::periodic(const SpaceRequest&, const Cancellation&) {
  return 0;
}

void KelvaneService::cancelPurge() {}

void KelvaneService::notify(const std::string&, const Value&) {}

Value KelvaneService::callback(const Value&) {
  return {};
}

}  // namespace kelvane
