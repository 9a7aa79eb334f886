// SPDX-License-Identifier: Apache-2.0
// How a client of many checks in a service and has it die.
#include <poll.h>

#include <memory>

#include "protocols/Keys.h"
#include "tests/load/Arguments.h"
#include "tests/load/LoadClient.h"

namespace kelvane::test {

namespace {

/// An own connection is cut at one call out of so many, and besides between calls.
constexpr unsigned callsToACut = 100;
constexpr int patienceMilliseconds = 240'000;

[[nodiscard]] bool isHungUpOn(const FileDescriptor& end) {
  pollfd state{.fd = end.get(), .events = 0, .revents = 0};
  return poll(&state, 1, patienceMilliseconds) == 1;
}

Requester::Check checkedIn(const std::string& identifier) {
  return Requester::equal(Value::Dictionary{{keys::id, identifier}, {keys::anonymous, true}});
}

}  // namespace

void LoadClient::checkIn() {
  if (!service_ || isCheckingIn_) {
    return;
  }
  if (!isCheckedIn_) {
    checkInAnew();
  } else if (pick(4) == 0) {
    checkInAgain();
  } else {
    die();
  }
}

void LoadClient::checkInAnew() {
  isCheckingIn_ = true;
  const FileDescriptor endpoint = service_->open();
  requester_.send("clientCheckin", checkin(service_->identifier(), endpoint.get(), CachingService::capabilities()),
                  [this, isRight = checkedIn(service_->identifier())](const Message& answer) -> std::string {
                    isCheckingIn_ = false;
                    isCheckedIn_ = true;
                    ++load_.checkins;
                    service_->mayDie(callsToACut, [this] { die(); });
                    return service_->wasPinged() ? isRight(answer) : "answered before a ping";
                  });
}

/// While its connection stands, another endpoint is not wanted. Were the connection to end before, the other one would
/// be pinged.
void LoadClient::checkInAgain() {
  service_->mayDie(0, nullptr);
  auto [unwanted, end] = socketPair();
  requester_.send("clientCheckin", checkin(service_->identifier(), unwanted.get(), CachingService::capabilities()),
                  checkedIn(service_->identifier()));
  unwanted = FileDescriptor();
  requester_.await(0);
  if (!requester_.hasFailed() && !isHungUpOn(end)) {
    requester_.fail("an endpoint that is not wanted stays open");
  }
  service_->mayDie(callsToACut, [this] { die(); });
}

void LoadClient::die() {
  {
    const std::lock_guard lock(load_.starting);
    service_->cut();
  }
  isCheckedIn_ = false;
  ++load_.cuts;
}

void LoadClient::checkInAsDescribed() {
  // Whose other end has hung up is no endpoint.
  const auto ends = std::make_shared<std::pair<FileDescriptor, FileDescriptor>>(socketPair());
  requester_.send(
      "clientCheckin", checkin(describedService, ends->first.get(), CachingService::capabilities()),
      [ends, isRight = Requester::equal(Value())](const Message& answer) -> std::string { return isRight(answer); });
}

}  // namespace kelvane::test
