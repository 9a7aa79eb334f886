// SPDX-License-Identifier: Apache-2.0
// Low-disk events: which volumes are purged, by how much, and what is counted.
#include <gtest/gtest.h>

#include <set>

#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

constexpr char name[] = "-[Kelvane handleVFSStreamVEXEvent:] ";

Value eventWith(std::uint64_t flags) {
  return Value::Dictionary{{"_Flags", flags}};
}

class ALowDiskEvent : public DaemonTest {
 protected:
  std::int64_t counter(const std::string& counterName) { return simulation->statistics().counter(counterName); }
};

TEST_F(ALowDiskEvent, WithoutLowVolumesDoesNothingWhateverItsFlagsSay) {
  runDaemon([&] {
    log().clear();
    kelvane->handleVFSStreamVEXEvent(eventWith(0x204));
    EXPECT_EQ(log().texts(),
              std::vector<std::string>{std::string(name) + "No volumes report low disk space, skipping purge"});
    EXPECT_TRUE(log().texts(3).empty());
    EXPECT_TRUE(simulation->statistics().counterNames().empty());
  });
}

TEST_F(ALowDiskEvent, PurgesALowVolumeByAFixedAmount) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      // It is counted afterwards.
      EXPECT_EQ(counter("KL_LOWDISK_EVENT"), 0);
      freesWhatIsAsked()(request);
    };
    checkIn(TestClient(), service);
    kelvane->handleVFSStreamVEXEvent(eventWith(0x4));
    ASSERT_EQ(service.infos().size(), 1u);
    const Value info = service.infos()[0];
    EXPECT_EQ(info[keys::volume], Value(volume));
    EXPECT_EQ(info[keys::amount], Value(std::uint64_t{262144000}));
    EXPECT_EQ(info["KELVANE_ASYNC"], Value(true));
    EXPECT_EQ(info["KELVANE_PURGE_TIMEOUT"], Value(300));
    // Besides these only what the purge adds.
    EXPECT_EQ(info.dictionary()->size(), 5u);
    EXPECT_TRUE(info.contains(keys::freespaceBegin));
    // Later messages are of passes that nobody had to answer.
    EXPECT_EQ(log().texts(3).front(), std::string(name) + "caught VQ_LOWDISK");
    EXPECT_EQ(counter("KL_LOWDISK_EVENT"), 1);
  });
}

TEST_F(ALowDiskEvent, PurgesAVolumeAsIsSaidOfIt) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    simulation->volumes().setRelief(volume, {.amountBytes = 7, .urgencyLimit = 1});
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives(0);
    checkIn(TestClient(), service);
    kelvane->handleVFSStreamVEXEvent(eventWith(0x4));
    ASSERT_EQ(service.infos().size(), 1u) << "one pass, in which nobody gives";
    const Value info = service.infos()[0];
    EXPECT_EQ(info[keys::amount], Value(std::uint64_t{7}));
    EXPECT_EQ(info[keys::urgencyLimit], Value(1));
    EXPECT_EQ(info.dictionary()->size(), 6u);
    EXPECT_EQ(simulation->volumes().relieved(), std::vector<std::string>{volume});
  });
}

TEST_F(ALowDiskEvent, TakesUpEachVolumeWhenItIsItsTurn) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    simulation->volumes().add("/second", 0);
    simulation->volumes().setLow("/second", true);
    std::vector<std::vector<std::string>> relieved;
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      relieved.push_back(simulation->volumes().relieved());
      ScriptedService::gives(0)(request);
    };
    checkIn(TestClient(), service);
    kelvane->handleVFSStreamVEXEvent(eventWith(0x4));
    ASSERT_EQ(relieved.size(), 6u) << "three passes each";
    EXPECT_EQ(relieved[2], std::vector<std::string>{"/second"});
    EXPECT_EQ(relieved[3], (std::vector<std::string>{"/second", volume}));
  });
}

TEST_F(ALowDiskEvent, CountsAVeryLowDiskByItsOwnName) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    kelvane->handleVFSStreamVEXEvent(eventWith(0x200));
    EXPECT_EQ(log().texts(3).front(), std::string(name) + "caught VQ_VERYLOWDISK");
    EXPECT_EQ(counter("KL_VERYLOWDISK_EVENT"), 1);
    EXPECT_EQ(counter("KL_LOWDISK_EVENT"), 0);
  });
}

