// SPDX-License-Identifier: Apache-2.0
// A deterministic world for tests: virtual time, a seeded schedule and everything that the platform offers.
//
// A guide for authors of tests. A program linked with kelvane_platform_simulated runs the core against this
// world. One Simulation exists at a time; what it scripts may be set up before run(), in the body and by
// whatever the body starts, and may be read after run().
//
//     TEST(APurge, EndsAtItsTimeOut) {
//       for (std::uint64_t seed = 0; seed < 50; ++seed) {
//         SCOPED_TRACE(seed);
//         Simulation simulation(seed);
//         simulation.volumes().add("/data", 1000);
//         std::optional<Value> result;
//         simulation.run([&] {
//           Registry registry;                      // made in the body: it submits items
//           registry.purge(info, [&](Value value) { result = value; });
//           simulation.advance(std::chrono::seconds(300));
//           simulation.settle();                    // whatever follows at once has happened
//           ASSERT_TRUE(result);
//         });
//         EXPECT_TRUE(simulation.log().contains("timed out"));
//       }
//     }
//
// Threads. The body and everything submitted to queues run as simulated threads, of which one runs at a time.
// Each submission, each start of an item, each use of a semaphore or group, each sleep and each step of IPC is
// a scheduling point, where the seed decides who goes on; between two of them nothing else happens. The same
// seed gives the same run: compare traceHash() of two. With seed 0 a thread goes on until it waits and threads
// run in the order they became runnable, which makes the order of log lines plain. Other threads (std::thread)
// must not call the platform. One thread at a time also means that ThreadSanitizer finds no data race here; its
// place is the real binding. A race shows as a schedule that breaks what a test expects.
//
// Time. Virtual time stands still while any thread can run; when all wait it jumps to the next deadline.
// A deadline that comes at the same time as what would have prevented it goes either way. settle() lets all
// others run until they wait, without time passing. When all wait and no deadline is left, the process stops
// with a list of what each thread waits for. A thread that neither waits nor ends stops a run for good.
//
// The end. run() returns when the body does. Threads that have not finished are abandoned where they are, with
// what is on their stacks and what their items captured: none of it is destroyed, and each such thread stays in
// the process, waiting, until that ends. So a loop over seeds should leave few behind (thousands are too many
// for ThreadSanitizer), and objects that items refer to should not have destructors that a test relies on.
// Objects destroyed after run() may call the platform; what they submit is dropped.
//
// Another run() on the same Simulation is a restart after a crash: files, volumes, log, statistics, time and
// what preferences have on disk are as they were; connections, names, registrations and unwritten
// preferences are gone.
//
// Processes. All services and clients live in the one process. ActingAs says as whom a thread connects;
// ipc() kills and fails what a test wants dead. A service is a Listener whose endpoint is handed over or whose
// name is listened on; one that never answers keeps its Reply, or lets it go.
//
// Chance. faults() and load() give random numbers that depend on the seed and on nothing else, so that what a
// test draws changes neither the schedule nor each other.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "platform/simulated/Random.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedFiles.h"
#include "platform/simulated/SimulatedIpc.h"
#include "platform/simulated/SimulatedLog.h"
#include "platform/simulated/SimulatedPreferences.h"
#include "platform/simulated/SimulatedProcess.h"
#include "platform/simulated/SimulatedStatistics.h"
#include "platform/simulated/SimulatedVolumes.h"

namespace kelvane {

namespace simulated {
struct World;
}

class Simulation {
 public:
  /// Seed 0 is the plain order; every other gives its own.
  explicit Simulation(std::uint64_t seed = 0);
  ~Simulation();
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  /// Runs the body as a simulated thread, on the calling thread.
  void run(const std::function<void()>& body);

  /// Waits until all other threads wait. In a run.
  void settle();
  /// Sleeps, so that this much time passes. In a run.
  void advance(std::chrono::nanoseconds time);
  /// Virtual time since the simulation was made.
  std::chrono::nanoseconds elapsed() const;
  /// Sets what the settable clock shows now; it goes on with virtual time.
  void setDate(Date date);

  /// A digest of every scheduling decision so far, and their number.
  std::uint64_t traceHash() const;
  std::uint64_t decisions() const;

  simulated::Random& faults();
  simulated::Random& load();

  simulated::Clock& clock();
  simulated::Files& files();
  simulated::Ipc& ipc();
  simulated::Log& log();
  simulated::Preferences& preferences();
  simulated::Process& process();
  simulated::Statistics& statistics();
  simulated::Volumes& volumes();

 private:
  simulated::World& world_;
  const std::uint64_t start_;
};

}  // namespace kelvane
