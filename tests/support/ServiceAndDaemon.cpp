// SPDX-License-Identifier: Apache-2.0
// A service made with the library and a daemon that a test scripts, in one simulation.
#include "tests/support/ServiceAndDaemon.h"

#include <memory>
#include <utility>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"

namespace kelvane::test {

void TestedService::start() {
  globalQueue::async([this] {
    error_ = run();
    ended_ = true;
  });
}

std::optional<std::uint64_t> TestedService::purgeable(const SpaceRequest& request, const Cancellation& cancellation) {
  return onPurgeable ? onPurgeable(request, cancellation) : KelvaneService::purgeable(request, cancellation);
}

std::uint64_t TestedService::purge(const SpaceRequest& request, const Cancellation& cancellation) {
  return onPurge ? onPurge(request, cancellation) : KelvaneService::purge(request, cancellation);
}

std::uint64_t TestedService::periodic(const SpaceRequest& request, const Cancellation& cancellation) {
  return onPeriodic ? onPeriodic(request, cancellation) : KelvaneService::periodic(request, cancellation);
}

void TestedService::cancelPurge() {
  if (onCancelPurge) {
    onCancelPurge();
  }
}

void TestedService::notify(const std::string& name, const Value& value) {
  if (onNotify) {
    onNotify(name, value);
  }
}

Value TestedService::callback(const Value& info) {
  return onCallback ? onCallback(info) : KelvaneService::callback(info);
}

void ScriptedDaemon::launch() {
  listener_ = ipc::Listener::named(names::daemon, KelvaneClientProtocol::interface,
                                   [this](const ipc::Request& request) { checkIn(request); });
  static_cast<void>(listener_->resume());
}

void ScriptedDaemon::die() {
  simulation_.ipc().kill(*listener_);
  listener_.reset();
  for (const ipc::Connection& service : std::exchange(services_, {})) {
    simulation_.ipc().kill(service);
  }
}

void ScriptedDaemon::checkIn(const ipc::Request& request) {
  checkins.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(simulation_.elapsed()));
  identifiers.push_back(*request.value(0).string());
  infos.push_back(request.value(2));
  const Value dictionary = Value::Dictionary{{keys::id, identifiers.back()}, {keys::anonymous, true}};
  switch (answer) {
    case Answer::Accept: {
      const ipc::Connection connection = ipc::Connection::toEndpoint(request.endpoint(1));
      connection.setRemoteInterface(KelvaneServiceProtocol::interface);
      connection.resume();
      services_.push_back(connection);
      const Semaphore pong(0);
      connection.remoteProxy([](const auto&) {}).call(KelvaneServiceProtocol::servicePing, {}, [pong](const Value&) {
        pong.signal();
      });
      pong.wait();
      ++pongs;
      request.reply.send(dictionary);
      ++answered;
      break;
    }
    case Answer::Describe:
      request.reply.send();
      break;
    case Answer::Silence:
      break;
    case Answer::Ignore:
      request.reply.send(dictionary);
      break;
    case Answer::Error:
      request.reply.sendError("org.freedesktop.DBus.Error.LimitsExceeded", "too many endpoints");
      break;
  }
}

std::shared_ptr<ScriptedDaemon::Outcome> ScriptedDaemon::call(const ipc::Operation& operation,
                                                              ipc::Arguments arguments) const {
  const auto outcome = std::make_shared<Outcome>();
  service().remoteProxy([](const auto&) {}).call(operation, std::move(arguments), [outcome](const Value& value) {
    outcome->isAnswered = true;
    outcome->value = value;
  });
  return outcome;
}

ipc::Arguments spaceArguments(int urgency, std::uint64_t amount) {
  return {Value(urgency), Value(Value::Dictionary{{keys::volume, "/data"}, {keys::amount, amount}})};
}

}  // namespace kelvane::test
