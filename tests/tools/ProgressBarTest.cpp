// SPDX-License-Identifier: Apache-2.0
// One line of a terminal that shows how far a purge is.
#include "tools/kelvanectl/ProgressBar.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kelvane::ctl {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t mebi = 1024 * 1024;

TEST(AProgressLine, ShowsTheShareTheBytesAndTheSeconds) {
  EXPECT_EQ(progressLine(10 * mebi, 20 * mebi, 3s, 80),
            "[####################--------------------]   50 %  10.0 MiB of 20.0 MiB, 3 s");
}

TEST(AProgressLine, IsEmptyAtFirstAndFullAtTheEnd) {
  EXPECT_EQ(progressLine(0, 20 * mebi, 0s, 60), "[----------------------------]    0 %  0 B of 20.0 MiB, 0 s");
  EXPECT_EQ(progressLine(25 * mebi, 20 * mebi, 9s, 60), "[#######################]  100 %  25.0 MiB of 20.0 MiB, 9 s");
}

TEST(AProgressLine, LeavesTheLastColumnFree) {
  for (int width = 0; width <= 120; ++width) {
    EXPECT_LE(static_cast<int>(progressLine(mebi, 2 * mebi, 12s, width).size()), std::max(width - 1, 0)) << width;
  }
}

TEST(AProgressLine, GoesWithoutABarOnANarrowTerminal) {
  EXPECT_EQ(progressLine(mebi, 2 * mebi, 12s, 40), " 50 %  1.0 MiB of 2.0 MiB, 12 s");
}

}  // namespace
}  // namespace kelvane::ctl
