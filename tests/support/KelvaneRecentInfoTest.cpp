// SPDX-License-Identifier: Apache-2.0
// The record of recent answers: what it holds, how long, and as an archive.
#include "support/KelvaneRecentInfo.h"

#include <cmath>

#include "platform/Clock.h"
#include "platform/Limits.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using Services = KelvaneRecentVolumeInfo::Services;
using Volumes = KelvaneRecentInfo::Volumes;

constexpr std::uint64_t change = 5'242'880;
constexpr double threshold = 120.0;

KelvaneRecentServiceInfo answer(Value amount, Value timestamp) {
  return KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(std::move(amount), std::move(timestamp));
}

KelvaneRecentVolumeInfo volumeInfo(std::optional<Services> services, Value freespace, Value timestamp,
                                   Value name = "/data") {
  return KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(std::move(services), std::move(freespace),
                                                          std::move(timestamp), std::move(name));
}

std::shared_ptr<KelvaneRecentInfo> recordOf(KelvaneRecentVolumeInfo volume) {
  return KelvaneRecentInfo::kelvaneRecentInfo(Volumes{{"/data", std::move(volume)}});
}

class TheRecord : public OperationTest {
 protected:
  static Date secondsAgo(double seconds) { return {clock::now().secondsSince1970 - seconds}; }
  /// The identifiers that are still there for "/data".
  static std::vector<std::string> servicesOf(const KelvaneRecentInfo& record) {
    std::vector<std::string> identifiers;
    if (const auto volume = record.volumes()->find("/data"); volume != record.volumes()->end()) {
      for (const auto& [identifier, service] : *volume->second.services()) {
        identifiers.push_back(identifier);
      }
    }
    return identifiers;
  }
};

TEST_F(TheRecord, StaysAsItIsWhileNothingHasChanged) {
  run([&] {
    const auto record = recordOf(volumeInfo(Services{{"a", answer(1, clock::now())}}, availableAtFirst, clock::now()));
    const KelvaneRecentInfo before = *record;
    EXPECT_EQ(record->validate(change, threshold), 1);
    EXPECT_EQ(*record, before);
    EXPECT_EQ(record->changes(), before.changes());
  });
}

TEST_F(TheRecord, DropsServicesWhoseAnswerIsTooOld) {
  run([&] {
    const auto record =
        recordOf(volumeInfo(Services{{"just", answer(1, secondsAgo(120.0))}, {"old", answer(2, secondsAgo(120.5))}},
                            availableAtFirst, clock::now()));
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_EQ(servicesOf(*record), std::vector<std::string>{"just"});
    EXPECT_EQ(record->validate(change, threshold), 1);
    clock::sleepMicroseconds(1000);
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_TRUE(servicesOf(*record).empty());
  });
}

TEST_F(TheRecord, CountsItsChanges) {
  run([&] {
    const auto record =
        recordOf(volumeInfo(Services{{"old", answer(1, secondsAgo(120.5))}}, availableAtFirst, clock::now()));
    std::uint64_t before = record->changes();
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_GT(record->changes(), before);
    before = record->changes();
    EXPECT_EQ(record->validate(change, threshold), 1);
    EXPECT_EQ(record->changes(), before);
    Volumes volumes = record->takeVolumes();
    EXPECT_GT(record->changes(), before);
    before = record->changes();
    record->setVolumes(std::move(volumes));
    EXPECT_GT(record->changes(), before);
  });
}

TEST_F(TheRecord, DropsServicesWhoseAnswerIsFromTheFutureOrNoTime) {
  run([&] {
    const auto record = recordOf(volumeInfo(Services{{"future", answer(1, secondsAgo(-0.5))},
                                                     {"never", answer(2, Date{std::nan("")})},
                                                     {"now", answer(3, clock::now())}},
                                            availableAtFirst, clock::now()));
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_EQ(servicesOf(*record), std::vector<std::string>{"now"});
  });
}

TEST_F(TheRecord, DropsVolumesThatAreTooOldOrFromTheFuture) {
  run([&] {
    for (const double age : {120.5, -0.5}) {
      const auto record =
          recordOf(volumeInfo(Services{{"a", answer(1, clock::now())}}, availableAtFirst, secondsAgo(age)));
      EXPECT_EQ(record->validate(change, threshold), 3);
      EXPECT_TRUE(record->volumes()->empty());
    }
  });
}

