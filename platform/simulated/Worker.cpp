// SPDX-License-Identifier: Apache-2.0
// The real threads that simulated threads run on, and the baton they pass.
#include "platform/simulated/Worker.h"

#include <pthread.h>
#include <unistd.h>

#include <vector>

#include "platform/simulated/Scheduler.h"

namespace kelvane::simulated {

namespace {

/// Room for the core's frames as sanitizers inflate them; only what is touched costs memory.
constexpr std::size_t stackBytes = 1024UL * 1024;

struct Pool {
  std::vector<Worker*> idle;
  pid_t process = getpid();
};

/// Never destroyed: its threads outlive every static object.
Pool& pool() {
  static Pool& instance = *new Pool;
  return instance;
}

}  // namespace

void Baton::pass() {
  const std::lock_guard lock(mutex_);
  here_ = true;
  passed_.notify_one();
}

void Baton::await() {
  std::unique_lock lock(mutex_);
  passed_.wait(lock, [this] { return here_; });
  here_ = false;
}

Worker& Worker::take() {
  std::vector<Worker*>& idle = pool().idle;
  if (!idle.empty()) {
    Worker* worker = idle.back();
    idle.pop_back();
    return *worker;
  }
  auto* worker = new Worker;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stackBytes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread = {};
  if (pthread_create(&thread, &attributes, &Worker::main, worker) != 0) {
    fail("no more threads: too many simulated threads were abandoned in this process");
  }
  pthread_attr_destroy(&attributes);
  return *worker;
}

void Worker::giveBack() {
  pool().idle.push_back(this);
}

void Worker::forgetAfterFork() {
  if (pool().process != getpid()) {
    pool().idle.clear();
    pool().process = getpid();
  }
}

void* Worker::main(void* worker) {
  auto& self = *static_cast<Worker*>(worker);
  for (;;) {
    self.baton.await();
    Scheduler::runAssigned(self);
  }
}

}  // namespace kelvane::simulated
