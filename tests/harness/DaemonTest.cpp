// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that run the registry on the simulated platform, and clients for it.
#include "tests/harness/DaemonTest.h"

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"

namespace kelvane::test {

namespace {

std::string rule(const std::string& user, const std::vector<std::string>& granted) {
  std::string text = "<dict><key>User</key><string>" + user + "</string><key>Entitlements</key><array>";
  for (const std::string& entitlement : granted) {
    text += "<string>" + entitlement + "</string>";
  }
  return text + "</array></dict>";
}

}  // namespace

std::string plist(const std::string& contents) {
  return "<plist version=\"1.0\">" + contents + "</plist>";
}

void writeEntitlements(Simulation& simulation) {
  using namespace entitlements;
  simulation.files().write(
      "/etc/kelvane/entitlements.d/test.plist",
      plist("<array>" +
            rule("root", {entitlements::client, service, purgeable, itemizedPurgeable, entitlements::purge}) +
            rule("client", {entitlements::client, purgeable, itemizedPurgeable, entitlements::purge}) +
            rule("itemizing", {entitlements::client, itemizedPurgeable}) +
            rule("querying", {entitlements::client, purgeable}) +
            rule("purging", {entitlements::client, entitlements::purge}) + rule("partial", {entitlements::client}) +
            "</array>"));
}

TestClient::TestClient() : connection_(ipc::Connection::toService(names::daemon)) {
  connection_.setRemoteInterface(KelvaneClientProtocol::interface);
  connection_.resume();
}

std::shared_ptr<Answer> TestClient::send(const ipc::Operation& operation, ipc::Arguments arguments) const {
  const auto answer = std::make_shared<Answer>();
  connection_.remoteProxy([answer](const std::optional<ipc::CallError>&) { answer->failed = true; })
      .call(operation, std::move(arguments), [answer](const Value& value) {
        answer->value = value;
        answer->arrived = true;
      });
  return answer;
}

std::shared_ptr<Answer> TestClient::checkIn(const std::string& identifier, const ipc::Endpoint& endpoint,
                                            const Value& info) const {
  return send(KelvaneClientProtocol::clientCheckin, {Value(identifier), endpoint, info});
}

std::variant<Value, ipc::CallError> TestClient::checkInOutcome(const std::string& identifier,
                                                               const ipc::Endpoint& endpoint, const Value& info) const {
  return outcome(KelvaneClientProtocol::clientCheckin, {Value(identifier), endpoint, info});
}

std::variant<Value, ipc::CallError> TestClient::outcome(const ipc::Operation& operation,
                                                        ipc::Arguments arguments) const {
  const Semaphore arrived(0);
  std::variant<Value, ipc::CallError> result = ipc::CallError{"the connection failed"};
  connection_.remoteProxy([arrived](const std::optional<ipc::CallError>&) { arrived.signal(); })
      .callForOutcome(operation, std::move(arguments),
                      [&, arrived](const std::variant<Value, ipc::CallError>& outcome) {
                        result = outcome;
                        arrived.signal();
                      });
  arrived.wait();
  return result;
}

Value TestClient::answer(const ipc::Operation& operation, ipc::Arguments arguments) const {
  const auto result = outcome(operation, std::move(arguments));
  return std::holds_alternative<Value>(result) ? std::get<Value>(result) : Value();
}

Value TestClient::purge(const Value& info) const {
  return answer(KelvaneClientProtocol::clientPurge, {info});
}

Value TestClient::purgeableSpace(const Value& info) const {
  return answer(KelvaneClientProtocol::clientPurgeableSpace, {info});
}

Value TestClient::itemizedPurgeableSpace(const Value& info) const {
  return answer(KelvaneClientProtocol::clientItemizedPurgeableSpace, {info});
}

std::optional<std::string> TestClient::setState(const std::string& key, const Value& value) const {
  const auto result = outcome(KelvaneClientProtocol::clientSetState, {value, Value(key)});
  const auto* error = std::get_if<ipc::CallError>(&result);
  return error != nullptr ? std::optional(error->text) : std::nullopt;
}

Value TestClient::state(const std::string& key) const {
  return answer(KelvaneClientProtocol::clientGetState, {Value(key)});
}

void DaemonTest::runDaemon(const std::function<void()>& body, std::uint64_t seed) {
  run(
      [&] {
        writeEntitlements(*simulation);
        prepare();
        kelvane = Kelvane::init();
        body();
        simulation->settle();
        kelvane.reset();
      },
      seed);
}

TestClient DaemonTest::clientOf(const std::string& user) {
  const simulated::ActingAs process({.uid = 1000, .user = user});
  return TestClient();
}

void DaemonTest::checkIn(const TestClient& client, const ScriptedService& service, Value::Dictionary info) {
  const auto answer = client.checkIn(service.identifier(), service.endpoint(), info);
  simulation->settle();
  ASSERT_TRUE(answer->arrived) << service.identifier() << " was not checked in";
}

void DaemonTest::describe(const std::string& file, const std::string& dictionaryXml) {
  simulation->files().write(file, plist("<dict>" + dictionaryXml + "</dict>"));
}

std::shared_ptr<KLService> DaemonTest::recordOf(const std::string& identifier) const {
  const auto services = kelvane->copyServices();
  const auto found = services->find(identifier);
  return found != services->end() ? found->second : nullptr;
}

}  // namespace kelvane::test
