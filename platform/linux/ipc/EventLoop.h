// SPDX-License-Identifier: Apache-2.0
// The one thread that does all input and output of the IPC facility.
#pragma once

#include <pthread.h>
#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// Waits for descriptors, deadlines and tasks, and serves them on a thread of its own. Everything that
/// belongs to the message library lives on that thread alone.
///
/// A turn serves the connections that have hung up first, then the other descriptors, deadlines and tasks,
/// and last what was put off with afterReading(), before which it looks for hang-ups once more: so whatever
/// was read in a turn is acted upon after every hang-up that preceded it. With nothing under way it sleeps.
///
/// When it has been quiet for some seconds after much work, it gives back the memory that the work took. What the
/// allocator keeps for a thread goes only with the thread, so another thread goes on in its place.
///
/// One per process, started at its first use and never ended. Functions are for the loop's thread, except
/// where they say otherwise.
class EventLoop {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;
  using Timer = std::pair<Clock::time_point, std::uint64_t>;

  /// What waits for a descriptor. It must be forgotten before it goes.
  class Source {
   public:
    /// events are epoll's; 0 for a turn that was asked for with runAgain().
    virtual void ready(std::uint32_t events) = 0;

   protected:
    ~Source() = default;
  };

  static EventLoop& shared();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Any thread: has the task run soon on the loop's thread, in the order posted.
  void post(Task task);
  /// Any thread.
  bool isCurrent() const { return std::this_thread::get_id() == thread_.load(std::memory_order_relaxed); }

  /// False when the system refuses.
  [[nodiscard]] bool watch(int fd, std::uint32_t events, Source& source);
  void change(int fd, std::uint32_t events, Source& source);
  void forget(int fd, Source& source);
  /// Besides watch(): has a hang-up of this descriptor precede what afterReading() puts off.
  void watchHangUp(int fd, Source& source);

  /// Serves the source once more in the next turn, which does not wait.
  void runAgain(Source& source);
  void afterReading(Task task);
  Timer runAt(Clock::time_point when, Task task);
  void cancel(const Timer& timer);

 private:
  EventLoop();
  static void* runnerMain(void* loop);
  int start();
  void run();
  void turn();
  int awaitEvents();
  int timeoutMilliseconds() const;
  void serve(int count, bool hungUp);
  void serveAgain();
  void serveHangUps();
  void runTimers();
  void runPosted();

  FileDescriptor poll_;
  FileDescriptor hangUpPoll_;
  FileDescriptor wake_;
  std::array<epoll_event, 256> ready_{};
  std::vector<Source*> again_;
  std::vector<Task> afterReading_;
  std::map<Timer, Task> timers_;
  std::uint64_t lastTimer_ = 0;
  /// Descriptors and tasks since memory was given back.
  std::uint64_t served_ = 0;
  bool isAtRest_ = false;
  /// The thread that ran the loop before this one, until it has ended.
  std::optional<pthread_t> predecessor_;

  std::mutex mutex_;
  // Guarded by mutex_:
  std::vector<Task> posted_;
  /// Whether the loop has to be woken for what is posted.
  bool asleep_ = false;
  std::atomic<std::thread::id> thread_;
};

}  // namespace kelvane::ipc
