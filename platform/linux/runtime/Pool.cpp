// SPDX-License-Identifier: Apache-2.0
// The thread pool that runs the items of the global queue and of all serial queues.
#include "platform/linux/runtime/Pool.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/linux/runtime/Thread.h"

namespace kelvane::runtime {

namespace {

using namespace std::chrono_literals;

/// How long items may wait without one being taken before running workers are presumed blocked.
constexpr auto stallTime = 5ms;
constexpr auto idleLife = 3s;
constexpr auto refusalPause = 10ms;

thread_local Worker* current = nullptr;

}  // namespace

Pool& Pool::shared() {
  static Pool& pool = *new Pool;
  return pool;
}

Worker* Pool::currentWorker() {
  return current;
}

Pool::Pool() : processors_(std::max(1U, std::thread::hardware_concurrency())) {
  while (!startThread(monitorMain, this))
    std::this_thread::sleep_for(refusalPause);
  // The first worker is made for this item, and becomes the reserve.
  submit([] {});
}

void Pool::submit(Block item) {
  Lock lock(mutex_);
  pushItem(std::move(item));
  dispatch(lock);
}

void Pool::submitLast(Block item) {
  Lock lock(mutex_);
  pushItem(std::move(item));
}

void Pool::block(Worker& worker) {
  Lock lock(mutex_);
  setActivity(worker, Worker::Activity::Blocked);
  dispatch(lock);
}

void Pool::unblock(Worker& worker) {
  const Lock lock(mutex_);
  setActivity(worker, Worker::Activity::Running);
}

void* Pool::workerMain(void* worker) {
  pthread_setname_np(pthread_self(), "kelvane-worker");
  current = static_cast<Worker*>(worker);
  shared().work(*current);
  return nullptr;
}

void Pool::work(Worker& self) {
  Lock lock(mutex_, std::defer_lock);
  for (;;) {
    self.item();
    self.item = nullptr;
    lock.lock();
    setActivity(self, Worker::Activity::Running);
    if (!items_.empty() && running_ <= processors_)
      give(self);
    else if (!awaitItem(self, lock))
      break;
    lock.unlock();
  }
  workers_.erase(self.position);
}

// False when the worker's idle life has passed instead.
bool Pool::awaitItem(Worker& self, Lock& lock) {
  const auto given = [&self] { return self.activity != Worker::Activity::Idle; };
  setActivity(self, Worker::Activity::Idle);
  watchWaitingItems();
  if (!reserve_) {
    reserve_ = &self;
    self.assigned.wait(lock, given);
    return true;
  }
  idle_.push_back(&self);
  while (!self.assigned.wait_for(lock, idleLife, given)) {
    if (self.wakers == 0) {
      std::erase(idle_, &self);
      return false;
    }
  }
  return true;
}

// Gives waiting items to workers as far as processors are free. Returns with the lock released: a worker that is woken
// under it would only wait for it, two more switches between threads.
void Pool::dispatch(Lock& lock) {
  Worker* toWake = nullptr;
  while (!items_.empty() && running_ < processors_ && assignItem(lock, toWake)) {
  }
  watchWaitingItems();
  lock.unlock();
  wake(toWake);
}

// False when the system refuses a thread and the reserve is in use. An idle worker that got the item is the one to wake
// from now on. May let go of the lock meanwhile.
bool Pool::assignItem(Lock& lock, Worker*& toWake) {
  if (idle_.empty() && startWorker(lock))
    return true;
  Worker* worker = nullptr;
  if (!idle_.empty()) {
    // The one that was idle last: its stack is warm, and the others come to their end.
    worker = idle_.back();
    idle_.pop_back();
  } else if (reserve_) {
    worker = std::exchange(reserve_, nullptr);
  } else {
    return false;
  }
  give(*worker);
  ++worker->wakers;
  wake(std::exchange(toWake, worker));
  return true;
}

void Pool::wake(Worker* worker) {
  if (worker) {
    worker->assigned.notify_one();
    --worker->wakers;
  }
}

// False, with the item back in its place, when the system refuses a thread. Lets go of the lock meanwhile.
bool Pool::startWorker(Lock& lock) {
  const auto worker = workers_.emplace(workers_.end());
  worker->position = worker;
  give(*worker);
  lock.unlock();
  const bool started = startThread(workerMain, &*worker);
  lock.lock();
  if (started)
    return true;
  items_.push_front(std::move(worker->item));
  itemsWait_.store(true, std::memory_order_relaxed);
  --taken_;
  setActivity(*worker, Worker::Activity::Idle);
  workers_.erase(worker);
  return false;
}

void Pool::pushItem(Block item) {
  items_.push_back(std::move(item));
  itemsWait_.store(true, std::memory_order_relaxed);
}

// Gives the first waiting item to the worker, which is running from now on.
void Pool::give(Worker& worker) {
  worker.item = std::move(items_.front());
  items_.pop_front();
  itemsWait_.store(!items_.empty(), std::memory_order_relaxed);
  ++taken_;
  setActivity(worker, Worker::Activity::Running);
}

void Pool::setActivity(Worker& worker, Worker::Activity activity) {
  if (worker.activity == Worker::Activity::Running)
    --running_;
  worker.activity = activity;
  if (activity == Worker::Activity::Running)
    ++running_;
}

void Pool::watchWaitingItems() {
  if (items_.empty() || watching_)
    return;
  watching_ = true;
  watch_.notify_one();
}

void* Pool::monitorMain(void* pool) {
  pthread_setname_np(pthread_self(), "kelvane-monitor");
  static_cast<Pool*>(pool)->monitor();
  return nullptr;
}

void Pool::monitor() {
  Lock lock(mutex_);
  for (;;) {
    watch_.wait(lock, [this] { return watching_; });
    while (!items_.empty()) {
      const auto taken = taken_;
      lock.unlock();
      std::this_thread::sleep_for(stallTime);
      lock.lock();
      if (taken_ == taken)
        presumeBlocked();
      dispatch(lock);
      lock.lock();
    }
    watching_ = false;
  }
}

// Makes room for one more running worker: all those running have kept their items for too long.
void Pool::presumeBlocked() {
  for (Worker& worker : workers_) {
    if (running_ < processors_)
      return;
    if (worker.activity == Worker::Activity::Running)
      setActivity(worker, Worker::Activity::PresumedBlocked);
  }
}

}  // namespace kelvane::runtime
