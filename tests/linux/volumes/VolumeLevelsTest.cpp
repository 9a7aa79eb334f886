// SPDX-License-Identifier: Apache-2.0
// When a volume counts as low on space.
#include "platform/linux/volumes/VolumeLevels.h"

#include <gtest/gtest.h>

#include <cmath>

namespace kelvane {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;
constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;

SpaceLevel levelOf(const VolumeLevels& levels, std::uint64_t size, std::uint64_t available,
                   const std::string& volume = "/data") {
  return levels.marks(volume, size).levelAt(available);
}

TEST(AVolume, IsLowBelowATenthOfItsSize) {
  const VolumeLevels levels;
  EXPECT_EQ(levelOf(levels, 1000 * mebibyte, 100 * mebibyte), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(levels, 1000 * mebibyte, 100 * mebibyte - 1), SpaceLevel::Low);
}

TEST(AVolume, OfAnySizeIsAmpleWithAGibibyteAvailable) {
  const VolumeLevels levels;
  EXPECT_EQ(levelOf(levels, 4096 * gibibyte, gibibyte), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(levels, 4096 * gibibyte, gibibyte - 1), SpaceLevel::Low);
}

TEST(AVolume, IsVeryLowBelowThreePercentAndAQuarterOfAGibibyte) {
  const VolumeLevels levels;
  EXPECT_EQ(levelOf(levels, 1000 * mebibyte, 30 * mebibyte), SpaceLevel::Low);
  EXPECT_EQ(levelOf(levels, 1000 * mebibyte, 30 * mebibyte - 1), SpaceLevel::VeryLow);
  EXPECT_EQ(levelOf(levels, 4096 * gibibyte, 256 * mebibyte), SpaceLevel::Low);
  EXPECT_EQ(levelOf(levels, 4096 * gibibyte, 256 * mebibyte - 1), SpaceLevel::VeryLow);
}

TEST(AVolume, UnderSixtyFourMebibytesIsNotWatched) {
  const VolumeLevels levels;
  EXPECT_EQ(levelOf(levels, 64 * mebibyte - 1, 0), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(levels, 64 * mebibyte, 0), SpaceLevel::VeryLow);
}

TEST(AVolumeConfiguration, ChangesTheBoundsOfAllVolumes) {
  const VolumeLevels levels(Value::Dictionary{
      {"LowPercent", 50}, {"LowBytes", 100 * gibibyte}, {"VeryLowPercent", 20.5}, {"VeryLowBytes", 100 * gibibyte}});
  EXPECT_EQ(levelOf(levels, 10 * gibibyte, 5 * gibibyte), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(levels, 10 * gibibyte, 5 * gibibyte - 1), SpaceLevel::Low);
  EXPECT_EQ(levelOf(levels, 1000 * mebibyte, 205 * mebibyte), SpaceLevel::Low);
  EXPECT_EQ(levelOf(levels, 1000 * mebibyte, 205 * mebibyte - 1), SpaceLevel::VeryLow);
}

TEST(AVolumeConfiguration, ChangesSingleVolumesOnTopOfTheRest) {
  const VolumeLevels levels(Value::Dictionary{
      {"LowBytes", 2 * gibibyte},
      {"Volumes", Value::Dictionary{{"/data", Value::Dictionary{{"LowPercent", 90}}},
                                    {"/scratch", Value::Dictionary{{"LowBytes", 0}, {"VeryLowBytes", 0}}}}}});
  EXPECT_EQ(levelOf(levels, 3 * gibibyte, 2 * gibibyte - 1), SpaceLevel::Low);
  EXPECT_EQ(levelOf(levels, 3 * gibibyte, 2 * gibibyte), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(levels, 3 * gibibyte, 2 * gibibyte - 1, "/other"), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(levels, 3 * gibibyte, 0, "/scratch"), SpaceLevel::Ample);
}

TEST(AVolumeConfiguration, SaysHowVolumesAreRelieved) {
  const VolumeLevels levels(Value::Dictionary{
      {"ReliefBytes", 5 * gibibyte},
      {"Volumes", Value::Dictionary{{"/data", Value::Dictionary{{"ReliefUrgencyLimit", 4}}},
                                    {"/scratch", Value::Dictionary{{"ReliefBytes", 1}, {"ReliefUrgencyLimit", 1}}}}}});
  EXPECT_EQ(levels.relief("/other"), (volumes::Relief{.amountBytes = 5 * gibibyte}));
  EXPECT_EQ(levels.relief("/data"), (volumes::Relief{.amountBytes = 5 * gibibyte, .urgencyLimit = 4}));
  EXPECT_EQ(levels.relief("/scratch"), (volumes::Relief{.amountBytes = 1, .urgencyLimit = 1}));
  EXPECT_EQ(VolumeLevels().relief("/other"), volumes::Relief());
  EXPECT_EQ(levels.volumes(), (std::set<std::string>{"/data", "/scratch"}));
}

TEST(AVolumeConfiguration, SaysWhichVolumesAreNotRelievedAtAll) {
  const VolumeLevels levels(
      Value::Dictionary{{"Relief", "NO"},
                        {"Volumes", Value::Dictionary{{"/data", Value::Dictionary{{"Relief", true}}},
                                                      {"/scratch", Value::Dictionary{{"Relief", "YES"}}},
                                                      {"/odd", Value::Dictionary{{"Relief", "no"}}},
                                                      {"/number", Value::Dictionary{{"Relief", 1}}}}}});
  EXPECT_EQ(levelOf(levels, gibibyte, 0, "/other"), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(levels, gibibyte, 0, "/data"), SpaceLevel::VeryLow);
  EXPECT_EQ(levelOf(levels, gibibyte, 0, "/scratch"), SpaceLevel::VeryLow);
  EXPECT_EQ(levelOf(levels, gibibyte, 0, "/odd"), SpaceLevel::Ample) << "as the others";
  EXPECT_EQ(levelOf(levels, gibibyte, 0, "/number"), SpaceLevel::Ample) << "as the others";
  const VolumeLevels single(
      Value::Dictionary{{"Volumes", Value::Dictionary{{"/data", Value::Dictionary{{"Relief", false}}}}}});
  EXPECT_EQ(levelOf(single, gibibyte, 0, "/data"), SpaceLevel::Ample);
  EXPECT_EQ(levelOf(single, gibibyte, 0, "/other"), SpaceLevel::VeryLow);
}

TEST(AVolumeConfiguration, OfReliefsThatAreOutOfRangeChangesNothing) {
  for (const Value& bytes : {Value(0), Value(-5), Value("5"), Value(std::nan(""))}) {
    EXPECT_EQ(VolumeLevels(Value::Dictionary{{"ReliefBytes", bytes}}).relief("/data"), volumes::Relief());
  }
  for (const Value& urgency : {Value(0), Value(5), Value(-1), Value("3"), Value(1e300), Value(std::nan(""))}) {
    EXPECT_EQ(VolumeLevels(Value::Dictionary{{"ReliefUrgencyLimit", urgency}}).relief("/data"), volumes::Relief());
  }
}

TEST(AVolumeConfiguration, OfTheWrongTypeOrRangeChangesNothing) {
  const VolumeLevels defaults;
  const VolumeLevels levels(Value::Dictionary{{"LowPercent", 101},
                                              {"LowBytes", -1},
                                              {"VeryLowPercent", "3"},
                                              {"VeryLowBytes", Value::Array{}},
                                              {"Volumes", Value::Array{"/data"}}});
  for (const std::uint64_t available :
       {std::uint64_t{0}, 29 * mebibyte, 31 * mebibyte, 99 * mebibyte, 101 * mebibyte}) {
    EXPECT_EQ(levelOf(levels, 1000 * mebibyte, available), levelOf(defaults, 1000 * mebibyte, available));
  }
  EXPECT_EQ(levelOf(VolumeLevels(Value("text")), 1000 * mebibyte, 0), SpaceLevel::VeryLow);
}

}  // namespace
}  // namespace kelvane
