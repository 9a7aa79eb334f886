// SPDX-License-Identifier: Apache-2.0
// The least that makes changes durable for many who wait.
#include "bench/GroupFlush.h"

#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "bench/BareBus.h"

namespace kelvane::bench {

namespace {

/// Brings together those who wait and the one that flushes.
class Flushes {
 public:
  explicit Flushes(std::size_t waiters) : waiters_(waiters) {}

  /// Waits for one after the other until the time is over.
  void awaitUntil(std::uint64_t end) {
    std::unique_lock lock(mutex_);
    while (nanosecondsNow() < end) {
      // One that is under way may have begun too early.
      const std::uint64_t awaited = begun_ + 1;
      isAwaited_ = true;
      came_.notify_one();
      ended_.wait(lock, [&] { return lastEnded_ >= awaited; });
      ++waits_;
    }
    --waiters_;
    came_.notify_one();
  }

  /// Flushes whenever somebody waits, until all have gone; returns how many waits there were.
  std::uint64_t serve(const auto& flush) {
    std::unique_lock lock(mutex_);
    for (;;) {
      came_.wait(lock, [&] { return isAwaited_ || waiters_ == 0; });
      if (!isAwaited_) {
        return waits_;
      }
      isAwaited_ = false;
      const std::uint64_t number = ++begun_;
      lock.unlock();
      flush();
      lock.lock();
      lastEnded_ = number;
      ended_.notify_all();
    }
  }

 private:
  std::mutex mutex_;
  // Guarded by mutex_:
  std::condition_variable came_;
  std::condition_variable ended_;
  bool isAwaited_ = false;
  std::uint64_t begun_ = 0;
  std::uint64_t lastEnded_ = 0;
  std::size_t waiters_;
  std::uint64_t waits_ = 0;
};

}  // namespace

GroupFlush::GroupFlush(const std::string& path, std::size_t bytes)
    : file_(mustCall(open(path.c_str(), O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0600), path.c_str())),
      bytes_(bytes, 'k') {
  flush();
}

GroupFlush::~GroupFlush() {
  close(file_);
}

double GroupFlush::run(std::size_t waiters, std::uint64_t nanoseconds) const {
  Flushes flushes(waiters);
  const std::uint64_t begin = nanosecondsNow();
  std::vector<std::jthread> threads;
  for (std::size_t number = 0; number < waiters; ++number) {
    threads.emplace_back([&flushes, end = begin + nanoseconds] { flushes.awaitUntil(end); });
  }
  const std::uint64_t waits = flushes.serve([this] { flush(); });
  return static_cast<double>(waits) * 1e9 / static_cast<double>(nanosecondsNow() - begin);
}

void GroupFlush::flush() const {
  mustCall(static_cast<int>(pwrite(file_, bytes_.data(), bytes_.size(), 0)), "a write");
  mustCall(fdatasync(file_), "a flush");
}

}  // namespace kelvane::bench