TEST_F(TheRecord, DropsTheServicesOfAVolumeWhoseFreeSpaceHasChanged) {
  run([&] {
    simulation->volumes().setAvailable(volume, 100'000'000);
    for (const bool rises : {true, false}) {
      for (const std::uint64_t by : {change, change + 1}) {
        const std::uint64_t before = rises ? 100'000'000 - by : 100'000'000 + by;
        const auto record = recordOf(volumeInfo(Services{{"a", answer(1, clock::now())}}, before, clock::now()));
        const bool isMore = by > change;
        EXPECT_EQ(record->validate(change, threshold), isMore ? 3 : 1) << by;
        EXPECT_EQ(servicesOf(*record).empty(), isMore) << by;
        EXPECT_EQ(record->volumes()->size(), 1u);
        EXPECT_EQ(record->validate(change, threshold), 1) << "there is nothing more to drop";
      }
    }
  });
}

TEST_F(TheRecord, LooksAtEachVolumeByItself) {
  run([&] {
    simulation->volumes().add("/other", 50'000'000);
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(Volumes{
        {"/data", volumeInfo(Services{{"a", answer(1, clock::now())}}, availableAtFirst, clock::now())},
        {"/other", volumeInfo(Services{{"a", answer(1, clock::now())}}, 1, clock::now(), "/other")},
        {"/gone", volumeInfo(Services{{"a", answer(1, clock::now())}}, 50'000'000, clock::now(), "/gone")},
    });
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_EQ(servicesOf(*record), std::vector<std::string>{"a"});
    EXPECT_TRUE(record->volumes()->at("/other").services()->empty());
    EXPECT_EQ(record->volumes()->at("/gone").services()->size(), 1u) << "what is not known has not changed";
  });
}

TEST_F(TheRecord, OfAnUnexpectedShapeIsInvalidAndLeftAsItIs) {
  run([&] {
    const Services old = {{"old", answer(1, secondsAgo(1000))}};
    const Value now = clock::now();
    const std::vector<std::shared_ptr<KelvaneRecentInfo>> records = {
        KelvaneRecentInfo::kelvaneRecentInfo(std::nullopt),
        recordOf(volumeInfo(old, "1000", now)),
        recordOf(volumeInfo(old, Value(), now)),
        recordOf(volumeInfo(old, 1000, Value())),
        recordOf(volumeInfo(old, 1000, 7)),
        recordOf(volumeInfo(old, 1000, now, "/other")),
        recordOf(
            volumeInfo(Services{{"old", answer(1, secondsAgo(1000))}, {"timeless", answer(1, Value())}}, 1000, now)),
    };
    for (const auto& record : records) {
      const KelvaneRecentInfo before = *record;
      EXPECT_EQ(record->validate(change, threshold), 2);
      EXPECT_EQ(*record, before);
    }
  });
}

TEST_F(TheRecord, HasSoManyVolumesAndNoMore) {
  run([&] {
    Volumes volumes;
    for (std::size_t index = 0; index < limits::recentVolumes; ++index) {
      const std::string name = "/v" + std::to_string(index);
      volumes.emplace(name, volumeInfo(Services{}, 0, clock::now(), name));
    }
    EXPECT_EQ(KelvaneRecentInfo::kelvaneRecentInfo(volumes)->validate(change, threshold), 1);
    volumes.emplace("/data", volumeInfo(Services{}, 0, clock::now()));
    EXPECT_EQ(KelvaneRecentInfo::kelvaneRecentInfo(volumes)->validate(change, threshold), 2);
  });
}

TEST_F(TheRecord, FromAnArchiveLosesWhatIsNoVolume) {
  run([&] {
    const auto services = [] { return Services{{"a", answer(1, clock::now())}}; };
    const auto written = KelvaneRecentInfo::kelvaneRecentInfo(Volumes{
        {"/data", volumeInfo(services(), availableAtFirst, clock::now())},
        {"/net/server", volumeInfo(services(), 0, clock::now(), "/net/server")},
    });
    EXPECT_EQ(written->validate(change, threshold), 1);
    const auto record = KelvaneRecentInfo::fromArchive(*written->archive());
    EXPECT_EQ(record->validate(change, threshold), 3);
    EXPECT_EQ(record->volumes()->size(), 1u);
    EXPECT_EQ(servicesOf(*record), std::vector<std::string>{"a"});
    simulation->volumes().setUsable(volume, false);
    EXPECT_EQ(record->validate(change, threshold), 1) << "it is asked once";
  });
}

TEST_F(TheRecord, MayHaveAVolumeWithoutServicesAndAmountsThatAreNoNumbers) {
  run([&] {
    EXPECT_EQ(recordOf(volumeInfo(std::nullopt, 0, clock::now()))->validate(change, threshold), 1);
    const auto record =
        recordOf(volumeInfo(Services{{"a", answer("much", clock::now())}}, availableAtFirst, clock::now()));
    EXPECT_EQ(record->validate(change, threshold), 1);
  });
}

