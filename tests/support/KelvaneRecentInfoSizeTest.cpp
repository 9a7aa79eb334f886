// SPDX-License-Identifier: Apache-2.0
// The record of recent answers when it grows beyond what is kept: what goes, and what stays.
#include <set>
#include <string>

#include "platform/Clock.h"
#include "platform/Limits.h"
#include "support/KelvaneRecentInfo.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using Services = KelvaneRecentVolumeInfo::Services;
using Volumes = KelvaneRecentInfo::Volumes;

constexpr std::uint64_t change = 5'242'880;
constexpr double threshold = 120.0;

Date secondsAgo(double seconds) {
  return {clock::now().secondsSince1970 - seconds};
}

/// So many services with identifiers of this length, which all answered so long ago.
Services services(std::size_t count, std::size_t identifierBytes, double age) {
  Services result;
  for (std::size_t index = 0; index < count; ++index) {
    std::string identifier = std::to_string(index);
    identifier.resize(identifierBytes, '.');
    result.emplace(identifier, KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(index, secondsAgo(age)));
  }
  return result;
}

class ALongRecord : public OperationTest {
 protected:
  static KelvaneRecentVolumeInfo volumeOf(const std::string& name, Services answers, double age) {
    return KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(std::move(answers), availableAtFirst, secondsAgo(age),
                                                            name);
  }
  /// Volumes "/0" to, each with so many services, of which each was asked a second before the next.
  Volumes volumes(int count, std::size_t servicesOfEach, std::size_t identifierBytes) {
    Volumes result;
    for (int index = 0; index < count; ++index) {
      const std::string name = "/" + std::to_string(index);
      simulation->volumes().add(name, availableAtFirst);
      const double age = count - index;
      result.emplace(name, volumeOf(name, services(servicesOfEach, identifierBytes, age), age));
    }
    return result;
  }
  static std::set<std::string> namesIn(const KelvaneRecentInfo& record) {
    std::set<std::string> names;
    for (const auto& [name, volume] : *record.volumes()) {
      names.insert(name);
    }
    return names;
  }
};

TEST_F(ALongRecord, HasRoomForAllServicesThatMayConnectWithTheLongestIdentifiersAndAmounts) {
  run([&] {
    Services all;
    for (auto& [identifier, service] : services(limits::endpoints, limits::serviceIdentifierBytes, 0)) {
      const std::string amount(limits::recentAmountBytes - 5, 'x');
      all.emplace(identifier, KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, clock::now()));
    }
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(Volumes{{volume, volumeOf(volume, all, 0)}});
    record->setAskedVolume(volume);
    EXPECT_EQ(record->validate(change, threshold), 1);
    ASSERT_TRUE(record->archive());
    EXPECT_EQ(*KelvaneRecentInfo::fromArchive(*record->archive()), *record);
  });
}

TEST_F(ALongRecord, HasRoomForAllServicesThatMayConnectWithAmountsOfAsManyValuesAsMayBe) {
  run([&] {
    Services all;
    const Value amount(Value::Array(limits::recentAmountEntries - 1, Value(true)));
    for (auto& [identifier, service] : services(limits::endpoints, 20, 0)) {
      all.emplace(identifier, KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, clock::now()));
    }
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(Volumes{{volume, volumeOf(volume, all, 0)}});
    ASSERT_TRUE(record->archive());
    EXPECT_EQ(*KelvaneRecentInfo::fromArchive(*record->archive()), *record);
  });
}

TEST_F(ALongRecord, LosesItsOldestVolumesAndNoMoreThanItMust) {
  run([&] {
    // Each of them a sixth of what is kept.
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(volumes(8, 500, 1000));
    record->setAskedVolume("/7");
    EXPECT_FALSE(record->archive());
    const std::uint64_t changes = record->changes();
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_GT(record->changes(), changes);
    EXPECT_EQ(namesIn(*record), (std::set<std::string>{"/2", "/3", "/4", "/5", "/6", "/7"}));
    EXPECT_TRUE(record->archive());
    EXPECT_EQ(record->validate(change, threshold), 1) << "what is left stays";
  });
}

TEST_F(ALongRecord, NeverLosesTheVolumeThatIsAskedAboutHoweverOldItIs) {
  run([&] {
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(volumes(8, 500, 1000));
    record->setAskedVolume("/0");
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_EQ(namesIn(*record), (std::set<std::string>{"/0", "/3", "/4", "/5", "/6", "/7"}));
  });
}

TEST_F(ALongRecord, LosesWhatHasHadItsTimeBeforeAnythingElse) {
  run([&] {
    Volumes all = volumes(7, 500, 1000);
    // The newest volume, with answers that are too old: without them all the others fit.
    all.insert_or_assign("/6", volumeOf("/6", services(500, 1000, threshold + 1), 0));
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(std::move(all));
    record->setAskedVolume("/5");
    EXPECT_FALSE(record->archive());
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_EQ(namesIn(*record).size(), 7u);
    EXPECT_TRUE(record->volumes()->at("/6").services()->empty());
    EXPECT_TRUE(record->archive());
  });
}

TEST_F(ALongRecord, FitsByItsEntriesToo) {
  run([&] {
    // Short ones: of bytes they take too few, but of entries too many.
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(volumes(50, 1000, 5));
    record->setAskedVolume("/49");
    EXPECT_FALSE(record->archive());
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_GT(namesIn(*record).size(), 40u);
    EXPECT_TRUE(record->archive());
  });
}

TEST_F(ALongRecord, CannotBeHelpedWhenOneVolumeIsTooMuch) {
  run([&] {
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(
        Volumes{{volume, volumeOf(volume, services(4000, limits::serviceIdentifierBytes, 0), 0)}});
    record->setAskedVolume(volume);
    EXPECT_EQ(record->validate(change, threshold), 1);
    EXPECT_EQ(record->volumes()->at(volume).services()->size(), 4000u);
    EXPECT_FALSE(record->archive());
  });
}

TEST_F(ALongRecord, TakesInItsArchiveWhatIsCountedForItWhateverItHolds) {
  run([&] {
    for (const Value& amount : {Value(), Value(true), Value(-7), Value(0.5), Value("text"), Value(Data{1, 2, 3}),
                                Value(Date{5}), Value(Value::Array{1, "a", Value::Array{}}),
                                Value(Value::Dictionary{{"key", Value::Dictionary{{"in", false}}}})}) {
      const auto service = KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, clock::now());
      const KelvaneRecentVolumeInfo answers = volumeOf("/data", Services{{"a", service}}, 0);
      const auto record = KelvaneRecentInfo::kelvaneRecentInfo(Volumes{{"/data", answers}});
      archive::Size size = archiveSizeOfRecord();
      size += archiveSizeOf("/data", answers);
      size += archiveSizeOf("a", service);
      EXPECT_EQ(record->archive()->size(), size.bytes) << amount.description();
    }
  });
}

}  // namespace
}  // namespace kelvane::test
