// SPDX-License-Identifier: Apache-2.0
// The thread pool that runs the items of the global queue and of all serial queues.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <vector>

#include "platform/Queues.h"

namespace kelvane::runtime {

/// One thread of the pool. The pool's mutex guards it, but for what the thread itself owns.
struct Worker {
  enum class Activity {
    Idle,
    Running,
    Blocked,
    /// Kept one item for so long while others were waiting that it is taken for blocked.
    PresumedBlocked,
  };

  Activity activity = Activity::Idle;
  std::condition_variable assigned;
  std::list<Worker>::iterator position;
  /// The thread's own while it is not idle.
  Block item;
  /// The thread's own.
  int blockedScopes = 0;
  /// Threads that are about to wake this one, without the mutex: it must not end meanwhile.
  std::atomic<int> wakers = 0;
};

/// Runs items on as many threads as there are processors, not counting those that wait for something.
///
/// The invariant: while an item is waiting, there are as many running workers as processors, or the system
/// has refused a thread and the monitor will ask again. So work that blocked workers wait for is never kept
/// from running by them. Workers that end a wait can be more than the processors for a while; each then
/// goes idle after its item. An idle worker ends after a few seconds, but for one, the reserve, that is
/// used only when the system refuses a new thread.
///
/// There is one pool in a process, and it is never destroyed. Any thread may call it.
class Pool {
 public:
  static Pool& shared();
  /// Null on threads that do not belong to the pool.
  static Worker* currentWorker();

  void submit(Block item);
  /// Submits an item as the last act of another one, whose thread is then free for it.
  void submitLast(Block item);
  /// Whether some submitted item has no thread yet.
  bool itemsWait() const { return itemsWait_.load(std::memory_order_relaxed); }

  /// The calling worker is about to wait, or has stopped waiting.
  void block(Worker& worker);
  void unblock(Worker& worker);

 private:
  using Lock = std::unique_lock<std::mutex>;

  Pool();
  static void* workerMain(void* worker);
  static void* monitorMain(void* pool);

  void work(Worker& self);
  bool awaitItem(Worker& self, Lock& lock);

  void dispatch(Lock& lock);
  bool assignItem(Lock& lock, Worker*& toWake);
  bool startWorker(Lock& lock);
  void pushItem(Block item);
  void give(Worker& worker);
  static void wake(Worker* worker);
  void setActivity(Worker& worker, Worker::Activity activity);

  void watchWaitingItems();
  void monitor();
  void presumeBlocked();

  const unsigned processors_;

  std::mutex mutex_;
  // Guarded by mutex_:
  std::deque<Block> items_;
  std::list<Worker> workers_;
  std::vector<Worker*> idle_;
  Worker* reserve_ = nullptr;
  /// How many workers are Running.
  unsigned running_ = 0;
  /// How many items have been given to a worker so far.
  std::uint64_t taken_ = 0;
  /// Set when items are left waiting, cleared by the monitor when none are.
  bool watching_ = false;
  std::condition_variable watch_;

  /// Mirrors !items_.empty() for readers without the mutex.
  std::atomic<bool> itemsWait_ = false;
};

}  // namespace kelvane::runtime
