// SPDX-License-Identifier: Apache-2.0
// The real threads that simulated threads run on, and the baton they pass.
#pragma once

#include <condition_variable>
#include <mutex>

namespace kelvane::simulated {

struct SimulatedThread;

/// What a real thread waits for before it may run: at any time one thread of a simulation holds the baton.
class Baton {
 public:
  /// Lets the thread that awaits this baton run. The caller must then await its own, or finish.
  void pass();
  void await();

 private:
  std::mutex mutex_;
  std::condition_variable passed_;
  bool here_ = false;
};

/// A real thread of the process-wide pool. It runs simulated threads, one after the other, and is kept for
/// later simulations; a worker whose simulated thread was abandoned waits for good. Only the holder of the
/// baton touches the pool.
class Worker {
 public:
  /// An idle worker, or a new one.
  static Worker& take();
  /// Makes the worker idle; it may be taken again before the caller, its own thread, awaits the baton.
  void giveBack();
  /// Forgets the idle workers when they belong to another process, the one that forked this.
  static void forgetAfterFork();

  Baton baton;
  /// What to run when the baton comes.
  SimulatedThread* assigned = nullptr;

 private:
  Worker() = default;
  static void* main(void* worker);
};

}  // namespace kelvane::simulated
