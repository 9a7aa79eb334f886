// SPDX-License-Identifier: Apache-2.0
// The record of recent answers: how queries read it and answers change it.
#include "operations/KelvanePurgeableOperation.h"
#include "platform/Clock.h"
#include "protocols/Keys.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using Services = KelvaneRecentVolumeInfo::Services;
using Volumes = KelvaneRecentInfo::Volumes;

const std::string readName = "-[KelvanePurgeableOperation cachedInfo:]_block";
const std::string writeName = "-[KelvanePurgeableOperation updateServiceStats:withInfo:]_block";
const std::string recentKey = keys::recentServiceStats;

class RecentAnswers : public OperationTest {
 protected:
  /// An operation on services with these identifiers.
  std::shared_ptr<KelvanePurgeableOperation> operationOn(const std::vector<std::string>& identifiers) {
    ServiceTable services;
    for (const std::string& identifier : identifiers) {
      services[identifier] = std::make_shared<KLService>(identifier);
      services[identifier]->setDoesPurge(true);
    }
    return KelvanePurgeableOperation::initWithInfo(Value::Dictionary{{keys::volume, volume}}, services);
  }
  Value read(const std::vector<std::string>& identifiers, const Value& info) {
    return operationOn(identifiers)->cachedInfo(info);
  }
  Value read(const std::vector<std::string>& identifiers) {
    return read(identifiers, Value::Dictionary{{keys::volume, volume}});
  }
  void note(const std::string& identifier, Value amount, const std::string& onVolume = volume) {
    KelvanePurgeableOperation::updateServiceStats(
        identifier, Value::Dictionary{{keys::amount, std::move(amount)}, {keys::volume, onVolume}});
    simulation->settle();
  }

  static Value cached(Value::Dictionary toCount, Value::Array toQuery) {
    return Value::Dictionary{{keys::servicesToCount, std::move(toCount)}, {keys::servicesToQuery, std::move(toQuery)}};
  }
  void store(std::shared_ptr<KelvaneRecentInfo> record) { registry->state[recentKey] = std::move(record); }
  std::shared_ptr<KelvaneRecentInfo> stored() {
    return std::get<std::shared_ptr<KelvaneRecentInfo>>(registry->state.at(recentKey));
  }
  bool isStored() { return registry->state.contains(recentKey); }

  static KelvaneRecentServiceInfo answer(Value amount, double secondsOld = 0) {
    return KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(std::move(amount),
                                                              Date{clock::now().secondsSince1970 - secondsOld});
  }
  static KelvaneRecentVolumeInfo volumeInfo(std::optional<Services> services, Value freespace = availableAtFirst) {
    return KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(std::move(services), std::move(freespace), clock::now(),
                                                            volume);
  }
  static std::shared_ptr<KelvaneRecentInfo> recordOf(std::optional<Services> services,
                                                     Value freespace = availableAtFirst) {
    return KelvaneRecentInfo::kelvaneRecentInfo(Volumes{{volume, volumeInfo(std::move(services), freespace)}});
  }
};

// Reading.

TEST_F(RecentAnswers, AreNoneOnAFreshSystem) {
  run([&] {
    EXPECT_EQ(read({"a", "b"}), cached({}, {"a", "b"}));
    EXPECT_TRUE(registry->changes.empty());
    EXPECT_EQ(log().textsOf(readName),
              (std::vector<std::string>{readName + " servicesToCount: { }", readName + " servicesToQuery: ( a, b )"}));
  });
}

TEST_F(RecentAnswers, StandForAskingAgain) {
  run([&] {
    note("a", 100);
    note("b", "much");
    log().clear();
    registry->changes.clear();
    EXPECT_EQ(read({"a", "b"}), cached({{"a", 100}, {"b", "much"}}, {}));
    EXPECT_EQ(log().textsOf(readName), (std::vector<std::string>{readName + " servicesToCount: { a = 100; b = much; }",
                                                                 readName + " using all cached info"}));
    EXPECT_TRUE(registry->changes.empty()) << "nothing has changed, so nothing is stored";
    EXPECT_EQ(read({"a", "c"}), cached({{"a", 100}, {"b", "much"}}, {"c"}));
  });
}

TEST_F(RecentAnswers, CountForServicesThatNoLongerPurge) {
  run([&] {
    note("gone", 100);
    EXPECT_EQ(read({}), cached({{"gone", 100}}, {}));
    const auto record = std::make_shared<KLService>("gone");
    ASSERT_FALSE(record->doesPurge());
    const Value info = Value::Dictionary{{keys::volume, volume}};
    EXPECT_EQ(KelvanePurgeableOperation::initWithInfo(info, tableOf({record}))->cachedInfo(info),
              cached({{"gone", 100}}, {}));
  });
}

TEST_F(RecentAnswers, CountForTheirVolumeOnly) {
  run([&] {
    simulation->volumes().add("/other", 50);
    note("a", 100);
    note("a", 7, "/other");
    EXPECT_EQ(read({"a"}), cached({{"a", 100}}, {}));
    EXPECT_EQ(read({"a"}, Value::Dictionary{{keys::volume, "/other"}}), cached({{"a", 7}}, {}));
    EXPECT_EQ(read({"a"}, Value::Dictionary{{keys::volume, "/third"}}), cached({}, {"a"}));
  });
}

