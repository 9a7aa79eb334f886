// SPDX-License-Identifier: Apache-2.0
// A daemon that is killed, or whose machine loses power, while clients change its state.
#include <filesystem>

#include "tests/durability/DurabilityTest.h"

namespace kelvane {
namespace {

/// Far from what clients may store in all, so that nothing is refused, and yet more than a store has room for at first.
constexpr std::size_t large = 400'000;

/// How often: sanitizers get a sample.
constexpr int lives(int count) {
  return test::sanitizers.empty() ? count : count / 25;
}

using AnAcknowledgedChange = test::DurabilityTest;

TEST_F(AnAcknowledgedChange, OutlivesTheDaemonHoweverOftenItIsKilled) {
  liveAndDie(lives(1000), large, [this] { kill(); });
}

TEST_F(AnAcknowledgedChange, OutlivesLossesOfPowerAndKillsBetweenThem) {
  // What a daemon that was killed had written but not flushed, the next one has to flush before it relies on it.
  liveAndDie(lives(250), large, [this] { killOrLosePower(); });
}

using ANewStore = test::DurabilityTest;

TEST_F(ANewStore, IsNeverFoundHalfMade) {
  for (int life = 0; life < lives(150) && !HasFailure(); ++life) {
    SCOPED_TRACE(life);
    removeStores();
    startInVain();
    killOrLosePower();
    startDaemon();
    EXPECT_EQ(test::StateClient().set("key", "value").error, "");
    EXPECT_FALSE(std::filesystem::exists(std::string(test::storeDirectory) + ".damaged-1"));
    killOrLosePower();
    startDaemon();
    EXPECT_EQ(test::StateClient().get("key"), Value("value"));
    kill();
  }
  startDaemon();
}

}  // namespace
}  // namespace kelvane
