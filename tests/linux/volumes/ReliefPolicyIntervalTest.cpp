// SPDX-License-Identifier: Apache-2.0
// How often volumes are looked at.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "platform/linux/volumes/ReliefPolicy.h"
#include "tests/linux/volumes/ReliefPolicyTesting.h"

namespace kelvane {
namespace {

using namespace test;

constexpr std::uint64_t megabyte = 1'000'000;
constexpr std::uint64_t gigabyte = 1000 * megabyte;
constexpr double rate = 500e6;

class TheNextLook : public WatchedVolumes {
 protected:
  std::uint64_t bytesIn(Duration time) const {
    return static_cast<std::uint64_t>(rate * std::chrono::duration<double>(time).count());
  }
};

TEST_F(TheNextLook, ComesWithinTwoMinutes) {
  look();
  EXPECT_EQ(untilNextLook(), 2min);
  set("/data", 900 * gigabyte);
  look();
  EXPECT_EQ(untilNextLook(), 2min);
}

TEST_F(TheNextLook, WaitsForAWriterOnceAVolumeIsQuietAndWritesToItAreTold) {
  set("/data", lowMark + 1);
  look();
  EXPECT_FALSE(mayRest("/data"));
  EXPECT_LT(untilNextLook(), 1s);
  pass(5s - 1ns);
  look();
  EXPECT_FALSE(mayRest("/data"));
  pass(1ns);
  EXPECT_TRUE(mayRest("/data"));
  look();
  EXPECT_LT(untilNextLook(), 1s) << "nobody tells";
  tellWrites("/data");
  look();
  EXPECT_EQ(untilNextLook(), 2min);
  pass(1h);
  policy_.noteWrite(now_, device("/data"));
  tellWrites("/data", false);
  look();
  EXPECT_LT(untilNextLook(), 1s);
  EXPECT_FALSE(mayRest("/data")) << "though no space was used: somebody may write to the same place all the time";
  pass(5s);
  look();
  EXPECT_TRUE(mayRest("/data"));
}

TEST_F(TheNextLook, WaitsForNoWriterWhileARunHasTheVolumeInItsHands) {
  set("/data", lowMark - 1);
  ASSERT_TRUE(announced());
  taken();
  pass(10s);
  tellWrites("/data");
  look();
  EXPECT_FALSE(mayRest("/data"));
  EXPECT_LT(untilNextLook(), 3s);
}

TEST_F(TheNextLook, OfAVolumeFarAboveItsMarkNeedsNoNotices) {
  set("/data", 900 * gigabyte);
  look();
  pass(1h);
  look();
  EXPECT_FALSE(mayRest("/data"));
}

TEST_F(TheNextLook, ComesLessThanTwiceAMinuteWhileAllVolumesAreFarAboveTheirMarks) {
  for (int number = 0; number < 20; ++number) {
    set("/" + std::to_string(number), lowMark + 15 * gigabyte + 1 + 2 * gigabyte * static_cast<unsigned>(number));
  }
  std::vector<Time> looks;
  for (int count = 0; count < 100; ++count) {
    look();
    looks.push_back(now_);
    pass(untilNextLook());
  }
  for (std::size_t index = 2; index < looks.size(); ++index) {
    EXPECT_GT(looks[index] - looks[index - 2], 1min);
  }
}

TEST_F(TheNextLook, IsNoSoonerForAFastWriterFarAboveTheMark) {
  set("/data", lowMark + 100 * gigabyte);
  look();
  pass(10s);
  set("/data", lowMark + 16 * gigabyte);
  look();
  EXPECT_GT(untilNextLook(), 30s);
  pass(1s);
  set("/data", lowMark + 14 * gigabyte);
  look();
  EXPECT_LT(untilNextLook(), 3s) << "nearer the rate counts";
}

TEST_F(TheNextLook, SeesEveryCrossingWithinASecondWhereverAWriterBeginsToWrite) {
  std::mt19937_64 random(1);
  for (int trial = 0; trial < 2000; ++trial) {
    const std::uint64_t above = std::uniform_int_distribution<std::uint64_t>(1, 40 * gigabyte)(random);
    const Duration idle(std::uniform_int_distribution<Duration::rep>(0, Duration(2min).count())(random));
    set("/data", lowMark + above);
    look();
    const Time writing = now_ + idle;
    const Time crossing = writing + std::chrono::duration_cast<Duration>(
                                        std::chrono::duration<double>(static_cast<double>(above) / rate));
    while (true) {
      pass(untilNextLook());
      set("/data", lowMark + above - std::min(lowMark + above, bytesIn(std::max(now_ - writing, Duration{}))));
      if (announced()) {
        break;
      }
      ASSERT_GT(untilNextLook(), 100ms);
      ASSERT_LT(now_, crossing + 1s) << above << " bytes, idle for " << idle.count();
    }
    EXPECT_GE(now_, crossing);
    EXPECT_LT(now_ - crossing, 1s) << above << " bytes, idle for " << idle.count();
    unmount("/data");
    look();
    policy_.end(run_, now_);
    pass(1s);
    look();
  }
}

TEST_F(TheNextLook, FollowsRatesBeyondTheExpectedOnes) {
  set("/data", lowMark + 12 * gigabyte);
  look();
  pass(1s);
  set("/data", lowMark + 10 * gigabyte);
  look();
  // 2 GB a second were seen, and twice that may come.
  EXPECT_EQ(untilNextLook(), 2500ms + 750ms);
  pass(1s);
  look();
  EXPECT_EQ(untilNextLook(), 5s + 750ms) << "a burst is not over with the first quiet moment";
}

TEST_F(TheNextLook, WaitsForTheLowerMarkOnceTheUpperOneIsCrossed) {
  set("/data", lowMark - 1);
  look();
  ASSERT_TRUE(announced());
  taken();
  look();
  EXPECT_NEAR(std::chrono::duration<double>(untilNextLook()).count(),
              static_cast<double>(lowMark - veryLowMark) / rate + 0.75, 0.01);
}

TEST_F(TheNextLook, ComesSeldomWhileAVeryLowVolumeStaysAsItIs) {
  set("/data", veryLowMark - 1);
  ASSERT_TRUE(announced());
  taken();
  EXPECT_EQ(untilNextLook(), 1s);
  pass(8s);
  look();
  EXPECT_EQ(untilNextLook(), 8s);
  pass(5min);
  look();
  EXPECT_EQ(untilNextLook(), 30s);
  pass(1s);
  set("/data", 10 * mebibyte);
  look();
  EXPECT_EQ(untilNextLook(), 1s) << "something goes on";
}

TEST_F(TheNextLook, IsTheSameForAllVolumes) {
  set("/near", lowMark + 500 * megabyte);
  set("/far", lowMark + 10 * gigabyte);
  look();
  EXPECT_EQ(untilNextLook(), 1s + 750ms);
}

}  // namespace
}  // namespace kelvane
