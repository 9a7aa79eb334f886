// SPDX-License-Identifier: Apache-2.0
// Events that tell of volumes that run low on space.
#pragma once

#include <functional>

#include "platform/Value.h"
#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/ReliefPolicy.h"

namespace kelvane {

/// Calls the handler of the stream, each time within a run that its owner knows of. Any thread may call it; it lives
/// for as long as the process.
class LowDiskEvents {
 public:
  using Handler = std::function<void(const Value&)>;
  using Run = ReliefPolicy::Run;
  static constexpr char stream[] = "com.tessaly.dispatch.vfs";

  /// The owner begins the runs of events that others post, and is told of the end of every run.
  LowDiskEvents(std::function<Run()> begin, std::function<void(Run)> end)
      : begin_(std::move(begin)), end_(std::move(end)) {}

  /// Takes the handler of the stream. What is returned is to be called with the events that others post.
  [[nodiscard]] Handler attend(Handler handler);
  [[nodiscard]] bool haveHandler();
  /// Has the event handled on the global queue.
  void post(const ReliefPolicy::Event& event);

  /// The run whose handler this thread is in.
  [[nodiscard]] static Run currentRun();

 private:
  void handle(Run run, const Handler& handler, const Value& event) const;

  const std::function<Run()> begin_;
  const std::function<void(Run)> end_;
  runtime::Mutex mutex_;
  Handler handler_ KELVANE_GUARDED_BY(mutex_);
};

}  // namespace kelvane
