// SPDX-License-Identifier: Apache-2.0
// Serial queues.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/Queues.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/Pool.h"
#include "platform/linux/runtime/Thread.h"

namespace kelvane {

namespace {

/// A thread in sync() whose turn has not come. Guarded by the queue's mutex; lives on the thread's stack.
struct Waiter {
  std::condition_variable turnCame;
  bool hasTurn = false;
};

/// Makes a queue the innermost of those whose items the calling thread is running.
class Frame {
 public:
  explicit Frame(const SerialQueue::State& queue) : queue_(queue), outer_(innermost) { innermost = this; }
  ~Frame() { innermost = outer_; }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  static bool contains(const SerialQueue::State& queue) {
    for (const Frame* frame = innermost; frame; frame = frame->outer_)
      if (&frame->queue_ == &queue)
        return true;
    return false;
  }

 private:
  static thread_local const Frame* innermost;

  const SerialQueue::State& queue_;
  const Frame* const outer_;
};

thread_local const Frame* Frame::innermost = nullptr;

}  // namespace

/// A busy queue has one holder, and only the holder starts items: a thread in sync(), or a drain, which is an
/// item of the pool. The holder ends by handing the queue on, or by leaving it idle when it is empty or
/// suspended. So a queue that is neither busy nor suspended has no entries.
///
/// An item of sync() runs on the thread that called, also when it had to wait for its turn: it always sees the
/// same current queues. Drains and callers of sync() each keep the state alive.
struct SerialQueue::State : std::enable_shared_from_this<State> {
  explicit State(std::string queueLabel) : label(std::move(queueLabel)) {}

  void async(Block item);
  void sync(const Block& item) noexcept;
  void suspend();
  void resume();

  const std::string label;

 private:
  /// An item of async(), or the place in the order of a thread in sync().
  struct Entry {
    Block item;
    Waiter* waiter;
  };

  void awaitTurn(std::unique_lock<std::mutex>& lock);
  void drain() noexcept;
  Block nextDrain() {
    return [state = shared_from_this()] { state->drain(); };
  }
  bool itemIsNext() const { return suspensions_ == 0 && !entries_.empty() && !entries_.front().waiter; }
  void handOver();

  std::mutex mutex_;
  // Guarded by mutex_:
  std::deque<Entry> entries_;
  unsigned suspensions_ = 0;
  bool busy_ = false;
};

void SerialQueue::State::async(Block item) {
  {
    const std::lock_guard lock(mutex_);
    entries_.push_back({std::move(item), nullptr});
    if (busy_ || suspensions_ > 0)
      return;
    busy_ = true;
  }
  runtime::Pool::shared().submit(nextDrain());
}

void SerialQueue::State::sync(const Block& item) noexcept {
  std::unique_lock lock(mutex_);
  if (busy_ || suspensions_ > 0) {
    awaitTurn(lock);
  } else {
    busy_ = true;
    lock.unlock();
  }
  {
    const Frame frame(*this);
    item();
  }
  lock.lock();
  const bool drain = itemIsNext();
  if (!drain)
    handOver();
  lock.unlock();
  if (drain)
    runtime::Pool::shared().submit(nextDrain());
}

// Takes the held lock and returns with it released, as the holder.
void SerialQueue::State::awaitTurn(std::unique_lock<std::mutex>& lock) {
  Waiter waiter;
  entries_.push_back({nullptr, &waiter});
  lock.unlock();
  const runtime::BlockedScope blocked;
  lock.lock();
  waiter.turnCame.wait(lock, [&waiter] { return waiter.hasTurn; });
  lock.unlock();
}

void SerialQueue::State::suspend() {
  const std::lock_guard lock(mutex_);
  ++suspensions_;
}

void SerialQueue::State::resume() {
  {
    const std::lock_guard lock(mutex_);
    if (suspensions_ == 0)
      runtime::stopProcess("queue resumed more often than suspended: " + label);
    if (--suspensions_ > 0 || busy_)
      return;
    busy_ = true;
    if (!itemIsNext()) {
      handOver();
      return;
    }
  }
  runtime::Pool::shared().submit(nextDrain());
}

// Runs items while they are next, but makes way after each for whatever else needs a thread.
void SerialQueue::State::drain() noexcept {
  auto& pool = runtime::Pool::shared();
  const Frame frame(*this);
  std::unique_lock lock(mutex_);
  while (itemIsNext()) {
    Block item = std::move(entries_.front().item);
    entries_.pop_front();
    lock.unlock();
    item();
    // What the item holds is let go of on the queue too.
    item = nullptr;
    lock.lock();
    if (pool.itemsWait() && itemIsNext()) {
      lock.unlock();
      pool.submitLast(nextDrain());
      return;
    }
  }
  handOver();
}

// The holder's last act when no item is next, under the mutex: the next waiter becomes the holder, if any.
void SerialQueue::State::handOver() {
  if (suspensions_ > 0 || entries_.empty()) {
    busy_ = false;
    return;
  }
  Waiter& waiter = *entries_.front().waiter;
  entries_.pop_front();
  waiter.hasTurn = true;
  // Not after the mutex: the waiter is gone as soon as it sees its turn.
  waiter.turnCame.notify_one();
}

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {}

const std::string& SerialQueue::label() const {
  return state_->label;
}

// The items that these let start may destroy this object before the call has returned: hence the copies.

void SerialQueue::async(Block item) const {
  std::shared_ptr<State>(state_)->async(std::move(item));
}

void SerialQueue::sync(const Block& item) const {
  std::shared_ptr<State>(state_)->sync(item);
}

void SerialQueue::resume() const {
  std::shared_ptr<State>(state_)->resume();
}

void SerialQueue::suspend() const {
  state_->suspend();
}

bool SerialQueue::isCurrent() const {
  return Frame::contains(*state_);
}

void SerialQueue::assertCurrent() const {
  if (!isCurrent())
    runtime::stopProcess("not on the queue it must be on: " + state_->label);
}

}  // namespace kelvane
