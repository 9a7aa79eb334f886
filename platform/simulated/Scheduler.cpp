// SPDX-License-Identifier: Apache-2.0
// Decides which simulated thread runs, and moves virtual time.
#include "platform/simulated/Scheduler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace kelvane::simulated {

namespace {

thread_local SimulatedThread* thisThread = nullptr;
/// Of the run that is going on; there is one at a time.
Scheduler* activeScheduler = nullptr;

}  // namespace

void fail(const std::string& message) {
  std::fprintf(stderr, "Simulation: %s\n", message.c_str());
  std::fflush(stderr);
  std::abort();
}

SimulatedThread* Scheduler::currentThread() {
  return thisThread;
}

Scheduler* Scheduler::current() {
  return thisThread == nullptr ? nullptr : activeScheduler;
}

void Scheduler::run(const std::function<void()>& body) {
  if (activeScheduler != nullptr) {
    fail("a run inside a run");
  }
  Worker::forgetAfterFork();
  Baton baton;
  start("body", nullptr);
  SimulatedThread& self = *runnable_.back();
  runnable_.pop_back();
  self.baton = &baton;
  self.state = SimulatedThread::State::Running;
  thisThread = &self;
  activeScheduler = this;

  const auto abandonOthers = [this, &self] {
    thisThread = nullptr;
    activeScheduler = nullptr;
    hasRun_ = true;
    threads_.erase(self.id);
    for (auto& [id, thread] : threads_) {
      // An object of this run that is used in the next must not wake it.
      if (thread->waitList != nullptr) {
        std::erase(thread->waitList->threads_, thread.get());
        thread->waitList = nullptr;
      }
      abandoned_.push_back(std::move(thread));
    }
    threads_.clear();
    runnable_.clear();
    settling_.clear();
    timers_.clear();
  };
  try {
    body();
  } catch (...) {
    abandonOthers();
    throw;
  }
  abandonOthers();
}

void Scheduler::start(std::string name, std::function<void()> function) {
  auto thread = std::make_unique<SimulatedThread>();
  thread->id = ++lastThread_;
  thread->name = std::move(name);
  thread->function = std::move(function);
  runnable_.push_back(thread.get());
  threads_.emplace(thread->id, std::move(thread));
}

void Scheduler::yield() {
  if (fifo_ || runnable_.empty()) {
    return;
  }
  makeRunnable(*thisThread);
  giveUpBaton(*thisThread);
}

bool Scheduler::wait(WaitList& list, std::string_view what, std::string_view object,
                     std::optional<std::uint64_t> deadline) {
  SimulatedThread& self = *thisThread;
  if (!self.mustNotBlock.empty()) {
    fail("blocked in " + std::string(self.mustNotBlock) + ": " + std::string(what) + " " + std::string(object));
  }
  self.waitsFor = what;
  self.waitsForObject = object;
  self.woken = false;
  self.waitList = &list;
  list.threads_.push_back(&self);
  if (deadline) {
    self.timer = {*deadline, ++waits_};
    timers_.emplace(*self.timer, &self);
  }
  self.state = SimulatedThread::State::Waiting;
  giveUpBaton(self);
  if (self.waitList != nullptr) {
    std::erase(list.threads_, &self);
    self.waitList = nullptr;
  }
  return self.woken;
}

void Scheduler::wakeAll(WaitList& list) {
  for (SimulatedThread* thread : list.threads_) {
    thread->waitList = nullptr;
    thread->woken = true;
    if (thread->state == SimulatedThread::State::Waiting) {
      makeRunnable(*thread);
    }
  }
  list.threads_.clear();
}

void Scheduler::settle() {
  SimulatedThread& self = *thisThread;
  self.waitsFor = "others to settle";
  self.waitsForObject = {};
  self.state = SimulatedThread::State::Waiting;
  settling_.push_back(&self);
  giveUpBaton(self);
}

std::uint64_t Scheduler::deadlineIn(std::int64_t nanoseconds) const {
  const auto ahead = static_cast<std::uint64_t>(std::max<std::int64_t>(nanoseconds, 0));
  return ahead > std::numeric_limits<std::uint64_t>::max() - now_ ? std::numeric_limits<std::uint64_t>::max()
                                                                  : now_ + ahead;
}

std::size_t Scheduler::choose(std::size_t count) {
  return fifo_ || count < 2 ? 0 : random_.below(count);
}

void Scheduler::makeRunnable(SimulatedThread& thread) {
  if (thread.timer) {
    timers_.erase(*thread.timer);
    thread.timer.reset();
  }
  thread.state = SimulatedThread::State::Runnable;
  runnable_.push_back(&thread);
}

SimulatedThread& Scheduler::next() {
  if (runnable_.empty()) {
    if (!settling_.empty()) {
      makeRunnable(*settling_.front());
      settling_.erase(settling_.begin());
    } else if (!timers_.empty()) {
      now_ = std::max(now_, timers_.begin()->first.first);
      while (!timers_.empty() && timers_.begin()->first.first <= now_) {
        makeRunnable(*timers_.begin()->second);
      }
    } else {
      reportDeadlock();
    }
  }
  const std::size_t chosen = choose(runnable_.size());
  SimulatedThread& thread = *runnable_[chosen];
  runnable_.erase(runnable_.begin() + static_cast<std::ptrdiff_t>(chosen));
  thread.state = SimulatedThread::State::Running;
  ++decisions_;
  traceHash_ = Random::mixed(traceHash_ ^ Random::mixed(thread.id) ^ now_);
  return thread;
}

void Scheduler::giveUpBaton(SimulatedThread& self) {
  SimulatedThread& thread = next();
  if (&thread == &self) {
    return;
  }
  if (thread.baton == nullptr) {
    Worker& worker = Worker::take();
    worker.assigned = &thread;
    thread.baton = &worker.baton;
  }
  Baton& own = *self.baton;
  thread.baton->pass();
  own.await();
}

SimulatedThread* Scheduler::finish(SimulatedThread& self, Worker& worker) {
  threads_.erase(self.id);
  SimulatedThread& thread = next();
  if (thread.baton == nullptr) {
    thread.baton = &worker.baton;
    return &thread;
  }
  worker.giveBack();
  thread.baton->pass();
  return nullptr;
}

void Scheduler::runAssigned(Worker& worker) {
  SimulatedThread* thread = worker.assigned;
  while (thread != nullptr) {
    thisThread = thread;
    thread->function();
    thread->function = nullptr;
    thisThread = nullptr;
    thread = activeScheduler->finish(*thread, worker);
  }
}

void Scheduler::reportDeadlock() const {
  std::string text = "every thread waits and no deadline is left";
  for (const auto& [id, thread] : threads_) {
    text += "\n  " + thread->name + " waits for " + std::string(thread->waitsFor);
    if (!thread->waitsForObject.empty()) {
      text += " " + std::string(thread->waitsForObject);
    }
  }
  fail(text);
}

}  // namespace kelvane::simulated
