// SPDX-License-Identifier: Apache-2.0
// A deterministic world for tests.
#include "platform/simulated/Simulation.h"

#include <memory>
#include <vector>

#include "platform/simulated/IpcNetwork.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

namespace simulated {

namespace {

World* currentWorld = nullptr;

World& newWorld(std::uint64_t seed) {
  if (currentWorld != nullptr) {
    fail("two simulations at a time");
  }
  static auto& worlds = *new std::vector<std::unique_ptr<World>>;
  worlds.push_back(std::make_unique<World>(seed));
  currentWorld = worlds.back().get();
  return *currentWorld;
}

}  // namespace

Scheduler& scheduler() {
  Scheduler* scheduler = Scheduler::current();
  if (scheduler == nullptr) {
    fail("the platform was called outside Simulation::run");
  }
  return *scheduler;
}

bool dropsCall() {
  return Scheduler::currentThread() == nullptr && (currentWorld == nullptr || currentWorld->scheduler.hasRun());
}

World& world() {
  if (currentWorld == nullptr) {
    fail("the platform was called without a Simulation");
  }
  return *currentWorld;
}

World* worldIfAny() {
  return currentWorld;
}

}  // namespace simulated

Simulation::Simulation(std::uint64_t seed) : world_(simulated::newWorld(seed)), start_(world_.scheduler.now()) {}

Simulation::~Simulation() {
  simulated::currentWorld = nullptr;
}

void Simulation::run(const std::function<void()>& body) {
  if (world_.scheduler.hasRun()) {
    world_.ipc.network().reset();
    world_.preferences.loseMemory();
    world_.process.restart();
  }
  world_.scheduler.run(body);
}

void Simulation::settle() {
  simulated::scheduler().settle();
}

void Simulation::advance(std::chrono::nanoseconds time) {
  simulated::Scheduler& scheduler = simulated::scheduler();
  const std::uint64_t deadline = scheduler.deadlineIn(time.count());
  simulated::WaitList nobody;
  while (scheduler.now() < deadline) {
    scheduler.wait(nobody, "time to pass", {}, deadline);
  }
}

std::chrono::nanoseconds Simulation::elapsed() const {
  return std::chrono::nanoseconds(world_.scheduler.now() - start_);
}

void Simulation::setDate(Date date) {
  world_.clock.setDate(date, world_.scheduler.now());
}

std::uint64_t Simulation::traceHash() const {
  return world_.scheduler.traceHash();
}

std::uint64_t Simulation::decisions() const {
  return world_.scheduler.decisions();
}

simulated::Random& Simulation::faults() {
  return world_.faults;
}
simulated::Random& Simulation::load() {
  return world_.load;
}
simulated::Clock& Simulation::clock() {
  return world_.clock;
}
simulated::Files& Simulation::files() {
  return world_.files;
}
simulated::Ipc& Simulation::ipc() {
  return world_.ipc;
}
simulated::Log& Simulation::log() {
  return world_.log;
}
simulated::Preferences& Simulation::preferences() {
  return world_.preferences;
}
simulated::Process& Simulation::process() {
  return world_.process;
}
simulated::Statistics& Simulation::statistics() {
  return world_.statistics;
}
simulated::Volumes& Simulation::volumes() {
  return world_.volumes;
}

}  // namespace kelvane
