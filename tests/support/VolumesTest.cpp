// SPDX-License-Identifier: Apache-2.0
// What volumes are asked, and what a purge has gained on one.
#include "support/Volumes.h"

#include <gtest/gtest.h>

#include "platform/simulated/Simulation.h"
#include "tests/harness/PrintValue.h"

namespace kelvane::test {
namespace {

class AVolume : public testing::Test {
 protected:
  AVolume() { simulation.volumes().add("/data", 1000); }

  static Value infoFor(Value volume) { return Value::Dictionary{{"KELVANE_VOLUME", std::move(volume)}}; }
  static std::uint64_t purgedSince(Value begin) {
    return amountPurged(Value::Dictionary{{"KELVANE_VOLUME", "/data"}, {"KELVANE_FREESPACE_BEGIN", std::move(begin)}});
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

TEST_F(AVolume, HasNoFreeSpaceWhenItIsNone) {
  EXPECT_EQ(volumeFreespace("/nowhere"), 0u);
  EXPECT_EQ(volumeFreespace(7), 0u);
  EXPECT_EQ(volumeFreespace(Value()), 0u);
}

TEST_F(AVolume, HasGainedWhatIsFreeNowAndWasNotAtTheBeginning) {
  EXPECT_EQ(purgedSince(std::uint64_t{1000}), 0u);
  simulation.volumes().give("/data", 40);
  EXPECT_EQ(purgedSince(std::uint64_t{1000}), 40u);
  EXPECT_EQ(purgedSince(1000), 40u);
  EXPECT_EQ(purgedSince(1000.0), 40u);
}

TEST_F(AVolume, HasNeverGainedLessThanNothing) {
  simulation.volumes().take("/data", 400);
  EXPECT_EQ(purgedSince(std::uint64_t{1000}), 0u);
  EXPECT_EQ(purgedSince(std::numeric_limits<std::uint64_t>::max()), 0u);
}

TEST_F(AVolume, HasGainedNothingWhileItsBeginningIsNotKnown) {
  EXPECT_EQ(amountPurged(infoFor("/data")), 0u);
  EXPECT_EQ(purgedSince("0"), 0u);
  EXPECT_EQ(purgedSince(Value()), 0u);
}

TEST_F(AVolume, HasGainedEverythingWhenItBeganFull) {
  EXPECT_EQ(purgedSince(std::uint64_t{0}), 1000u);
}

TEST_F(AVolume, HasGainedNothingWhenItIsGone) {
  simulation.volumes().remove("/data");
  EXPECT_EQ(purgedSince(std::uint64_t{0}), 0u);
}

}  // namespace
}  // namespace kelvane::test