TEST_F(TheRecord, ComesBackFromItsArchiveWithAllItsFields) {
  run([&] {
    const auto record = KelvaneRecentInfo::kelvaneRecentInfo(Volumes{
        {"/data", volumeInfo(Services{{"a", answer(std::uint64_t{1} << 63, Date{1.5})},
                                      {"b", answer(Value::Dictionary{{"odd", Value::Array{Value()}}}, Value())}},
                             1000, Date{2.5})},
        {"/empty", volumeInfo(Services{}, -1, Date{3}, "/empty")},
        {"/none", volumeInfo(std::nullopt, Value(), "x", Value())},
    });
    const auto bytes = record->archive();
    ASSERT_TRUE(bytes);
    const auto again = KelvaneRecentInfo::fromArchive(*bytes);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(*again, *record);
    EXPECT_NE(again->volumes()->at("/empty").services(), nullptr);
    EXPECT_EQ(again->volumes()->at("/none").services(), nullptr);
    EXPECT_EQ(again->volumes()->at("/data").services()->at("a").amount(), Value(std::uint64_t{1} << 63));

    const auto none = KelvaneRecentInfo::kelvaneRecentInfo(std::nullopt);
    EXPECT_EQ(*KelvaneRecentInfo::fromArchive(*none->archive()), *none);
    const auto empty = KelvaneRecentInfo::kelvaneRecentInfo(Volumes{});
    EXPECT_EQ(*KelvaneRecentInfo::fromArchive(*empty->archive()), *empty);
    EXPECT_FALSE(*empty == *none);
  });
}

TEST_F(TheRecord, IsNotMadeOfAnythingElse) {
  run([&] {
    const Data bytes = *recordOf(volumeInfo(Services{{"a", answer(1, Date{})}}, 1, Date{}))->archive();
    const auto changed = [&](const std::string& from, const std::string& to) {
      std::string text(bytes.begin(), bytes.end());
      text.replace(text.find(from), from.size(), to);
      return Data(text.begin(), text.end());
    };
    EXPECT_NE(KelvaneRecentInfo::fromArchive(changed("KelvaneRecentInfo", "KelvaneRecentInfo")), nullptr);
    EXPECT_EQ(KelvaneRecentInfo::fromArchive(changed("KelvaneRecentInfo", "KelvaneRecentOnes")), nullptr);
    EXPECT_EQ(KelvaneRecentInfo::fromArchive(changed("volumeName", "volumeSize")), nullptr);
    // The version follows the class's name.
    EXPECT_EQ(KelvaneRecentInfo::fromArchive(changed(std::string("KelvaneRecentServiceInfo\1", 25),
                                                     std::string("KelvaneRecentServiceInfo\2", 25))),
              nullptr);
    EXPECT_EQ(KelvaneRecentInfo::fromArchive({}), nullptr);
    EXPECT_EQ(KelvaneRecentInfo::fromArchive(Data{1, 2, 3}), nullptr);
  });
}

TEST_F(TheRecord, IsNotMadeOfItsClassesInAnotherPlace) {
  run([&] {
    const Data bytes = *KelvaneRecentInfo::kelvaneRecentInfo(Volumes{})->archive();
    // The archive ends in the number of the object's class and its one field, five bytes of an empty dictionary.
    const std::size_t classNumber = bytes.size() - 5 - 4;
    for (const std::uint8_t other : {std::uint8_t{1}, std::uint8_t{2}}) {
      Data changed = bytes;
      changed[classNumber] = other;
      changed.insert(changed.end(), other == 1 ? 3 : 1, 0);
      EXPECT_EQ(KelvaneRecentInfo::fromArchive(changed), nullptr);
    }
  });
}

TEST_F(TheRecord, ThatIsTooLargeHasNoArchive) {
  run([&] {
    const auto record =
        recordOf(volumeInfo(Services{{"a", answer(std::string(limits::archiveBytes, 'x'), Date{})}}, 1, Date{}));
    EXPECT_FALSE(record->archive());
  });
}

TEST_F(TheRecord, ShowsItselfInLogLines) {
  run([&] {
    const auto record = recordOf(volumeInfo(Services{{"a", answer(7, Date{0})}}, 1000, Date{0}));
    EXPECT_EQ(record->description(),
              Value(Value::Dictionary{
                  {"/data",
                   Value::Dictionary{
                       {"freespace", 1000},
                       {"services", Value::Dictionary{{"a", Value::Dictionary{{"amount", 7}, {"timestamp", Date{0}}}}}},
                       {"timestamp", Date{0}}}}}));
  });
}

}  // namespace
}  // namespace kelvane::test