TEST_F(RecentAnswers, AreNotLookedAtWithoutAVolume) {
  run([&] {
    note("a", 100);
    registry->changes.clear();
    EXPECT_EQ(read({"a"}, Value::Dictionary{}), cached({}, {"a"}));
    EXPECT_TRUE(registry->changes.empty());
  });
}

TEST_F(RecentAnswers, AreAskedForAgainAfterTwoMinutes) {
  run([&] {
    note("old", 1);
    clock::sleepMicroseconds(60'000'000);
    note("new", 2);
    clock::sleepMicroseconds(60'000'000);
    EXPECT_EQ(read({"new", "old"}), cached({{"new", 2}, {"old", 1}}, {}));
    clock::sleepMicroseconds(1);
    log().clear();
    registry->changes.clear();
    EXPECT_EQ(read({"new", "old"}), cached({{"new", 2}}, {"old"}));
    EXPECT_EQ(registry->changes, std::vector<std::string>{recentKey});
    EXPECT_EQ(stored()->volumes()->at(volume).services()->size(), 1u);
    EXPECT_EQ(log().textsOf(readName), (std::vector<std::string>{readName + " servicesToCount: { new = 2; }",
                                                                 readName + " Recent Info need syncing. New values: " +
                                                                     stored()->description().description(),
                                                                 readName + " servicesToQuery: ( old )"}));
  });
}

TEST_F(RecentAnswers, AreAskedForAgainWhenTheVolumesFreeSpaceHasChanged) {
  run([&] {
    for (const bool rises : {true, false}) {
      simulation->volumes().setAvailable(volume, 100'000'000);
      note("a", 1);
      const auto change = [&](std::uint64_t bytes) {
        rises ? simulation->volumes().give(volume, bytes) : simulation->volumes().take(volume, bytes);
      };
      change(5'242'880);
      EXPECT_EQ(read({"a"}), cached({{"a", 1}}, {}));
      change(1);
      EXPECT_EQ(read({"a"}), cached({}, {"a"}));
      EXPECT_TRUE(stored()->volumes()->at(volume).services()->empty());
    }
  });
}

TEST_F(RecentAnswers, StandWhileTheVolumeDoesNotAnswer) {
  run([&] {
    store(recordOf(Services{{"a", answer(7)}}));
    const auto operation = operationOn({"a"});
    simulation->volumes().setSilent(volume, true);
    EXPECT_EQ(operation->cachedInfo(Value::Dictionary{{keys::volume, volume}}), cached({{"a", 7}}, {}));
    EXPECT_TRUE(registry->changes.empty());
  });
}

TEST_F(RecentAnswers, ServeOneMorePassWhenTheRecordIsInvalid) {
  run([&] {
    store(recordOf(Services{{"a", answer(100, 1000)}}, "no number"));
    EXPECT_EQ(read({"a", "b"}), cached({{"a", 100}}, {"b"}));
    EXPECT_FALSE(isStored());
    EXPECT_EQ(registry->changes, std::vector<std::string>{"-" + recentKey});
    EXPECT_EQ(log().textsOf(readName), (std::vector<std::string>{readName + " servicesToCount: { a = 100; }",
                                                                 readName + " Recent Info is invalid, deleting...",
                                                                 readName + " servicesToQuery: ( b )"}));
    EXPECT_EQ(log().count(" Recent Info is invalid, deleting...", 5), 1u);
    EXPECT_EQ(read({"a", "b"}), cached({}, {"a", "b"}));
  });
}

TEST_F(RecentAnswers, AreNoneInARecordWithoutVolumes) {
  run([&] {
    store(KelvaneRecentInfo::kelvaneRecentInfo(std::nullopt));
    EXPECT_EQ(read({"a"}), cached({}, {"a"}));
    EXPECT_FALSE(isStored());
  });
}

TEST_F(RecentAnswers, AreNoneWhereSomethingElseIsStored) {
  run([&] {
    for (const StateObject& other : {StateObject(Value("text")), StateObject(std::shared_ptr<KelvaneRecentInfo>())}) {
      registry->state[recentKey] = other;
      EXPECT_EQ(read({"a"}), cached({}, {"a"}));
      EXPECT_EQ(registry->state[recentKey], other);
    }
    EXPECT_TRUE(registry->changes.empty());
  });
}

TEST_F(RecentAnswers, AreReadOnTheDefaultsQueue) {
  run([&] {
    registry->defaults_queue().suspend();
    bool isRead = false;
    globalQueue::async([&] {
      read({"a"});
      isRead = true;
    });
    simulation->settle();
    EXPECT_FALSE(isRead);
    registry->defaults_queue().resume();
    simulation->settle();
    EXPECT_TRUE(isRead);
  });
}

// Writing.

