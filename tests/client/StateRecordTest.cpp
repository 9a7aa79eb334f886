// SPDX-License-Identifier: Apache-2.0
// Records in the state store: archives that only the synchronous getter decodes.
#include <gtest/gtest.h>

#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

using Services = KelvaneRecentVolumeInfo::Services;
using Volumes = KelvaneRecentInfo::Volumes;

std::shared_ptr<KelvaneRecentInfo> recordWith(const Value& amount) {
  return KelvaneRecentInfo::kelvaneRecentInfo(
      Volumes{{"/data", KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(
                            Services{{"a", KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, Date{1})}}, 1000,
                            Date{2}, "/data")}});
}

class ARecordInTheState : public DaemonTest {
 protected:
  void set(const StateObject& value, const std::string& key = keys::recentServiceStats) {
    onDefaultsQueue([&] { kelvane->clientSetStateSync(value, key); });
  }
  StateObject get(const std::string& key = keys::recentServiceStats) {
    StateObject object;
    onDefaultsQueue([&] { object = kelvane->clientGetStateSync(key); });
    return object;
  }
  std::shared_ptr<KelvaneRecentInfo> record(const std::string& key = keys::recentServiceStats) {
    return std::get<std::shared_ptr<KelvaneRecentInfo>>(get(key));
  }
  Value bytes() { return TestClient().state(keys::recentServiceStats); }
};

TEST_F(ARecordInTheState, ComesBackEqual) {
  runDaemon([&] {
    set(recordWith(7));
    ASSERT_NE(record(), nullptr);
    EXPECT_EQ(*record(), *recordWith(7));
    set(recordWith(8), "elsewhere");
    EXPECT_EQ(*record("elsewhere"), *recordWith(8));
    EXPECT_EQ(*record(), *recordWith(7));
  });
}

TEST_F(ARecordInTheState, IsDataToClients) {
  runDaemon([&] {
    set(recordWith(7));
    ASSERT_TRUE(bytes().isData());
    EXPECT_EQ(*bytes().data(), *recordWith(7)->archive());
    EXPECT_EQ(TestClient().state(keys::userDefaults)[keys::recentServiceStats], bytes());
  });
}

TEST_F(ARecordInTheState, OfADerivedClassIsStoredAsOne) {
  struct Derived : KelvaneRecentInfo {};
  runDaemon([&] {
    const auto derived = std::make_shared<Derived>();
    derived->setVolumes(*recordWith(7)->volumes());
    set(derived);
    EXPECT_EQ(*record(), *recordWith(7));
  });
}

TEST_F(ARecordInTheState, IsWhateverArchiveAClientStored) {
  runDaemon([&] {
    const Value archive = *recordWith(7)->archive();
    const TestClient client;
    EXPECT_EQ(client.setState("x", archive), std::nullopt);
    EXPECT_EQ(client.state("x"), archive) << "which clients get back as it is";
    EXPECT_EQ(*record("x"), *recordWith(7));
  });
}

TEST_F(ARecordInTheState, IsNoneForDataThatIsNoArchive) {
  runDaemon([&] {
    const TestClient client;
    EXPECT_EQ(client.setState("x", Data{1, 2, 3}), std::nullopt);
    EXPECT_EQ(client.state("x"), Value(Data{1, 2, 3}));
    EXPECT_EQ(record("x"), nullptr);
    EXPECT_EQ(record("x"), nullptr) << "the second time too";
  });
}

TEST_F(ARecordInTheState, IsNoneForTruncatedAndChangedArchives) {
  runDaemon([&] {
    const Data archive = *recordWith(7)->archive();
    const TestClient client;
    for (std::size_t length = 0; length < archive.size(); length += 7) {
      client.setState("x", Data(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(length)));
      EXPECT_EQ(record("x"), nullptr) << length;
    }
  });
}

TEST_F(ARecordInTheState, BelongsToWhoeverReadIt) {
  runDaemon([&] {
    const auto mine = recordWith(7);
    set(mine);
    mine->setVolumes({});
    EXPECT_EQ(*record(), *recordWith(7)) << "changed after it was stored";
    const auto first = record();
    const auto second = record();
    first->setVolumes({});
    EXPECT_EQ(*second, *recordWith(7)) << "changed by another reader";
    EXPECT_EQ(*record(), *recordWith(7)) << "and not stored";
    set(first);
    EXPECT_TRUE(record()->volumes()->empty());
    EXPECT_EQ(*second, *recordWith(7));
  });
}

TEST_F(ARecordInTheState, IsWhatTheStoreHoldsNowHoweverItGotThere) {
  runDaemon([&] {
    const TestClient client;
    set(recordWith(7));
    EXPECT_EQ(*record(), *recordWith(7));
    client.setState(keys::recentServiceStats, *recordWith(8)->archive());
    EXPECT_EQ(*record(), *recordWith(8));
    client.setState(keys::recentServiceStats, Data{1});
    EXPECT_EQ(record(), nullptr);
    client.setState(keys::recentServiceStats, "text");
    EXPECT_EQ(std::get<Value>(get()), Value("text"));
    client.setState(keys::recentServiceStats, Value());
    EXPECT_TRUE(std::get<Value>(get()).isAbsent());
    set(recordWith(9));
    EXPECT_EQ(*record(), *recordWith(9));
  });
}

TEST_F(ARecordInTheState, ThatIsTooLargeIsLoggedAndTheOldOneStays) {
  runDaemon([&] {
    set(recordWith(7));
    log().clear();
    set(recordWith(std::string(limits::archiveBytes, 'x')));
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{
                  "-[Kelvane clientSetStateSync:key:] unable to archive the value of KELVANE_RECENT_SERVICE_STATS"});
    EXPECT_EQ(*record(), *recordWith(7));
  });
}

TEST_F(ARecordInTheState, DoesNotWaitForTheDisk) {
  runDaemon([&] {
    set(recordWith(7));
    EXPECT_EQ(simulation->preferences().writes(), 0);
    simulation->preferences().setFailing(true);
    set(recordWith(8));
    EXPECT_EQ(*record(), *recordWith(8));
  });
}

TEST_F(ARecordInTheState, SurvivesARestart) {
  runDaemon([&] {
    set(recordWith(7));
    EXPECT_EQ(TestClient().setState("x", 1), std::nullopt);
  });
  simulation->run([&] {
    kelvane = Kelvane::init();
    EXPECT_EQ(*record(), *recordWith(7));
    kelvane.reset();
  });
}

}  // namespace
}  // namespace kelvane::test
