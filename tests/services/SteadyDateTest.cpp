// SPDX-License-Identifier: Apache-2.0
// A clock that is set while the service runs.
#include "services/directory-cache/SteadyDate.h"

#include <gtest/gtest.h>

namespace kelvane::directoryCache {
namespace {

TEST(ASteadyDate, FollowsAClockThatGoesAsTimePasses) {
  SteadyDate date(1000, 10);
  EXPECT_EQ(date.at(1000, 10), 1000);
  EXPECT_EQ(date.at(1500, 510), 1500);
}

TEST(ASteadyDate, DoesNotJumpAhead) {
  SteadyDate date(1000, 10);
  EXPECT_EQ(date.at(900'000, 20), 1010);
  EXPECT_EQ(date.at(900'100, 120), 1110);
  // The clock is put right.
  EXPECT_EQ(date.at(1115, 125), 1115);
}

TEST(ASteadyDate, FollowsAClockThatIsSetBack) {
  SteadyDate date(1000, 10);
  EXPECT_EQ(date.at(500, 20), 500);
  EXPECT_EQ(date.at(1010, 20), 500);
}

TEST(ASteadyDate, DoesNotLoseSecondsToRounding) {
  SteadyDate date(1000, 10);
  for (int second = 1; second <= 100; ++second) {
    date.at(1000 + second, 10 + second - 1);
  }
  EXPECT_GE(date.at(1101, 110), 1100);
}

}  // namespace
}  // namespace kelvane::directoryCache
