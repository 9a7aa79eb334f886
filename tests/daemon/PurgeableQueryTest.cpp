// SPDX-License-Identifier: Apache-2.0
// Queries through the whole daemon: what it remembers, how long, and what others may put in its place.
#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

class AQuery : public DaemonTest {
 protected:
  Value query(const char* user = "client") {
    return clientOf(user).purgeableSpace(Value::Dictionary{{keys::volume, volume}});
  }
  static Value result(Value::Dictionary amounts, std::int64_t total) {
    amounts[keys::totalAvailable] = total;
    amounts[keys::volume] = volume;
    return amounts;
  }
};

TEST_F(AQuery, AsksNobodyTheSecondTime) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    EXPECT_EQ(query(), result({{"a", 100}}, 100));
    EXPECT_EQ(service.count("servicePurgeable 3"), 1u);
    log().clear();
    const std::uint64_t start = clock::ticks();
    EXPECT_EQ(query(), result({{"a", 100}}, 100));
    EXPECT_EQ(clock::ticks(), start);
    EXPECT_TRUE(log().contains("using all cached info"));
    EXPECT_EQ(service.count("servicePurgeable 3"), 1u);
  });
}

TEST_F(AQuery, RemembersAnAnswerWhateverUrgencyItWasGivenAt) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    for (const int urgency : {1, 4}) {
      EXPECT_EQ(TestClient().purgeableSpace(Value::Dictionary{{keys::volume, volume}, {keys::urgency, urgency}})["a"],
                Value(100));
    }
    EXPECT_EQ(service.count("servicePurgeable 4"), 0u);
  });
}

TEST_F(AQuery, AsksAgainAfterTwoMinutesOrFiveMebibytes) {
  runDaemon([&] {
    simulation->volumes().setAvailable(volume, 100'000'000);
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    query();
    // The first query took a tick of its own after the answer.
    clock::sleepMicroseconds(119'900'000);
    query();
    EXPECT_EQ(service.count("servicePurgeable 3"), 1u);
    clock::sleepMicroseconds(100'001);
    query();
    EXPECT_EQ(service.count("servicePurgeable 3"), 2u);
    simulation->volumes().take(volume, 5'242'880);
    query();
    EXPECT_EQ(service.count("servicePurgeable 3"), 2u);
    simulation->volumes().take(volume, 1);
    EXPECT_EQ(query(), result({{"a", 100}}, 100));
    EXPECT_EQ(service.count("servicePurgeable 3"), 3u);
  });
}

TEST_F(AQuery, CountsAServiceThatIsGone) {
  runDaemon([&] {
    {
      ScriptedService service("a");
      service.onPurgeable = ScriptedService::gives(100);
      checkIn(TestClient(), service);
      query();
    }
    simulation->settle();
    EXPECT_EQ(recordOf("a"), nullptr);
    EXPECT_EQ(query(), result({{"a", 100}}, 100));
  });
}

TEST_F(AQuery, RemembersBeyondARestart) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    query();
    // Answers are written with whatever else is.
    EXPECT_EQ(TestClient().setState("x", 1), std::nullopt);
  });
  simulation->run([&] {
    kelvane = Kelvane::init();
    EXPECT_EQ(query(), result({{"a", 100}}, 100));
    kelvane.reset();
  });
}

TEST_F(AQuery, DoesNotCareForTheCacheSwitch) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    EXPECT_EQ(TestClient().setState("KELVANE_CACHE_ENABLED", false), std::nullopt);
    query();
    query();
    EXPECT_EQ(service.count("servicePurgeable 3"), 1u);
  });
}

TEST_F(AQuery, KeepsItsRecordWhereClientsFindIt) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    query();
    const TestClient client;
    EXPECT_TRUE(client.state("KELVANE_RECENT_SERVICE_STATS").isData());
    EXPECT_EQ(client.setState("KELVANE_RECENT_SERVICE_STATS", Value()), std::nullopt);
    query();
    EXPECT_EQ(service.count("servicePurgeable 3"), 2u);
  });
}

TEST_F(AQuery, TakesWhatIsNoRecordForNone) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    const TestClient client;
    query();
    Data hostile = *client.state(keys::recentServiceStats).data();
    hostile.resize(hostile.size() / 2);
    std::size_t asked = 1;
    for (const Value& value : {Value(hostile), Value(Data{}), Value("text"), Value(Value::Dictionary{}), Value(7)}) {
      EXPECT_EQ(client.setState(keys::recentServiceStats, value), std::nullopt);
      EXPECT_EQ(query(), result({{"a", 100}}, 100));
      EXPECT_EQ(service.count("servicePurgeable 3"), ++asked);
    }
  });
}

TEST_F(AQuery, UsesAnInvalidRecordOnceMore) {
  runDaemon([&] {
    const auto invalid = KelvaneRecentInfo::kelvaneRecentInfo(KelvaneRecentInfo::Volumes{
        {volume, KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(
                     KelvaneRecentVolumeInfo::Services{
                         {"old", KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(55, "no date")}},
                     0, clock::now(), volume)}});
    EXPECT_EQ(TestClient().setState(keys::recentServiceStats, *invalid->archive()), std::nullopt);
    ScriptedService service("old");
    checkIn(TestClient(), service);
    // The first pass finds the amount and asks nobody; by the second the record is gone.
    EXPECT_EQ(query(), result({}, 0));
    EXPECT_TRUE(log().contains("Recent Info is invalid, deleting..."));
    EXPECT_EQ(log().count("servicesToCount: { old = 55; }"), 1u);
    EXPECT_EQ(service.count("servicePurgeable 3"), 0u);
    EXPECT_TRUE(TestClient().state(keys::recentServiceStats).isAbsent());
  });
}

TEST_F(AQuery, CountsManyServicesColdAndWarm) {
  runDaemon([&] {
    std::vector<std::unique_ptr<ScriptedService>> services;
    const TestClient client;
    for (int index = 0; index < 200; ++index) {
      services.push_back(std::make_unique<ScriptedService>("service" + std::to_string(index)));
      services.back()->onPurgeable = ScriptedService::gives(index);
      checkIn(client, *services.back());
    }
    const Value cold = query();
    EXPECT_EQ(cold.dictionary()->size(), 202u);
    EXPECT_EQ(cold[keys::totalAvailable], Value(199 * 200 / 2));
    EXPECT_EQ(query(), cold);
    for (const auto& service : services) {
      EXPECT_EQ(service->count("servicePurgeable 3"), 1u);
    }
  });
}

class AQueryWithoutASuite : public AQuery {
 protected:
  void prepare() override { simulation->preferences().setOpenable(false); }
};

TEST_F(AQueryWithoutASuite, HasNowhereToFindItsAnswers) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(100);
    checkIn(TestClient(), service);
    EXPECT_EQ(query(), result({}, 0));
    EXPECT_EQ(query(), result({}, 0));
    EXPECT_EQ(service.count("servicePurgeable 3"), 2u);
  });
}

}  // namespace
}  // namespace kelvane::test
