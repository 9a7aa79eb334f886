// SPDX-License-Identifier: Apache-2.0
// Serial queues and the global queue, on simulated threads.
#include <algorithm>
#include <deque>
#include <utility>

#include "platform/Queues.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

using simulated::Scheduler;
using simulated::WaitList;

struct SerialQueue::State {
  std::string label;
  std::deque<Block> pending;
  /// Whether a thread runs the queue's items, or is about to.
  bool active = false;
  int suspensions = 0;
};

namespace {

using QueueState = std::shared_ptr<SerialQueue::State>;

/// Runs an item as one of this queue, on the calling thread.
void runItem(const QueueState& queue, const Block& item) {
  std::vector<const void*>& queues = Scheduler::currentThread()->queues;
  queues.push_back(queue.get());
  item();
  queues.pop_back();
}

/// Runs items until none is left or the queue is suspended.
void drain(const QueueState& queue) {
  for (;;) {
    Scheduler::current()->yield();
    if (queue->suspensions > 0 || queue->pending.empty()) {
      queue->active = false;
      return;
    }
    Block item = std::move(queue->pending.front());
    queue->pending.pop_front();
    runItem(queue, [&item] {
      item();
      item = nullptr;
    });
  }
}

void startIfNeeded(const QueueState& queue) {
  if (!queue->active && queue->suspensions == 0 && !queue->pending.empty()) {
    queue->active = true;
    Scheduler::current()->start("queue " + queue->label, [queue] { drain(queue); });
  }
}

}  // namespace

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
}

const std::string& SerialQueue::label() const {
  return state_->label;
}

void SerialQueue::async(Block item) const {
  if (simulated::dropsCall()) {
    return;
  }
  const QueueState queue = state_;
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  queue->pending.push_back(std::move(item));
  startIfNeeded(queue);
  scheduler.yield();
}

void SerialQueue::sync(const Block& item) const {
  const QueueState queue = state_;
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  if (!queue->active && queue->suspensions == 0 && queue->pending.empty()) {
    queue->active = true;
    runItem(queue, item);
    queue->active = false;
    startIfNeeded(queue);
    return;
  }
  // The item counts as running within those that wait for it.
  const std::vector<const void*>& waiting = Scheduler::currentThread()->queues;
  WaitList done;
  bool finished = false;
  queue->pending.emplace_back([&] {
    std::vector<const void*>& queues = Scheduler::currentThread()->queues;
    const std::vector<const void*> own = queues;
    queues.insert(queues.begin(), waiting.begin(), waiting.end());
    item();
    queues = own;
    finished = true;
    simulated::scheduler().wakeAll(done);
  });
  startIfNeeded(queue);
  while (!finished) {
    scheduler.wait(done, "its turn on queue", queue->label);
  }
}

void SerialQueue::suspend() const {
  const QueueState queue = state_;
  simulated::scheduler().yield();
  ++queue->suspensions;
}

void SerialQueue::resume() const {
  if (simulated::dropsCall()) {
    return;
  }
  const QueueState queue = state_;
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  if (queue->suspensions == 0) {
    simulated::fail("queue " + queue->label + " resumed more often than suspended");
  }
  --queue->suspensions;
  startIfNeeded(queue);
  scheduler.yield();
}

bool SerialQueue::isCurrent() const {
  const simulated::SimulatedThread* thread = Scheduler::currentThread();
  return thread != nullptr &&
         std::find(thread->queues.begin(), thread->queues.end(), state_.get()) != thread->queues.end();
}

void SerialQueue::assertCurrent() const {
  if (!isCurrent()) {
    simulated::fail("not on queue " + state_->label);
  }
}

void globalQueue::async(Block item) {
  if (simulated::dropsCall()) {
    return;
  }
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  scheduler.start("global queue", std::move(item));
  scheduler.yield();
}

void globalQueue::sync(const Block& item) {
  Scheduler& scheduler = simulated::scheduler();
  scheduler.yield();
  item();
}

void enterMainLoop() {
  WaitList never;
  for (;;) {
    simulated::scheduler().wait(never, "nothing, in the main loop", {});
  }
}

}  // namespace kelvane
