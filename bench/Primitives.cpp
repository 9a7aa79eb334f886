// SPDX-License-Identifier: Apache-2.0
// The work queues beside the least that the C++ library does for the same.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <latch>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/Queues.h"

namespace kelvane {

namespace {

constexpr int manyQueues = 1000;

void mutexLock(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    const std::lock_guard lock(mutex);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(mutexLock);

void syncOnIdleQueue(benchmark::State& state) {
  const SerialQueue queue("bench");
  int count = 0;
  for (auto _ : state) {
    queue.sync([&count] { ++count; });
    benchmark::ClobberMemory();
  }
}
BENCHMARK(syncOnIdleQueue);

/// A thread that counts what it is sent, by a mutex and condition variables.
class Pong {
 public:
  Pong() : thread_([this] { serve(); }) {}
  ~Pong() {
    turn(false);
    thread_.join();
  }
  Pong(const Pong&) = delete;
  Pong& operator=(const Pong&) = delete;

  /// There and back.
  void turn(bool goesOn) {
    std::unique_lock lock(mutex_);
    goesOn_ = goesOn;
    isThere_ = true;
    came_.notify_one();
    wentBack_.wait(lock, [this] { return !isThere_; });
  }

 private:
  void serve() {
    std::unique_lock lock(mutex_);
    for (bool goesOn = true; goesOn;) {
      came_.wait(lock, [this] { return isThere_; });
      isThere_ = false;
      goesOn = goesOn_;
      wentBack_.notify_one();
    }
  }

  std::mutex mutex_;
  // Guarded by mutex_:
  std::condition_variable came_;
  std::condition_variable wentBack_;
  bool isThere_ = false;
  bool goesOn_ = true;
  std::thread thread_;
};

void threadHopAndBack(benchmark::State& state) {
  Pong pong;
  for (auto _ : state) {
    pong.turn(true);
  }
}
BENCHMARK(threadHopAndBack)->UseRealTime();

void asyncHopAndBack(benchmark::State& state) {
  const SerialQueue queue("bench");
  const Semaphore done(0);
  for (auto _ : state) {
    queue.async([&done] { done.signal(); });
    done.wait();
  }
}
BENCHMARK(asyncHopAndBack)->UseRealTime();

void asyncItemsInARow(benchmark::State& state) {
  const SerialQueue queue("bench");
  for (auto _ : state) {
    for (int item = 0; item < manyQueues; ++item) {
      queue.async([] {});
    }
    queue.sync([] {});
  }
  state.SetItemsProcessed(state.iterations() * manyQueues);
}
BENCHMARK(asyncItemsInARow)->UseRealTime();

void thousandBlockedThreads(benchmark::State& state) {
  for (auto _ : state) {
    std::latch blocked(manyQueues);
    std::latch released(1);
    std::list<std::jthread> threads;
    for (int thread = 0; thread < manyQueues; ++thread) {
      threads.emplace_back([&] {
        blocked.count_down();
        released.wait();
      });
    }
    blocked.wait();
    released.count_down();
  }
}
BENCHMARK(thousandBlockedThreads)->UseRealTime()->Unit(benchmark::kMillisecond);

void thousandBlockedQueues(benchmark::State& state) {
  std::vector<SerialQueue> queues;
  for (int queue = 0; queue < manyQueues; ++queue) {
    queues.emplace_back("bench");
  }
  for (auto _ : state) {
    std::latch blocked(manyQueues);
    const Semaphore released(0);
    const Group all;
    for (const SerialQueue& queue : queues) {
      all.async(queue, [&blocked, &released] {
        blocked.count_down();
        released.wait();
      });
    }
    blocked.wait();
    for (int queue = 0; queue < manyQueues; ++queue) {
      released.signal();
    }
    all.wait();
  }
}
BENCHMARK(thousandBlockedQueues)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace kelvane
