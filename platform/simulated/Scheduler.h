// SPDX-License-Identifier: Apache-2.0
// Decides which simulated thread runs, and moves virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/simulated/Random.h"
#include "platform/simulated/Worker.h"

namespace kelvane::simulated {

class WaitList;

/// Stops the process with a message: a simulation that cannot go on is a failed test.
[[noreturn]] void fail(const std::string& message);

/// A thread as the scheduler sees it. It has a real thread from its first turn to its end. Owned by the
/// scheduler; touched only by the holder of the baton.
struct SimulatedThread {
  std::uint64_t id = 0;
  std::string name;
  std::function<void()> function;
  Baton* baton = nullptr;

  enum class State { Runnable, Running, Waiting } state = State::Runnable;
  std::string_view waitsFor;        ///< "semaphore", for the dump
  std::string_view waitsForObject;  ///< a queue's label, or empty
  WaitList* waitList = nullptr;
  std::optional<std::pair<std::uint64_t, std::uint64_t>> timer;  ///< deadline and order of waiting
  bool woken = false;

  /// The queues whose items the thread is in, the innermost last.
  std::vector<const void*> queues;
  /// As whom the thread connects, when that is not the default peer; see Ipc.
  std::shared_ptr<const void> identity;
  /// What the thread runs that must not block; empty when it may.
  std::string_view mustNotBlock;
};

/// The threads that wait for one thing. It must outlive their waits.
class WaitList {
 private:
  friend class Scheduler;
  std::vector<SimulatedThread*> threads_;
};

/// Runs real threads one at a time. At each scheduling point a seeded stream chooses who goes on; with seed
/// 0 a thread goes on until it waits and threads run in the order they became runnable. When all threads
/// wait, virtual time jumps to the next deadline; the threads that it wakes are runnable beside all that the
/// first of them may wake, so a deadline that ties with a signal can go either way.
///
/// All functions but the static ones are called by the holder of the baton.
class Scheduler {
 public:
  explicit Scheduler(std::uint64_t seed) : fifo_(seed == 0), random_(seed, Random::Stream::Schedule) {}

  /// Runs body as the first thread and returns when it does. All others are abandoned where they are.
  void run(const std::function<void()>& body);
  bool hasRun() const { return hasRun_; }

  /// The calling thread and its scheduler; null outside a run.
  static SimulatedThread* currentThread();
  static Scheduler* current();

  /// Registers a new thread. No scheduling point, so destructors may call it.
  void start(std::string name, std::function<void()> function);
  /// A scheduling point.
  void yield();
  /// Waits to be woken through the list; false when the deadline, in nanoseconds, came first. Whoever waits
  /// for a condition tests it again afterwards: all who wait are woken at once.
  bool wait(WaitList& list, std::string_view what, std::string_view object,
            std::optional<std::uint64_t> deadline = std::nullopt);
  /// No scheduling point.
  void wakeAll(WaitList& list);
  /// Waits until every other thread waits. No time passes.
  void settle();

  /// Virtual time in nanoseconds.
  std::uint64_t now() const { return now_; }
  /// The deadline that lies this many nanoseconds ahead; the greatest one when it would overflow.
  std::uint64_t deadlineIn(std::int64_t nanoseconds) const;
  /// A choice of the schedule's stream from 0 to count - 1; 0 with seed 0.
  std::size_t choose(std::size_t count);

  /// A digest of every decision so far, and how many there were.
  std::uint64_t traceHash() const { return traceHash_; }
  std::uint64_t decisions() const { return decisions_; }

  /// Runs the thread assigned to a worker, and those that follow it there.
  static void runAssigned(Worker& worker);

 private:
  void makeRunnable(SimulatedThread& thread);
  SimulatedThread& next();
  void giveUpBaton(SimulatedThread& self);
  SimulatedThread* finish(SimulatedThread& self, Worker& worker);
  [[noreturn]] void reportDeadlock() const;

  /// A point in time to start from that is not 0, as on a machine that has been up for a while.
  std::uint64_t now_ = 1'000'000'000'000;
  const bool fifo_;
  bool hasRun_ = false;
  Random random_;
  std::uint64_t traceHash_ = 0;
  std::uint64_t decisions_ = 0;
  std::uint64_t lastThread_ = 0;
  std::uint64_t waits_ = 0;
  std::map<std::uint64_t, std::unique_ptr<SimulatedThread>> threads_;
  std::vector<std::unique_ptr<SimulatedThread>> abandoned_;
  std::vector<SimulatedThread*> runnable_;
  std::vector<SimulatedThread*> settling_;
  std::map<std::pair<std::uint64_t, std::uint64_t>, SimulatedThread*> timers_;
};

}  // namespace kelvane::simulated
