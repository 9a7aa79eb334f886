// SPDX-License-Identifier: Apache-2.0
// Outcomes: a value, or what went wrong.
#include "platform/Result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace kelvane {
namespace {

Result<std::unique_ptr<int>> half(int number) {
  if (number % 2 != 0) {
    return Failure{.tried = "halving an odd number"};
  }
  return std::make_unique<int>(number / 2);
}

Result<> refused() {
  errno = ENOSPC;
  return systemFailure("writing", "slot-a");
}

TEST(AResult, IsTheValue) {
  auto result = half(6);
  ASSERT_TRUE(result);
  EXPECT_EQ(**result, 3);
  const std::unique_ptr<int> taken = *std::move(result);
  EXPECT_EQ(*taken, 3);
}

TEST(AResult, IsOrWhatWasTriedAndTheErrorNumber) {
  const auto result = refused();
  ASSERT_FALSE(result);
  EXPECT_EQ(result.failure().number, ENOSPC);
  EXPECT_EQ(result.failure().text(), "writing slot-a: No space left on device");
}

TEST(AResult, HasWordsAloneWhenTheSystemDidNotRefuse) {
  EXPECT_EQ(half(5).failure().text(), "halving an odd number");
}

TEST(AResult, WithoutATypeSucceedsAtFirst) {
  EXPECT_TRUE(Result<>());
}

}  // namespace
}  // namespace kelvane
