// SPDX-License-Identifier: Apache-2.0
// What the service answers the daemon, with real files in a simulated system.
#include "services/directory-cache/DirectoryCache.h"

#include <gmock/gmock.h>
#include <sys/statvfs.h>

#include <filesystem>

#include "platform/simulated/Simulation.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/PrintValue.h"
#include "tests/services/CacheFixture.h"
#include "tests/support/ServiceAndDaemon.h"

namespace kelvane::directoryCache {
namespace {

namespace protocol = KelvaneServiceProtocol;
using testing::ElementsAre;
using testing::HasSubstr;

/// The mount point that a path is beneath.
std::string volumeOf(const std::string& path) {
  std::filesystem::path mountPoint = path;
  while (mountPoint.has_relative_path() && volumeAt(mountPoint.parent_path())->isSame(*volumeAt(mountPoint))) {
    mountPoint = mountPoint.parent_path();
  }
  return mountPoint;
}

class ADirectoryCache : public CacheTest {
 protected:
  void run(const std::function<void()>& body) {
    Configuration configuration;
    configuration.service.identifier = "com.example.cache";
    configuration.service.notifications = {"KELVANE_CACHE_ENABLED"};
    configuration.directories = {rules()};
    simulation_.setDate({static_cast<double>(testNow)});
    DirectoryCache cache(configuration);
    simulation_.run([&] {
      daemon_.launch();
      globalQueue::async([&cache] { static_cast<void>(cache.run()); });
      simulation_.settle();
      ASSERT_EQ(daemon_.answered, 1);
      body();
      cache.stop();
      simulation_.settle();
    });
  }

  Value ask(const ipc::Operation& operation, int urgency, const std::string& volume, std::uint64_t amount) {
    const auto outcome = daemon_.call(
        operation, {Value(urgency), Value(Value::Dictionary{{keys::volume, volume}, {keys::amount, amount}})});
    simulation_.advance(std::chrono::seconds(10));
    EXPECT_TRUE(outcome->isAnswered);
    return outcome->value;
  }

  static Value amount(std::uint64_t bytes) { return Value::Dictionary{{keys::amount, bytes}}; }

  Simulation simulation_;
  test::ScriptedDaemon daemon_{simulation_};
};

TEST_F(ADirectoryCache, TellsTheDaemonThatItPurges) {
  run([&] {
    EXPECT_THAT(daemon_.infos,
                ElementsAre(Value(Value::Dictionary{{keys::purge, true},
                                                    {keys::periodic, false},
                                                    {keys::notifications, Value::Array{"KELVANE_CACHE_ENABLED"}}})));
  });
}

TEST_F(ADirectoryCache, AnswersWhatEachUrgencyCouldFree) {
  makeFile("cache/a", 7 * day);
  makeFile("cache/b", day);
  run([&] {
    const std::string volume = volumeOf(root_);
    EXPECT_EQ(ask(protocol::servicePurgeable, 1, volume, 0), amount(unit));
    EXPECT_EQ(ask(protocol::servicePurgeable, 2, volume, 0), amount(2 * unit));
  });
}

TEST_F(ADirectoryCache, AnswersNothingForAVolumeThatItHasNoDirectoryOn) {
  makeFile("cache/a", 7 * day);
  run([&] {
    EXPECT_EQ(ask(protocol::servicePurgeable, 4, "/proc", 0), amount(0));
    EXPECT_EQ(ask(protocol::servicePurge, 4, "/proc", unit), amount(0));
    EXPECT_EQ(ask(protocol::servicePurge, 4, "", unit), amount(0));
    EXPECT_TRUE(exists("cache/a"));
  });
}

TEST_F(ADirectoryCache, DeletesFilesAndLogsOneLine) {
  makeFile("cache/a", 7 * day);
  makeFile("cache/b", day);
  run([&] {
    // Others use the volume too, so what it gained is not for a test to know.
    const Value answer = ask(protocol::servicePurge, 1, volumeOf(root_), unit);
    EXPECT_LE(answer[keys::amount].uint64Value(), unit);
    EXPECT_FALSE(exists("cache/a"));
    EXPECT_TRUE(exists("cache/b"));
  });
  const auto lines = simulation_.log().textsOf("DirectoryCache::purge");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines.front(), HasSubstr("of 65536 bytes"));
  EXPECT_THAT(lines.front(), HasSubstr("at urgency 1: 1 files deleted"));
}

TEST_F(ADirectoryCache, TakesNothingForOldAtTheMildestUrgencyBecauseItsClockJumpedAhead) {
  makeFile("cache/a", day);
  run([&] {
    simulation_.setDate({static_cast<double>(testNow + 30 * day)});
    EXPECT_EQ(ask(protocol::servicePurgeable, 1, volumeOf(root_), 0), amount(0));
    EXPECT_EQ(ask(protocol::servicePurge, 1, volumeOf(root_), unit), amount(0));
    EXPECT_TRUE(exists("cache/a"));
    EXPECT_EQ(ask(protocol::servicePurgeable, 2, volumeOf(root_), 0), amount(unit));
  });
  EXPECT_TRUE(simulation_.log().contains("the clock has jumped ahead by"));
}

TEST_F(ADirectoryCache, LogsWhatItIsNotifiedOf) {
  run([&] {
    daemon_.call(protocol::serviceNotify, {Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", false}})});
    simulation_.settle();
  });
  EXPECT_TRUE(simulation_.log().contains("notified of KELVANE_CACHE_ENABLED: 0"));
}

TEST_F(ADirectoryCache, LogsADirectoryThatIsReachedThroughALink) {
  std::filesystem::rename(absolute("cache"), absolute("real"));
  std::filesystem::create_directory_symlink("real", absolute("cache"));
  makeFile("real/a", 7 * day);
  run([&] { EXPECT_EQ(ask(protocol::servicePurge, 4, volumeOf(root_), unit), amount(0)); });
  EXPECT_TRUE(exists("real/a"));
  EXPECT_TRUE(simulation_.log().contains("a symbolic link is on the way"));
}

TEST(AMountedVolumesMeter, WaitsOnlyAMomentForSpaceThatDoesNotCome) {
  Simulation simulation;
  simulation.run([&] {
    MountedVolumeMeter meter("/", Descriptor());
    const auto before = simulation.elapsed();
    EXPECT_GT(meter.settledFree(0), 0U);
    EXPECT_EQ(simulation.elapsed(), before);
    EXPECT_GT(meter.settledFree(std::uint64_t{1} << 62), 0U);
    EXPECT_EQ(simulation.elapsed() - before, std::chrono::milliseconds(500));
  });
}

TEST(AMountedVolumesMeter, MeasuresAtADirectoryWhenTheVolumeMayNotBeOpened) {
  const std::string path = std::filesystem::temp_directory_path();
  const Tree tree = *Tree::open(std::filesystem::canonical(path));
  MountedVolumeMeter meter("/nonexistent", tree.root());
  EXPECT_GT(meter.freeBytes(), 0U);
}

}  // namespace
}  // namespace kelvane::directoryCache