TEST_F(ALowDiskEvent, WithBothFlagsIsALowDiskEvent) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    kelvane->handleVFSStreamVEXEvent(eventWith(0x204));
    EXPECT_TRUE(log().contains(std::string(name) + "caught VQ_LOWDISK"));
    EXPECT_FALSE(log().contains("VQ_VERYLOWDISK"));
    EXPECT_EQ(counter("KL_LOWDISK_EVENT"), 1);
    EXPECT_EQ(counter("KL_VERYLOWDISK_EVENT"), 0);
  });
}

TEST_F(ALowDiskEvent, WithNeitherFlagPurgesAllTheSameAndCountsWithoutAName) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    ScriptedService service("a");
    service.onPurge = freesWhatIsAsked();
    checkIn(TestClient(), service);
    kelvane->handleVFSStreamVEXEvent(Value::Dictionary{});
    EXPECT_EQ(service.count("servicePurge 1"), 1u);
    EXPECT_TRUE(simulation->statistics().hasCounter(""));
    EXPECT_EQ(counter(""), 1);
    EXPECT_FALSE(log().contains("caught"));
  });
}

TEST_F(ALowDiskEvent, WithFlagsThatAreNoNumberHasNone) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    for (const Value& event : {eventWith(0), Value(Value::Dictionary{{"_Flags", "4"}}), Value("4"), Value()}) {
      kelvane->handleVFSStreamVEXEvent(event);
    }
    EXPECT_EQ(counter(""), 4);
    EXPECT_FALSE(log().contains("caught"));
  });
}

TEST_F(ALowDiskEvent, HasSixtyFourFlagsOfWhichTwoCount) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    kelvane->handleVFSStreamVEXEvent(eventWith(~std::uint64_t{0x204}));
    EXPECT_EQ(counter(""), 1);
    kelvane->handleVFSStreamVEXEvent(eventWith(~std::uint64_t{0x4}));
    EXPECT_EQ(counter("KL_VERYLOWDISK_EVENT"), 1);
    kelvane->handleVFSStreamVEXEvent(eventWith(~std::uint64_t{0}));
    EXPECT_EQ(counter("KL_LOWDISK_EVENT"), 1);
  });
}

TEST_F(ALowDiskEvent, IsDoneWithAVolumeBeforeItTurnsToTheNext) {
  runDaemon([&] {
    simulation->volumes().setAvailable(volume, 30);
    simulation->volumes().setLow(volume, true);
    simulation->volumes().add("/more", 20);
    simulation->volumes().setLow("/more", true);
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives(0);
    checkIn(TestClient(), service);
    kelvane->handleVFSStreamVEXEvent(eventWith(0x4));
    std::vector<std::string> asked;
    for (const Value& info : service.infos()) {
      asked.push_back(*info[keys::volume].string());
    }
    // The emptiest first, and each at every urgency up to the usual limit.
    EXPECT_EQ(asked, (std::vector<std::string>{"/more", "/more", "/more", volume, volume, volume}));
  });
}

TEST_F(ALowDiskEvent, WithBothFlagsPurgesEveryOfThreeVolumesAndCountsOnce) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    for (const char* other : {"/more", "/most"}) {
      simulation->volumes().add(other, 10);
      simulation->volumes().setLow(other, true);
    }
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives(0);
    checkIn(TestClient(), service);
    kelvane->handleVFSStreamVEXEvent(eventWith(0x204));
    std::set<std::string> asked;
    for (const Value& info : service.infos()) {
      asked.insert(*info[keys::volume].string());
    }
    EXPECT_EQ(asked, (std::set<std::string>{volume, "/more", "/most"}));
    EXPECT_EQ(counter("KL_LOWDISK_EVENT"), 1);
    EXPECT_FALSE(simulation->statistics().hasCounter("KL_VERYLOWDISK_EVENT"));
    EXPECT_EQ(log().count("caught VQ_LOWDISK", 3), 1u);
  });
}

TEST_F(ALowDiskEvent, PurgesThreeLowVolumesOneAfterTheOther) {
  runDaemon([&] {
    simulation->volumes().setLow(volume, true);
    for (const char* other : {"/more", "/most"}) {
      simulation->volumes().add(other, 10);
      simulation->volumes().setLow(other, true);
    }
    const std::uint64_t start = clock::ticks();
    kelvane->handleVFSStreamVEXEvent(eventWith(0x4));
    // Nobody can give anything: three purges of three passes of 300 seconds each.
    EXPECT_EQ(secondsSince(start), 3.0 * 3 * 300);
    EXPECT_EQ(simulation->statistics().samples("KelvanePurgeAmountRequested"), std::vector<double>(9, 262144000));
    EXPECT_EQ(counter("KL_LOWDISK_EVENT"), 1);
  });
}

}  // namespace
}  // namespace kelvane::test
