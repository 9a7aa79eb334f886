// SPDX-License-Identifier: Apache-2.0
// Questions to file systems that may never answer.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Limits.h"
#include "platform/Result.h"
#include "platform/linux/runtime/Mutex.h"

namespace kelvane {

/// Has file systems asked by threads that may be lost to them, one to each that does not answer.
///
/// A question is a function that a worker runs. It enters each file system before it asks it anything; whoever put the
/// question waits, but no longer than its patience for each file system entered. One that has kept a worker for longer
/// is silent: whoever waits goes on without an answer, and nobody enters it until the worker has returned. Then it
/// rests, and so does one that was merely slow to tell its space, so that asking it takes nobody more than half of the
/// time. Of the questions of one kind, one at a time is in a file system; others wait at its door.
///
/// Who has much to ask puts several questions before waiting for the first.
///
/// The process has one, which is never destroyed; tests make more, and none with a question open. Any thread may ask,
/// but no question.
class FileSystemProbe {
 private:
  struct Job;

 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;
  using Duration = Clock::duration;

  static constexpr Duration patience = std::chrono::seconds(2);
  /// For what is read once, when a process starts: a disk that is only slow then should not do without.
  static constexpr Duration longPatience = limits::openingPatience;
  /// An answer that took as long is slow.
  static constexpr Duration slowness = std::chrono::milliseconds(200);
  static constexpr Duration longestRest = std::chrono::minutes(1);
  /// So long a question waits for workers that are with others before one is started for it.
  static constexpr Duration promptness = std::chrono::milliseconds(1);

  /// How long one rests whose answer took so long, after it rested so long for the last that came too late.
  [[nodiscard]] static Duration restAfter(Duration took, Duration lastRest) {
    return std::min(std::max(2 * lastRest, took), longestRest);
  }

  /// What is asked of a file system: how much space it has, which it should know, or for its files, which may take a
  /// disk's time. Neither waits for the other.
  enum class About { Space, Files };

  /// What a question is given, for as long as it runs.
  class Visit {
   public:
    /// Leaves the file system that was entered before. False when nothing may be asked of this one, and the question
    /// should end: it is silent, or rests, or nobody waits for the answer any more. The name is for the log.
    [[nodiscard]] bool enter(dev_t device, const std::string& name);
    /// What is asked from now on is about this. Leaves the file system that was entered before.
    void askAbout(About about);
    /// Whether the answer comes too late for whoever put the question.
    [[nodiscard]] bool isLate() const;

   private:
    friend class FileSystemProbe;
    Visit(FileSystemProbe& probe, Job& job) : probe_(probe), job_(job) {}

    FileSystemProbe& probe_;
    Job& job_;
  };
  using Question = std::function<void(Visit&)>;

  static FileSystemProbe& shared();
  FileSystemProbe() = default;
  ~FileSystemProbe();
  FileSystemProbe(const FileSystemProbe&) = delete;
  FileSystemProbe& operator=(const FileSystemProbe&) = delete;

  /// A question that was put. Null when there is no worker for it.
  using Asked = std::shared_ptr<Job>;
  [[nodiscard]] Asked put(Question question, About about = About::Space, Duration patience = FileSystemProbe::patience);
  /// Whether the answer comes within this time from now.
  [[nodiscard]] bool isAnsweredWithin(Duration time, const Asked& asked);
  /// False when there was no answer in time. Then the question may still run, or run never, and must own what it uses;
  /// else it is gone. Each that was put is to be waited for, once.
  [[nodiscard]] bool await(const Asked& asked);
  /// Puts a question and waits for it.
  [[nodiscard]] bool run(Question question, About about = About::Space, Duration patience = FileSystemProbe::patience);

  /// The value that a function of a Visit returns; ETIMEDOUT when that comes too late, with what was tried.
  template <typename Answer, typename Function>
  [[nodiscard]] Result<Answer> ask(std::string tried, Function function, About about = About::Space,
                                   Duration patience = FileSystemProbe::patience) {
    const auto answer = std::make_shared<std::optional<Result<Answer>>>();
    if (!run([answer, function = std::move(function)](Visit& visit) { answer->emplace(function(visit)); }, about,
             patience)) {
      return Failure{.number = ETIMEDOUT, .tried = std::move(tried)};
    }
    return std::move(**answer);
  }

  /// Is called by workers whenever a file system that was silent has answered and begins to rest; it must not ask.
  void setListener(std::function<void()> listener);

  /// Until when nothing may be asked of it: Time::max() while it is silent, none if it may be asked.
  [[nodiscard]] std::optional<Time> closedUntil(dev_t device);
  /// Workers that have not returned from file systems that are silent.
  [[nodiscard]] std::size_t lostWorkers();

 private:
  /// A file system that a worker is in, or that did not answer at once.
  struct Place {
    /// By what they ask about.
    std::array<const Job*, 2> visitors = {};
    /// How many of them have been given up.
    int lost = 0;
    bool isEmpty() const { return visitors[0] == nullptr && visitors[1] == nullptr; }
    Time restsUntil;
    /// Doubles as long as answers come too late.
    Duration rest{};
  };

  static void* workerMain(void* probe);
  void work();
  void answer(Job& job) KELVANE_REQUIRES(mutex_);
  [[nodiscard]] bool haveWorkerFor(const std::shared_ptr<Job>& job) KELVANE_REQUIRES(mutex_);
  [[nodiscard]] bool lacksWorker() const KELVANE_REQUIRES(mutex_);
  [[nodiscard]] bool startWorker() KELVANE_REQUIRES(mutex_);
  bool isAnsweredBefore(Time deadline, Job& job);
  void waitFor(Job& job, Time until, runtime::Lock& lock) KELVANE_REQUIRES(mutex_);
  [[nodiscard]] bool awaitAnswer(const std::shared_ptr<Job>& job, runtime::Lock& lock) KELVANE_REQUIRES(mutex_);
  bool enter(Job& job, dev_t device, const std::string& name);
  void leave(Job& job, Time now) KELVANE_REQUIRES(mutex_);
  void giveUp(Job& job) KELVANE_REQUIRES(mutex_);
  void forgetOldPlaces(Time now) KELVANE_REQUIRES(mutex_);
  void setLost(std::size_t count) KELVANE_REQUIRES(mutex_);

  runtime::Mutex mutex_;
  std::deque<std::shared_ptr<Job>> waiting_ KELVANE_GUARDED_BY(mutex_);
  std::map<dev_t, Place> places_ KELVANE_GUARDED_BY(mutex_);
  std::size_t workers_ KELVANE_GUARDED_BY(mutex_) = 0;
  /// Those with a question.
  std::size_t busy_ KELVANE_GUARDED_BY(mutex_) = 0;
  std::size_t lost_ KELVANE_GUARDED_BY(mutex_) = 0;
  /// When a worker came to a question last.
  Time taken_ KELVANE_GUARDED_BY(mutex_);
  std::function<void()> listener_ KELVANE_GUARDED_BY(mutex_);
  bool isEnding_ KELVANE_GUARDED_BY(mutex_) = false;
  /// For workers without work.
  runtime::Condition work_;
  /// For those at a door.
  runtime::Condition left_;
  runtime::Condition ended_;
};

}  // namespace kelvane