TEST_F(RecentAnswers, MakeTheRecord) {
  run([&] {
    const Value statistics = Value::Dictionary{{keys::amount, 100}, {keys::volume, volume}};
    KelvanePurgeableOperation::updateServiceStats("a", statistics);
    simulation->settle();
    EXPECT_EQ(*stored(), *recordOf(Services{{"a", answer(100)}}));
    EXPECT_EQ(log().textsOf(writeName), std::vector<std::string>{writeName + " ^^^ENTRY, serviceID: a : " +
                                                                 statistics.description() + ", recentInfo: (null)"});
    log().clear();
    const std::string before = stored()->description().description();
    note("b", 200);
    EXPECT_TRUE(log().contains(", recentInfo: " + before));
    EXPECT_EQ(*stored(), *recordOf(Services{{"a", answer(100)}, {"b", answer(200)}}));
  });
}

TEST_F(RecentAnswers, TakeTheirOwnEntrysPlaceAndRefreshTheVolume) {
  run([&] {
    note("a", 100);
    note("b", 200);
    clock::sleepMicroseconds(10'000'000);
    simulation->volumes().give(volume, 500);
    note("a", 101);
    EXPECT_EQ(*stored(), *recordOf(Services{{"a", answer(101)}, {"b", answer(200, 10)}}, availableAtFirst + 500));
  });
}

TEST_F(RecentAnswers, LeaveOtherVolumesAsTheyWere) {
  run([&] {
    simulation->volumes().add("/other", 50);
    note("a", 100);
    const KelvaneRecentVolumeInfo before = stored()->volumes()->at(volume);
    clock::sleepMicroseconds(10'000'000);
    note("a", 7, "/other");
    EXPECT_EQ(stored()->volumes()->at(volume), before);
    EXPECT_EQ(stored()->volumes()->at("/other").freespace(), Value(std::uint64_t{50}));
    EXPECT_EQ(stored()->volumes()->at("/other").volumeName(), Value("/other"));
  });
}

TEST_F(RecentAnswers, ReachAVolumeThatHasNoServices) {
  run([&] {
    store(recordOf(std::nullopt));
    note("a", 100);
    EXPECT_EQ(*stored(), *recordOf(Services{{"a", answer(100)}}));
  });
}

TEST_F(RecentAnswers, ReachARecordThatHasNoVolumes) {
  run([&] {
    store(KelvaneRecentInfo::kelvaneRecentInfo(std::nullopt));
    note("a", 100);
    EXPECT_EQ(*stored(), *recordOf(Services{{"a", answer(100)}}));
  });
}

TEST_F(RecentAnswers, TakeThePlaceOfWhatIsNoRecord) {
  run([&] {
    registry->state[recentKey] = Value("text");
    note("a", 100);
    EXPECT_EQ(*stored(), *recordOf(Services{{"a", answer(100)}}));
  });
}

TEST_F(RecentAnswers, DropWhatIsTooOldAsTheyAreNoted) {
  run([&] {
    simulation->volumes().add("/other", 50);
    note("elsewhere", 1, "/other");
    note("old", 1);
    clock::sleepMicroseconds(120'000'001);
    note("new", 2);
    EXPECT_EQ(*stored(), *recordOf(Services{{"new", answer(2)}}));
  });
}

TEST_F(RecentAnswers, AreStoredEvenInARecordThatIsInvalid) {
  run([&] {
    auto record = recordOf(Services{{"a", answer(100)}});
    Volumes volumes = record->takeVolumes();
    volumes.emplace("/odd", KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo({}, "odd", "odd", "odd"));
    record->setVolumes(std::move(volumes));
    store(record);
    note("b", 200);
    EXPECT_EQ(registry->changes, std::vector<std::string>{recentKey});
    EXPECT_EQ(stored()->volumes()->at(volume).services()->size(), 2u);
    EXPECT_TRUE(stored()->volumes()->contains("/odd"));
  });
}

TEST_F(RecentAnswers, OnAVolumeThatDoesNotAnswerAreForgotten) {
  run([&] {
    store(recordOf(Services{{"a", answer(7)}}));
    simulation->volumes().setSilent(volume, true);
    note("a", 9);
    note("b", 5);
    EXPECT_TRUE(registry->changes.empty());
    EXPECT_EQ(stored()->volumes()->at(volume).services()->at("a").amount(), Value(7));
    EXPECT_EQ(log().texts(3),
              (std::vector<std::string>{writeName + " free space of /data is not known, forgetting the answer of a",
                                        writeName + " free space of /data is not known, forgetting the answer of b"}));
  });
}

TEST_F(RecentAnswers, AreNotedLaterOnTheDefaultsQueue) {
  run([&] {
    registry->defaults_queue().suspend();
    note("a", 100);
    EXPECT_FALSE(isStored());
    registry->defaults_queue().resume();
    simulation->settle();
    EXPECT_TRUE(isStored());
  });
}

TEST_F(RecentAnswers, ThatWereNotedBeforeAReadAreFoundByIt) {
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    run(
        [&] {
          KelvanePurgeableOperation::updateServiceStats("a",
                                                        Value::Dictionary{{keys::amount, 1}, {keys::volume, volume}});
          EXPECT_EQ(read({"a"}), cached({{"a", 1}}, {}));
        },
        seed);
  }
}

}  // namespace
}  // namespace kelvane::test
