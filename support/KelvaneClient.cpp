// SPDX-License-Identifier: Apache-2.0
// Requests to the daemon and what comes of them.
#include "support/KelvaneClient.h"

#include <memory>
#include <optional>
#include <utility>

#include "platform/Queues.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Names.h"

namespace kelvane {

namespace {

using Status = KelvaneClientResult::Status;

Status statusFor(ipc::CallError::Cause cause) {
  switch (cause) {
    case ipc::CallError::Cause::NotReached:
      return Status::NoDaemon;
    case ipc::CallError::Cause::NotAdmitted:
      return Status::NotAdmitted;
    case ipc::CallError::Cause::Lost:
    case ipc::CallError::Cause::Unanswered:
      return Status::ConnectionLost;
    case ipc::CallError::Cause::Answered:
    case ipc::CallError::Cause::NotSent:
      return Status::Failed;
  }
  return Status::Failed;
}

KelvaneClientResult resultOf(const std::optional<ipc::CallError>& error) {
  return error ? KelvaneClientResult::of(*error) : KelvaneClientResult{Status::ConnectionLost, {}, {}};
}

/// Runs a request's form with a handler and waits for what the handler is given.
template <typename Request>
KelvaneClientResult resultOfWaiting(const Request& request) {
  const auto result = std::make_shared<KelvaneClientResult>();
  const Semaphore done(0);
  request([result, done](const KelvaneClientResult& given) {
    *result = given;
    done.signal();
  });
  done.wait();
  return *result;
}

}  // namespace

KelvaneClientResult KelvaneClientResult::of(const ipc::CallError& error) {
  return {statusFor(error.cause), {}, error.text};
}

KelvaneClient::KelvaneClient() : connection_(ipc::Connection::toService(names::daemon)) {
  connection_.setRemoteInterface(KelvaneClientProtocol::interface);
}

KelvaneClient::~KelvaneClient() {
  connection_.invalidate();
}

void KelvaneClient::purge(const Value& info, Handler handler) const {
  send(KelvaneClientProtocol::clientPurge, {info}, true, std::move(handler));
}

void KelvaneClient::purgeableSpace(const Value& info, Handler handler) const {
  send(KelvaneClientProtocol::clientPurgeableSpace, {info}, true, std::move(handler));
}

void KelvaneClient::itemizedPurgeableSpace(const Value& info, Handler handler) const {
  send(KelvaneClientProtocol::clientItemizedPurgeableSpace, {info}, true, std::move(handler));
}

void KelvaneClient::cancelPurge(const Value& info, Handler handler) const {
  send(KelvaneClientProtocol::clientCancelPurge, {info}, false, std::move(handler));
}

void KelvaneClient::setState(const Value& value, const std::string& key, Handler handler) const {
  send(KelvaneClientProtocol::clientSetState, {value, Value(key)}, false, std::move(handler));
}

void KelvaneClient::getState(const std::string& key, Handler handler) const {
  send(KelvaneClientProtocol::clientGetState, {Value(key)}, false, std::move(handler));
}

KelvaneClientResult KelvaneClient::purge(const Value& info) const {
  return resultOfWaiting([&](Handler handler) { purge(info, std::move(handler)); });
}

KelvaneClientResult KelvaneClient::purgeableSpace(const Value& info) const {
  return resultOfWaiting([&](Handler handler) { purgeableSpace(info, std::move(handler)); });
}

KelvaneClientResult KelvaneClient::itemizedPurgeableSpace(const Value& info) const {
  return resultOfWaiting([&](Handler handler) { itemizedPurgeableSpace(info, std::move(handler)); });
}

KelvaneClientResult KelvaneClient::cancelPurge(const Value& info) const {
  return resultOfWaiting([&](Handler handler) { cancelPurge(info, std::move(handler)); });
}

KelvaneClientResult KelvaneClient::setState(const Value& value, const std::string& key) const {
  return resultOfWaiting([&](Handler handler) { setState(value, key, std::move(handler)); });
}

KelvaneClientResult KelvaneClient::getState(const std::string& key) const {
  return resultOfWaiting([&](Handler handler) { getState(key, std::move(handler)); });
}

void KelvaneClient::disconnect() const {
  connection_.invalidate();
}

void KelvaneClient::send(const ipc::Operation& operation, ipc::Arguments arguments, bool mayBeRefused,
                         Handler handler) const {
  // A proxy for each call, because the proxy's error handler does not tell which call failed.
  const auto shared = std::make_shared<const Handler>(std::move(handler));
  connection_.remoteProxy([shared](const std::optional<ipc::CallError>& error) { (*shared)(resultOf(error)); })
      .callForOutcome(operation, std::move(arguments),
                      [shared, mayBeRefused](const std::variant<Value, ipc::CallError>& outcome) {
                        if (const auto* error = std::get_if<ipc::CallError>(&outcome)) {
                          (*shared)(KelvaneClientResult::of(*error));
                          return;
                        }
                        const Value& value = std::get<Value>(outcome);
                        const bool refused = mayBeRefused && value.isAbsent();
                        (*shared)({refused ? Status::Refused : Status::Answered, value, {}});
                      });
  // Only now, so that the first request is told why no connection could be made.
  if (!isResumed_.exchange(true)) {
    connection_.resume();
  }
}

}  // namespace kelvane
