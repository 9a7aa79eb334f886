// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that run operations on the simulated platform.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "operations/SharedRegistry.h"
#include "platform/simulated/Simulation.h"
#include "tests/harness/PrintValue.h"
#include "tests/harness/ScriptedService.h"

namespace kelvane::test {

/// A registry with nothing but its queues, and a state store in memory.
class PlainRegistry : public SharedRegistry {
 public:
  PlainRegistry() { setSharedKelvane(this); }
  ~PlainRegistry() override { setSharedKelvane(nullptr); }

  StateObject clientGetStateSync(const Value& key) override;
  void clientSetStateSync(const StateObject& value, const std::string& key) override;

  void handOverState() override { handOvers.push_back(changes.size()); }

  /// What is stored. A record there is nobody else's.
  std::map<std::string, StateObject> state;
  /// The keys that were set, in order; those that were removed with a '-' before them.
  std::vector<std::string> changes;
  /// How many keys had been set at each time that the state was handed over.
  std::vector<std::size_t> handOvers;
};

/// Sets up the log so that tracing is written too.
void logEverything(Simulation& simulation);

/// The tick clock's factor as start-up sets it.
void readTimebase();

/// A simulated machine with one volume of 1,000 available bytes, and a plain registry.
class OperationTest : public testing::Test {
 protected:
  static constexpr char volume[] = "/data";
  static constexpr std::uint64_t availableAtFirst = 1000;

  /// Runs body as the first thread of the simulation of this seed; 0 is the plain order.
  void run(const std::function<void()>& body, std::uint64_t seed = 0);

  /// What a service does that really frees what it says.
  ScriptedService::Handler frees(std::uint64_t bytes);
  /// The same with whatever it is asked for.
  ScriptedService::Handler freesWhatIsAsked();

  simulated::Log& log() { return simulation->log(); }
  double secondsSince(std::uint64_t startTicks) const;

  std::unique_ptr<Simulation> simulation;
  PlainRegistry* registry = nullptr;
};

}  // namespace kelvane::test
