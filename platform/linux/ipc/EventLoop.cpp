// SPDX-License-Identifier: Apache-2.0
// The one thread that does all input and output of the IPC facility.
#include "platform/linux/ipc/EventLoop.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/Limits.h"

namespace kelvane::ipc {

namespace {

constexpr std::uint32_t hangUpEvents = EPOLLHUP | EPOLLRDHUP | EPOLLERR;
/// Each is of ready_'s size, and so many that all services may hang up at once, some with much left to read.
constexpr int hangUpRounds = 2 * limits::endpointsOfAllUsers / 256;

/// Serving so many descriptors and tasks leaves behind memory that is worth giving back, after so long without one.
constexpr std::uint64_t muchWork = 500;
constexpr int restMilliseconds = 4000;

[[noreturn]] void stopForWantOf(const char* what) {
  std::fprintf(stderr, "kelvane: IPC needs %s: %s\n", what, std::strerror(errno));
  std::abort();
}

}  // namespace

EventLoop& EventLoop::shared() {
  static EventLoop& loop = *new EventLoop;
  return loop;
}

EventLoop::EventLoop()
    : poll_(epoll_create1(EPOLL_CLOEXEC)),
      hangUpPoll_(epoll_create1(EPOLL_CLOEXEC)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!poll_ || !hangUpPoll_ || !wake_) {
    stopForWantOf("descriptors");
  }
  // Every write is an event of its own, so none needs to be read.
  epoll_event event{.events = EPOLLIN | EPOLLET, .data = {.ptr = nullptr}};
  if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, wake_.get(), &event) < 0) {
    stopForWantOf("epoll");
  }
  // Signals are for the threads that expect them.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  if ((errno = start()) != 0) {
    stopForWantOf("a thread");
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

/// 0, or why the system refuses.
int EventLoop::start() {
  pthread_t runner;
  return pthread_create(&runner, nullptr, runnerMain, this);
}

void* EventLoop::runnerMain(void* loop) {
  auto& self = *static_cast<EventLoop*>(loop);
  // Before the other thread has ended, whose identity may then be given to any.
  self.thread_ = std::this_thread::get_id();
  pthread_setname_np(pthread_self(), "kelvane-ipc");
  if (self.predecessor_) {
    // What the allocator kept for that thread is free when it has ended, and not before.
    pthread_join(*self.predecessor_, nullptr);
    self.predecessor_.reset();
    malloc_trim(0);
  }
  self.run();
  return nullptr;
}

/// Returns when another thread has been started to go on.
void EventLoop::run() {
  for (;;) {
    turn();
    if (std::exchange(isAtRest_, false)) {
      served_ = 0;
      predecessor_ = pthread_self();
      if (start() == 0) {
        return;
      }
      predecessor_.reset();
    }
  }
}

void EventLoop::turn() {
  const int count = awaitEvents();
  serve(count, true);
  serve(count, false);
  serveAgain();
  runTimers();
  runPosted();
  while (!afterReading_.empty()) {
    serveHangUps();
    for (const Task& task : std::exchange(afterReading_, {})) {
      task();
    }
  }
}

int EventLoop::awaitEvents() {
  const int wanted = timeoutMilliseconds();
  bool sleeps = false;
  {
    const std::lock_guard lock(mutex_);
    sleeps = posted_.empty() && wanted != 0;
    asleep_ = sleeps;
  }
  const int count = epoll_wait(poll_.get(), ready_.data(), static_cast<int>(ready_.size()), sleeps ? wanted : 0);
  served_ += static_cast<std::uint64_t>(std::max(count, 0));
  if (sleeps) {
    const std::lock_guard lock(mutex_);
    isAtRest_ = count == 0 && wanted == restMilliseconds;
    asleep_ = false;
  }
  return count;
}

/// Serves those of the first count entries that have hung up, or those that have not.
void EventLoop::serve(int count, bool hungUp) {
  for (int index = 0; index < count; ++index) {
    const epoll_event event = ready_[static_cast<std::size_t>(index)];
    if (((event.events & hangUpEvents) != 0) != hungUp) {
      continue;
    }
    // None stands for the tasks that were posted, which run later in the turn, and the loop itself for nobody.
    if (event.data.ptr != nullptr && event.data.ptr != this) {
      static_cast<Source*>(event.data.ptr)->ready(event.events);
    }
  }
}

void EventLoop::serveHangUps() {
  for (int round = 0; round < hangUpRounds; ++round) {
    const int count = epoll_wait(hangUpPoll_.get(), ready_.data(), static_cast<int>(ready_.size()), 0);
    if (count <= 0) {
      return;
    }
    serve(count, true);
  }
}

void EventLoop::serveAgain() {
  // Each is taken out before it is served: it may ask for another turn, or go and take others along.
  for (std::size_t left = again_.size(); left > 0 && !again_.empty(); --left) {
    Source* const source = again_.front();
    again_.erase(again_.begin());
    source->ready(0);
  }
}

void EventLoop::runTimers() {
  while (!timers_.empty() && timers_.begin()->first.first <= Clock::now()) {
    const auto timer = timers_.extract(timers_.begin());
    timer.mapped()();
  }
}

void EventLoop::runPosted() {
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(mutex_);
    tasks.swap(posted_);
  }
  served_ += tasks.size();
  for (const Task& task : tasks) {
    task();
  }
}

int EventLoop::timeoutMilliseconds() const {
  if (!again_.empty()) {
    return 0;
  }
  const int rest = served_ >= muchWork ? restMilliseconds : -1;
  if (timers_.empty()) {
    return rest;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - Clock::now());
  const int longest = rest >= 0 ? rest : 24 * 60 * 60 * 1000;
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, longest));
}

void EventLoop::post(Task task) {
  bool wakes = false;
  {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(task));
    wakes = std::exchange(asleep_, false);
  }
  if (wakes) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = write(wake_.get(), &one, sizeof one);
  }
}

bool EventLoop::watch(int fd, std::uint32_t events, Source& source) {
  epoll_event event{.events = events, .data = {.ptr = &source}};
  return epoll_ctl(poll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void EventLoop::change(int fd, std::uint32_t events, Source& source) {
  epoll_event event{.events = events, .data = {.ptr = &source}};
  epoll_ctl(poll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void EventLoop::watchHangUp(int fd, Source& source) {
  epoll_event event{.events = EPOLLRDHUP, .data = {.ptr = &source}};
  epoll_ctl(hangUpPoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

void EventLoop::forget(int fd, Source& source) {
  epoll_ctl(poll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  epoll_ctl(hangUpPoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  // What this turn still has to serve must not find the source.
  for (epoll_event& event : ready_) {
    if (event.data.ptr == &source) {
      event.data.ptr = this;
    }
  }
  std::erase(again_, &source);
}

void EventLoop::runAgain(Source& source) {
  if (std::find(again_.begin(), again_.end(), &source) == again_.end()) {
    again_.push_back(&source);
  }
}

void EventLoop::afterReading(Task task) {
  afterReading_.push_back(std::move(task));
}

EventLoop::Timer EventLoop::runAt(Clock::time_point when, Task task) {
  const Timer timer{when, ++lastTimer_};
  timers_.emplace(timer, std::move(task));
  return timer;
}

void EventLoop::cancel(const Timer& timer) {
  timers_.erase(timer);
}

}  // namespace kelvane::ipc
