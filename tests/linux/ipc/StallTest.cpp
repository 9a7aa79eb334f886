// SPDX-License-Identifier: Apache-2.0
// How long a peer has taken nothing off its socket.
#include <gtest/gtest.h>

#include "platform/linux/ipc/Stall.h"

namespace kelvane {
namespace {

using ipc::Stall;
using std::chrono::seconds;

constexpr Stall::Time start{};
constexpr seconds most{300};

TEST(AStall, IsTooLongFromItsLimitOn) {
  Stall stall(most, start, {.moves = 1, .untaken = 100});
  EXPECT_FALSE(stall.isTooLong(start + most - seconds(1), {.moves = 1, .untaken = 100}));
  EXPECT_TRUE(stall.isTooLong(start + most, {.moves = 1, .untaken = 100}));
}

TEST(AStall, BeginsAnewWhenThePeerTakesSomething) {
  Stall stall(most, start, {.moves = 1, .untaken = 100});
  EXPECT_FALSE(stall.isTooLong(start + seconds(200), {.moves = 1, .untaken = 99}));
  EXPECT_FALSE(stall.isTooLong(start + seconds(499), {.moves = 1, .untaken = 99}));
  EXPECT_TRUE(stall.isTooLong(start + seconds(500), {.moves = 1, .untaken = 99}));
}

TEST(AStall, BeginsAnewWhenTheSocketTakesWhatThePeerHasMadeRoomFor) {
  Stall stall(most, start, {.moves = 1, .untaken = 100});
  EXPECT_FALSE(stall.isTooLong(start + seconds(200), {.moves = 2, .untaken = 100}));
  EXPECT_FALSE(stall.isTooLong(start + seconds(499), {.moves = 2, .untaken = 100}));
}

TEST(AStall, IsNoneWhileThePeerHasTakenEverything) {
  Stall stall(most, start, {.moves = 1, .untaken = 0});
  EXPECT_FALSE(stall.isTooLong(start + 2 * most, {.moves = 1, .untaken = 0}));
  EXPECT_FALSE(stall.isTooLong(start + 3 * most - seconds(1), {.moves = 1, .untaken = 0}));
}

}  // namespace
}  // namespace kelvane
