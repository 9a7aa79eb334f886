// SPDX-License-Identifier: Apache-2.0
// Questions to file systems that may never answer.
#include "platform/linux/volumes/FileSystemProbe.h"

#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/Thread.h"

namespace kelvane {

struct FileSystemProbe::Job {
  Question question;
  About about;
  Duration patience;
  /// When it was put, came to a door or entered.
  Time since;
  /// A worker has come to it.
  bool isTaken = false;
  bool isDone = false;
  /// Nobody waits for it any more.
  bool isGivenUp = false;
  /// Where its worker is, and since when.
  std::optional<dev_t> device;
  std::string name;
  runtime::Condition done;
};

FileSystemProbe& FileSystemProbe::shared() {
  static auto* const probe = new FileSystemProbe;
  return *probe;
}

FileSystemProbe::~FileSystemProbe() {
  runtime::Lock lock(mutex_);
  isEnding_ = true;
  work_.notifyAll();
  while (workers_ > 0) {
    ended_.wait(lock);
  }
}

bool FileSystemProbe::Visit::enter(dev_t device, const std::string& name) {
  return probe_.enter(job_, device, name);
}

void FileSystemProbe::Visit::askAbout(About about) {
  const runtime::Lock lock(probe_.mutex_);
  probe_.leave(job_, Clock::now());
  job_.about = about;
}

bool FileSystemProbe::Visit::isLate() const {
  const runtime::Lock lock(probe_.mutex_);
  return job_.isGivenUp;
}

void FileSystemProbe::setListener(std::function<void()> listener) {
  const runtime::Lock lock(mutex_);
  listener_ = std::move(listener);
}

FileSystemProbe::Asked FileSystemProbe::put(Question question, About about, Duration patience) {
  auto job = std::make_shared<Job>();
  job->question = std::move(question);
  job->about = about;
  job->patience = patience;
  job->since = Clock::now();
  const runtime::Lock lock(mutex_);
  return haveWorkerFor(job) ? job : nullptr;
}

bool FileSystemProbe::isAnsweredWithin(Duration time, const Asked& asked) {
  const runtime::BlockedScope blocked;
  return isAnsweredBefore(Clock::now() + time, *asked);
}

bool FileSystemProbe::isAnsweredBefore(Time deadline, Job& job) {
  runtime::Lock lock(mutex_);
  while (!job.isDone && Clock::now() < deadline) {
    waitFor(job, deadline, lock);
  }
  return job.isDone;
}

bool FileSystemProbe::await(const Asked& asked) {
  // Mostly it comes sooner than the pool could have another thread run meanwhile.
  if (isAnsweredBefore(Clock::now() + promptness, *asked)) {
    return true;
  }
  const runtime::BlockedScope blocked;
  runtime::Lock lock(mutex_);
  if (awaitAnswer(asked, lock)) {
    return true;
  }
  giveUp(*asked);
  if (asked->device) {
    const std::string name = asked->name;
    const bool isNews = places_[*asked->device].rest == Duration::zero();
    lock.unlock();
    if (isNews) {
      reporting::reportFailure("FileSystemProbe", name + " does not answer; it is left alone until it does");
    }
  }
  return false;
}

bool FileSystemProbe::run(Question question, About about, Duration patience) {
  const Asked asked = put(std::move(question), about, patience);
  return asked != nullptr && await(asked);
}

/// False when all are lost, or there is none and the system refuses a thread.
bool FileSystemProbe::haveWorkerFor(const std::shared_ptr<Job>& job) {
  if (lost_ >= limits::probeThreads) {
    return false;
  }
  waiting_.push_back(job);
  if (!lacksWorker()) {
    // Woken under the lock, a worker would only wait for that.
    mutex_.unlock();
    work_.notifyAll();
    mutex_.lock();
    return true;
  }
  // A worker that has just begun will be done sooner than another could be started.
  const bool isPrompt = workers_ > lost_ && Clock::now() < taken_ + promptness;
  if (isPrompt || startWorker()) {
    return true;
  }
  std::erase(waiting_, job);
  return false;
}

/// Whether there is more to do than workers without work will come to, and may be one more.
bool FileSystemProbe::lacksWorker() const {
  return waiting_.size() > workers_ - busy_ && workers_ < limits::probeThreads;
}

/// False when the system refuses a thread and all that there are have been lost.
bool FileSystemProbe::startWorker() {
  ++workers_;
  mutex_.unlock();
  const bool isStarted = runtime::startThread(workerMain, this);
  mutex_.lock();
  if (isStarted) {
    return true;
  }
  --workers_;
  // Another one has it by now, or will.
  return workers_ > lost_;
}

/// Waits until the question has been answered, or something has been done about it, or until then.
void FileSystemProbe::waitFor(Job& job, Time until, runtime::Lock& lock) {
  const Time now = Clock::now();
  if (!job.isTaken && now >= job.since + promptness && lacksWorker()) {
    static_cast<void>(startWorker());
    if (job.isTaken) {
      return;
    }
  }
  static_cast<void>(job.done.waitUntil(lock, job.isTaken ? until : std::min(until, now + promptness)));
}

/// False when there was no answer in time.
bool FileSystemProbe::awaitAnswer(const std::shared_ptr<Job>& job, runtime::Lock& lock) {
  while (!job->isDone) {
    const Time deadline = job->since + job->patience;
    if (Clock::now() >= deadline) {
      std::erase(waiting_, job);
      return false;
    }
    waitFor(*job, deadline, lock);
  }
  return true;
}

void FileSystemProbe::giveUp(Job& job) {
  job.isGivenUp = true;
  if (job.device) {
    ++places_[*job.device].lost;
    setLost(lost_ + 1);
    left_.notifyAll();
  }
}

void* FileSystemProbe::workerMain(void* probe) {
  pthread_setname_np(pthread_self(), "kelvane-probe");
  static_cast<FileSystemProbe*>(probe)->work();
  return nullptr;
}

/// One is kept for the next question, so that a quiet process starts no threads, and wakes none up in vain.
void FileSystemProbe::work() {
  runtime::Lock lock(mutex_);
  while (!isEnding_ && (!waiting_.empty() || workers_ - busy_ == 1)) {
    if (waiting_.empty()) {
      work_.wait(lock);
      continue;
    }
    const std::shared_ptr<Job> job = std::move(waiting_.front());
    waiting_.pop_front();
    job->isTaken = true;
    taken_ = Clock::now();
    ++busy_;
    answer(*job);
    --busy_;
  }
  --workers_;
  ended_.notifyAll();
}

void FileSystemProbe::answer(Job& job) {
  mutex_.unlock();
  Visit visit(*this, job);
  job.question(visit);
  // What it holds goes before whoever waits goes on.
  job.question = nullptr;
  mutex_.lock();
  leave(job, Clock::now());
  job.isDone = true;
  // Woken under the lock, whoever waits would only wait for that.
  mutex_.unlock();
  job.done.notifyAll();
  mutex_.lock();
}

bool FileSystemProbe::enter(Job& job, dev_t device, const std::string& name) {
  runtime::Lock lock(mutex_);
  leave(job, Clock::now());
  job.since = Clock::now();
  while (!job.isGivenUp) {
    Place& place = places_[device];
    const Time now = Clock::now();
    // Files wait for nobody's rest but that of one that was silent.
    const bool rests = now < place.restsUntil && (job.about == About::Space || place.rest > Duration::zero());
    if (place.lost > 0 || rests) {
      return false;
    }
    const Job*& visitor = place.visitors[static_cast<std::size_t>(job.about)];
    if (visitor == nullptr) {
      visitor = &job;
      job.device = device;
      job.name = name;
      job.since = now;
      forgetOldPlaces(now);
      return true;
    }
    left_.wait(lock);
  }
  return false;
}

void FileSystemProbe::leave(Job& job, Time now) {
  if (!job.device) {
    return;
  }
  const auto found = places_.find(*std::exchange(job.device, std::nullopt));
  Place& place = found->second;
  const Duration took = now - job.since;
  place.visitors[static_cast<std::size_t>(job.about)] = nullptr;
  if (job.isGivenUp) {
    --place.lost;
    place.rest = restAfter(took, place.rest);
    place.restsUntil = now + place.rest;
    setLost(lost_ - 1);
    if (listener_) {
      listener_();
    }
  } else if (job.about == About::Space && took >= slowness) {
    place.rest = {};
    place.restsUntil = now + took;
  } else {
    place.rest = {};
    if (place.isEmpty() && now >= place.restsUntil) {
      places_.erase(found);
    }
  }
  left_.notifyAll();
}

/// The device number of one that is gone may be given to another.
void FileSystemProbe::forgetOldPlaces(Time now) {
  std::erase_if(places_, [now](const auto& entry) {
    const Place& place = entry.second;
    return place.isEmpty() && now >= place.restsUntil + longestRest;
  });
}

void FileSystemProbe::setLost(std::size_t count) {
  lost_ = count;
  reporting::setGauge("kelvane_silent_file_systems", "File systems that do not answer, each of which keeps a thread.",
                      static_cast<std::int64_t>(count));
}

std::optional<FileSystemProbe::Time> FileSystemProbe::closedUntil(dev_t device) {
  const runtime::Lock lock(mutex_);
  const auto place = places_.find(device);
  if (place == places_.end()) {
    return std::nullopt;
  }
  if (place->second.lost > 0) {
    return Time::max();
  }
  return Clock::now() < place->second.restsUntil ? std::optional(place->second.restsUntil) : std::nullopt;
}

std::size_t FileSystemProbe::lostWorkers() {
  const runtime::Lock lock(mutex_);
  return lost_;
}

}  // namespace kelvane
