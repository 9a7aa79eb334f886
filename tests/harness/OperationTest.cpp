// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that run operations on the simulated platform.
#include "tests/harness/OperationTest.h"

#include "platform/Clock.h"
#include "protocols/Keys.h"
#include "support/KelvaneLog.h"
#include "support/Timebase.h"

namespace kelvane::test {

namespace {

/// A record that changes without the original.
StateObject copied(const StateObject& object) {
  const auto* record = std::get_if<std::shared_ptr<KelvaneRecentInfo>>(&object);
  return record != nullptr && *record ? std::make_shared<KelvaneRecentInfo>(**record) : object;
}

}  // namespace

StateObject PlainRegistry::clientGetStateSync(const Value& key) {
  defaults_queue().assertCurrent();
  const auto found = state.find(*key.string());
  return found != state.end() ? copied(found->second) : StateObject();
}

void PlainRegistry::clientSetStateSync(const StateObject& value, const std::string& key) {
  defaults_queue().assertCurrent();
  if (value == StateObject(Value())) {
    state.erase(key);
    changes.push_back("-" + key);
  } else {
    state[key] = copied(value);
    changes.push_back(key);
  }
}

void logEverything(Simulation& simulation) {
  simulation.files().write("/etc/kelvane/log.plist",
                           "<plist><dict><key>Threshold</key><integer>5</integer></dict></plist>");
  configureLog();
}

void readTimebase() {
  const auto timebase = clock::timebase();
  gTimebaseConversion =
      timebase ? static_cast<double>(timebase->numerator) / static_cast<double>(timebase->denominator) : 0.0;
}

void OperationTest::run(const std::function<void()>& body, std::uint64_t seed) {
  simulation.reset();
  simulation = std::make_unique<Simulation>(seed);
  simulation->volumes().add(volume, availableAtFirst);
  simulation->run([&] {
    logEverything(*simulation);
    readTimebase();
    PlainRegistry plain;
    registry = &plain;
    body();
    simulation->settle();
  });
}

ScriptedService::Handler OperationTest::frees(std::uint64_t bytes) {
  return [this, bytes](const ScriptedService::Request& request) {
    simulation->volumes().give(volume, bytes);
    request.reply.send(Value::Dictionary{{keys::amount, bytes}});
  };
}

ScriptedService::Handler OperationTest::freesWhatIsAsked() {
  return [this](const ScriptedService::Request& request) {
    simulation->volumes().give(volume, request.info[keys::amount].uint64Value());
    request.reply.send(Value::Dictionary{{keys::amount, request.info[keys::amount]}});
  };
}

double OperationTest::secondsSince(std::uint64_t startTicks) const {
  return nanosecondsSince(startTicks) / nanosecondsPerSecond;
}

}  // namespace kelvane::test
