// SPDX-License-Identifier: Apache-2.0
// Groups and semaphores, on simulated threads.
#include <optional>
#include <utility>

#include "platform/Queues.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

using simulated::Scheduler;
using simulated::WaitList;

struct Group::State {
  int underWay = 0;
  WaitList waiting;
};

struct Semaphore::State {
  long count;
  WaitList waiting;
};

Group::Group() : state_(std::make_shared<State>()) {}

void Group::async(const SerialQueue& queue, Block item) const {
  enter();
  queue.async([group = *this, item = std::move(item)] {
    item();
    group.leave();
  });
}

void Group::asyncGlobal(Block item) const {
  enter();
  globalQueue::async([group = *this, item = std::move(item)] {
    item();
    group.leave();
  });
}

void Group::enter() const {
  ++state_->underWay;
}

void Group::leave() const {
  const std::shared_ptr<State> state = state_;
  if (!simulated::dropsCall()) {
    simulated::scheduler().yield();
  }
  if (state->underWay == 0) {
    simulated::fail("a group left more often than entered");
  }
  if (--state->underWay == 0 && !simulated::dropsCall()) {
    simulated::scheduler().wakeAll(state->waiting);
    simulated::scheduler().yield();
  }
}

void Group::wait() const {
  const std::shared_ptr<State> state = state_;
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  while (state->underWay > 0) {
    scheduler.wait(state->waiting, "group", {});
  }
}

bool Group::wait(std::chrono::nanoseconds timeout) const {
  const std::shared_ptr<State> state = state_;
  Scheduler& scheduler = simulated::scheduler();
  const std::uint64_t deadline = scheduler.deadlineIn(timeout.count());
  scheduler.yield();
  while (state->underWay > 0) {
    if (deadline <= scheduler.now() || !scheduler.wait(state->waiting, "group", {}, deadline)) {
      return false;
    }
  }
  return true;
}

Semaphore::Semaphore(long count) : state_(std::make_shared<State>(State{count, {}})) {}

void Semaphore::signal() const {
  const std::shared_ptr<State> state = state_;
  if (simulated::dropsCall()) {
    ++state->count;
    return;
  }
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  ++state->count;
  scheduler.wakeAll(state->waiting);
  scheduler.yield();
}

void Semaphore::wait() const {
  const std::shared_ptr<State> state = state_;
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  while (state->count <= 0) {
    scheduler.wait(state->waiting, "semaphore", {});
  }
  --state->count;
}

bool Semaphore::wait(std::chrono::nanoseconds timeout) const {
  const std::shared_ptr<State> state = state_;
  Scheduler& scheduler = simulated::scheduler();
  const std::uint64_t deadline = scheduler.deadlineIn(timeout.count());
  scheduler.yield();
  while (state->count <= 0) {
    if (deadline <= scheduler.now() || !scheduler.wait(state->waiting, "semaphore", {}, deadline)) {
      return false;
    }
  }
  --state->count;
  return true;
}

}  // namespace kelvane
