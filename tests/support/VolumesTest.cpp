// SPDX-License-Identifier: Apache-2.0
// What volumes are asked, and what a purge has gained on one.
#include "support/Volumes.h"

#include <gtest/gtest.h>

#include "platform/simulated/Simulation.h"
#include "tests/harness/PrintValue.h"

namespace kelvane::test {
namespace {

using Freespaces = std::vector<std::optional<std::uint64_t>>;

class AVolume : public testing::Test {
 protected:
  AVolume() { simulation.volumes().add("/data", 1000); }

  static Value infoFor(Value volume) { return Value::Dictionary{{"KELVANE_VOLUME", std::move(volume)}}; }
  static std::uint64_t purgedSince(Value begin, std::uint64_t freespace = 1000) {
    return amountPurged(Value::Dictionary{{"KELVANE_FREESPACE_BEGIN", std::move(begin)}}, freespace);
  }

  Simulation simulation;
};

TEST_F(AVolume, IsValidWhenTheInfoNamesOneThatCanBeUsed) {
  EXPECT_TRUE(validateVolume(infoFor("/data")));
  simulation.volumes().setUsable("/data", false);
  EXPECT_FALSE(validateVolume(infoFor("/data")));
}

TEST_F(AVolume, IsNotValidWhenItIsNotThere) {
  EXPECT_FALSE(validateVolume(infoFor("/nowhere")));
  EXPECT_FALSE(validateVolume(infoFor("")));
}

TEST_F(AVolume, IsNotValidWhenTheInfoNamesNone) {
  EXPECT_FALSE(validateVolume(Value::Dictionary{}));
  EXPECT_FALSE(validateVolume(Value::Dictionary{{"kelvane_volume", "/data"}}));
}

TEST_F(AVolume, IsNotValidWhenItIsOfAnotherType) {
  EXPECT_FALSE(validateVolume(infoFor(7)));
  EXPECT_FALSE(validateVolume(infoFor(true)));
  EXPECT_FALSE(validateVolume(infoFor(Value::Array{"/data"})));
  EXPECT_FALSE(validateVolume(infoFor(Value::Dictionary{{"KELVANE_VOLUME", "/data"}})));
  EXPECT_FALSE(validateVolume(infoFor(Data{'/'})));
  EXPECT_FALSE(validateVolume("/data"));
  EXPECT_FALSE(validateVolume(Value()));
}

TEST_F(AVolume, IsListedWhenItIsLocal) {
  simulation.volumes().add("/more", 10);
  simulation.volumes().add("/remote", 10);
  simulation.volumes().setLocal("/remote", false);
  EXPECT_EQ(getLocalVolumes(), (std::vector<std::string>{"/data", "/more"}));
}

TEST_F(AVolume, IsListedAsLowWhileItIs) {
  EXPECT_TRUE(lowSpaceVolumes().empty());
  simulation.volumes().setLow("/data", true);
  EXPECT_EQ(lowSpaceVolumes(), std::vector<std::string>{"/data"});
}

TEST_F(AVolume, TellsItsFreeSpace) {
  EXPECT_EQ(volumeFreespace("/data"), 1000u);
  simulation.volumes().give("/data", 5);
  EXPECT_EQ(volumeFreespace("/data"), 1005u);
}

TEST_F(AVolume, HasNoFreeSpaceThatIsKnownWhenItIsNone) {
  EXPECT_EQ(volumeFreespace("/nowhere"), std::nullopt);
  EXPECT_EQ(volumeFreespace(7), std::nullopt);
  EXPECT_EQ(volumeFreespace(Value()), std::nullopt);
  EXPECT_EQ(recentVolumeFreespaces({"/nowhere", "/data"}), (Freespaces{std::nullopt, 1000}));
  EXPECT_EQ(volumeFreeBytes("/nowhere"), std::nullopt);
}

TEST_F(AVolume, HasNoSpaceThatIsKnownWhileItDoesNotAnswer) {
  simulation.volumes().setSilent("/data", true);
  EXPECT_EQ(volumeFreespace("/data"), std::nullopt);
  EXPECT_EQ(recentVolumeFreespaces({"/data"}), Freespaces{std::nullopt});
  EXPECT_EQ(volumeFreeBytes("/data"), std::nullopt);
  simulation.volumes().setSilent("/data", false);
  EXPECT_EQ(recentVolumeFreespaces({"/data"}), Freespaces{1000});
}

TEST_F(AVolume, HasGainedWhatIsFreeNowAndWasNotAtTheBeginning) {
  EXPECT_EQ(purgedSince(std::uint64_t{1000}), 0u);
  EXPECT_EQ(purgedSince(std::uint64_t{1000}, 1040), 40u);
  EXPECT_EQ(purgedSince(1000, 1040), 40u);
  EXPECT_EQ(purgedSince(1000.0, 1040), 40u);
}

TEST_F(AVolume, HasNeverGainedLessThanNothing) {
  EXPECT_EQ(purgedSince(std::uint64_t{1000}, 600), 0u);
  EXPECT_EQ(purgedSince(std::numeric_limits<std::uint64_t>::max()), 0u);
}

TEST_F(AVolume, HasGainedNothingWhileItsBeginningIsNotKnown) {
  EXPECT_EQ(amountPurged(infoFor("/data"), 1000), 0u);
  EXPECT_EQ(purgedSince("0"), 0u);
  EXPECT_EQ(purgedSince(Value()), 0u);
}

TEST_F(AVolume, HasGainedEverythingWhenItBeganFull) {
  EXPECT_EQ(purgedSince(std::uint64_t{0}), 1000u);
}

}  // namespace
}  // namespace kelvane::test
