// SPDX-License-Identifier: Apache-2.0
// Work queues: serial queues, the global concurrent queue, groups and counting semaphores.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/ThreadSafety.h"

namespace kelvane {

using Block = std::function<void()>;

/// Runs one item at a time, in the order submitted. A copy refers to the same queue. The queue itself
/// lives until its last item has run, so an item may drop the last reference to it.
///
/// Items must not throw. What an item captured goes with it, before anything learns that it has finished. Any
/// thread may call any function.
class KELVANE_CAPABILITY("serial queue") SerialQueue {
 public:
  explicit SerialQueue(std::string label);

  const std::string& label() const;

  /// Submits an item and returns at once.
  void async(Block item) const;
  /// Runs an item on the calling thread after all submitted before it, and returns when it has finished.
  /// Calling it from an item of the same queue deadlocks.
  void sync(const Block& item) const;

  /// Keeps items from starting until a matching resume(); an item already running goes on. Suspensions nest.
  /// A suspended queue that nobody refers to any more is dropped with its items.
  void suspend() const;
  void resume() const;

  /// Whether the calling code runs in an item of this queue, directly or within a sync of another queue.
  bool isCurrent() const;
  /// Stops the process, with the label in the message, unless isCurrent().
  void assertCurrent() const KELVANE_ASSERT_CAPABILITY(this);

  friend bool operator==(const SerialQueue&, const SerialQueue&) = default;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

/// The global concurrent queue of default priority: items start at once, on threads of the shared pool.
namespace globalQueue {
void async(Block item);
/// Runs the item on the global queue and returns when it has finished.
void sync(const Block& item);
}  // namespace globalQueue

/// Counts work that is under way, for callers that wait for all of it. A copy refers to the same group.
class Group {
 public:
  Group();

  /// Submits an item as part of the group.
  void async(const SerialQueue& queue, Block item) const;
  void asyncGlobal(Block item) const;
  void enter() const;
  void leave() const;

  /// Waits without limit until no work of the group is left.
  void wait() const;
  /// As wait(), for at most timeout; false when it passed first.
  [[nodiscard]] bool wait(std::chrono::nanoseconds timeout) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

/// A counting semaphore. A copy refers to the same semaphore.
class Semaphore {
 public:
  explicit Semaphore(long count);

  void signal() const;
  /// Takes one count, waiting for it without limit.
  void wait() const;
  /// As wait(), for at most timeout from now; false when it passed first and nothing was taken.
  [[nodiscard]] bool wait(std::chrono::nanoseconds timeout) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

/// Gives the calling (main) thread to the work-queue system for the life of the process.
[[noreturn]] void enterMainLoop();

}  // namespace kelvane
