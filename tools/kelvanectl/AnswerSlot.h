// SPDX-License-Identifier: Apache-2.0
// Hands the answer of one request from the thread that got it to the one that waits.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "support/KelvaneClient.h"

namespace kelvane::ctl {

/// Takes one answer, from any thread, and can be waited for together with a descriptor. Shared between its two users,
/// so that an answer nobody waits for any more has a place to go.
class AnswerSlot {
 public:
  AnswerSlot();
  ~AnswerSlot();
  AnswerSlot(const AnswerSlot&) = delete;
  AnswerSlot& operator=(const AnswerSlot&) = delete;

  void put(const KelvaneClientResult& answer);
  /// The answer; none when the descriptor became readable first (-1 never does) or the time, if any, was over.
  std::optional<KelvaneClientResult> wait(int descriptor, std::optional<std::chrono::milliseconds> time);

 private:
  const int event_;
  std::mutex mutex_;
  std::optional<KelvaneClientResult> answer_;
};

}  // namespace kelvane::ctl
