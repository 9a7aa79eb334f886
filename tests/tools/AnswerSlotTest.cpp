// SPDX-License-Identifier: Apache-2.0
// Handing the answer of one request from the thread that got it to the one that waits.
#include "tools/kelvanectl/AnswerSlot.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <thread>

namespace kelvane::ctl {
namespace {

using namespace std::chrono_literals;

const KelvaneClientResult lost = {KelvaneClientResult::Status::ConnectionLost, {}, "gone"};

TEST(AnAnswerSlot, GivesAnAnswerThatIsThere) {
  AnswerSlot slot;
  slot.put(lost);
  const auto answer = slot.wait(-1, std::nullopt);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, lost.status);
  EXPECT_EQ(answer->text, "gone");
}

TEST(AnAnswerSlot, WaitsForTheAnswerOfAnotherThread) {
  AnswerSlot slot;
  std::thread other([&slot] { slot.put(lost); });
  EXPECT_TRUE(slot.wait(-1, std::nullopt));
  other.join();
}

TEST(AnAnswerSlot, StopsWaitingWhenTheDescriptorIsReadable) {
  AnswerSlot slot;
  const int readable = eventfd(1, EFD_CLOEXEC);
  EXPECT_FALSE(slot.wait(readable, std::nullopt));
  close(readable);
}

TEST(AnAnswerSlot, StopsWaitingWhenTheTimeIsOver) {
  AnswerSlot slot;
  EXPECT_FALSE(slot.wait(-1, 1ms));
}

}  // namespace
}  // namespace kelvane::ctl
