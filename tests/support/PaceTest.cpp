// SPDX-License-Identifier: Apache-2.0
// How fast each user may go on.
#include "support/Pace.h"

#include <gtest/gtest.h>

#include "support/Timebase.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t perSecond = 100;
constexpr std::uint32_t user = 1000;

class APace : public OperationTest {
 protected:
  /// What the last of so many steps is to wait that are taken at once.
  milliseconds waitAfter(int steps, std::uint32_t whose = user) {
    std::chrono::nanoseconds wait{0};
    for (int taken = 0; taken < steps; ++taken) {
      wait = pace.step(whose, perSecond);
    }
    return std::chrono::round<milliseconds>(wait);
  }

  Pace pace;
};

TEST_F(APace, LetsTheStepsOfASecondBeTakenAtOnceAndThenOneByOne) {
  run([&] {
    EXPECT_EQ(waitAfter(100), milliseconds(0));
    EXPECT_EQ(waitAfter(1), milliseconds(10));
    EXPECT_EQ(waitAfter(1), milliseconds(20));
    EXPECT_EQ(waitAfter(98), milliseconds(1000));
  });
}

TEST_F(APace, IsEachUsersOwn) {
  run([&] {
    waitAfter(200);
    EXPECT_EQ(waitAfter(100, user + 1), milliseconds(0));
    EXPECT_EQ(waitAfter(1), milliseconds(1010));
  });
}

TEST_F(APace, ForgivesWithTime) {
  run([&] {
    waitAfter(150);
    simulation->advance(milliseconds(500));
    EXPECT_EQ(waitAfter(1), milliseconds(10));
    simulation->advance(milliseconds(3600'000));
    EXPECT_EQ(waitAfter(100), milliseconds(0));
    EXPECT_EQ(waitAfter(1), milliseconds(10));
  });
}

TEST_F(APace, HoldsNobodyUpWithoutATimebase) {
  run([&] {
    gTimebaseConversion = 0.0;
    EXPECT_EQ(waitAfter(1000), milliseconds(0));
    readTimebase();
  });
}

}  // namespace
}  // namespace kelvane::test
