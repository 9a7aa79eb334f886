// SPDX-License-Identifier: Apache-2.0
// A service whose answers a test scripts.
#include "tests/harness/ScriptedService.h"

#include <algorithm>

#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"

namespace kelvane::test {

namespace {

void givesWhatIsAsked(const ScriptedService::Request& request) {
  request.reply.send(Value::Dictionary{{keys::amount, request.info[keys::amount]}});
}

void answersNothing(const ScriptedService::Request& request) {
  request.reply.send();
}

}  // namespace

ScriptedService::ScriptedService(std::string identifier)
    : onPurge(givesWhatIsAsked),
      onPeriodic(givesWhatIsAsked),
      onPurgeable(givesWhatIsAsked),
      onNotify(answersNothing),
      onCancel(answersNothing),
      onPing(answersNothing),
      identifier_(std::move(identifier)) {
  listener_ = ipc::Listener::anonymous(KelvaneServiceProtocol::interface,
                                       [this](const ipc::Request& request) { handle(request); });
  static_cast<void>(listener_->resume());
}

void ScriptedService::listenByName() {
  listener_ = ipc::Listener::named(identifier_, KelvaneServiceProtocol::interface,
                                   [this](const ipc::Request& request) { handle(request); });
  static_cast<void>(listener_->resume());
}

std::shared_ptr<KLService> ScriptedService::record() const {
  const auto record = std::make_shared<KLService>(identifier_);
  record->setDoesPurge(true);
  const ipc::Connection connection = ipc::Connection::toEndpoint(endpoint());
  connection.setRemoteInterface(KelvaneServiceProtocol::interface);
  connection.resume();
  record->setVexConn(connection);
  return record;
}

std::size_t ScriptedService::count(const std::string& call) const {
  const std::vector<std::string> all = calls();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), call));
}

std::vector<std::string> ScriptedService::calls() const {
  const std::scoped_lock lock(mutex_);
  return calls_;
}

std::vector<Value> ScriptedService::infos() const {
  const std::scoped_lock lock(mutex_);
  return infos_;
}

void ScriptedService::handle(const ipc::Request& request) {
  namespace protocol = KelvaneServiceProtocol;
  const ipc::Operation* operation = &request.operation;
  Request scripted = {0, {}, request.reply, request.connection};
  std::string call(operation->member);
  if (operation->arguments.size() == 2) {
    scripted.urgency = request.value(0).int32Value();
    scripted.info = request.value(1);
    call += " " + std::to_string(scripted.urgency);
  } else if (operation->arguments.size() == 1) {
    scripted.info = request.value(0);
  }
  {
    const std::scoped_lock lock(mutex_);
    calls_.push_back(call);
    if (!scripted.info.isAbsent()) {
      infos_.push_back(scripted.info);
    }
  }
  const std::pair<const ipc::Operation*, const Handler&> handlers[] = {
      {&protocol::servicePurge, onPurge},         {&protocol::servicePeriodic, onPeriodic},
      {&protocol::servicePurgeable, onPurgeable}, {&protocol::serviceNotify, onNotify},
      {&protocol::serviceCancelPurge, onCancel},  {&protocol::servicePing, onPing},
  };
  for (const auto& [candidate, handler] : handlers) {
    if (candidate == operation) {
      handler(scripted);
    }
  }
}

ScriptedService::Handler ScriptedService::gives(Value bytes) {
  return [bytes = std::move(bytes)](const Request& request) {
    request.reply.send(Value::Dictionary{{keys::amount, bytes}});
  };
}

ScriptedService::Handler ScriptedService::silence() {
  return [](const Request&) {};
}

ScriptedService::Handler ScriptedService::dies() {
  return [](const Request& request) { request.connection.invalidate(); };
}

ServiceTable tableOf(const std::vector<std::shared_ptr<KLService>>& records) {
  ServiceTable table;
  for (const auto& record : records) {
    table[record->ID()] = record;
  }
  return table;
}

}  // namespace kelvane::test
