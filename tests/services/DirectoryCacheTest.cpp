// SPDX-License-Identifier: Apache-2.0
// What the service answers the daemon, with real files in a simulated system.
#include "services/directory-cache/DirectoryCache.h"

#include <gmock/gmock.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <map>

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

/// Of a volume on which space comes free at certain times.
class ScriptedMeter : public VolumeMeter {
 public:
  using Milliseconds = std::chrono::milliseconds;

  ScriptedMeter(Simulation& simulation, std::map<Milliseconds, std::uint64_t> free)
      : simulation_(simulation), free_(std::move(free)) {}

  std::uint64_t freeBytes() override {
    const auto next = free_.upper_bound(std::chrono::duration_cast<Milliseconds>(simulation_.elapsed()));
    return next == free_.begin() ? 0 : std::prev(next)->second;
  }

 protected:
  bool freesWithCommits() override { return false; }
  void flush() override {}

 private:
  Simulation& simulation_;
  const std::map<Milliseconds, std::uint64_t> free_;
};

struct Settled {
  std::uint64_t free;
  std::int64_t milliseconds;
  bool operator==(const Settled&) const = default;
};

/// What a meter says when 80 bytes are expected, 10 of them at least, and how long that takes.
Settled settle(std::map<std::chrono::milliseconds, std::uint64_t> free) {
  Simulation simulation;
  Settled settled{};
  simulation.run([&] {
    settled.free = ScriptedMeter(simulation, std::move(free)).settledFree(80, 10);
    settled.milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(simulation.elapsed()).count();
  });
  return settled;
}

using namespace std::chrono_literals;

TEST(AVolumesMeter, DoesNotWaitForSpaceThatHasCome) {
  EXPECT_EQ(settle({{0ms, 80}}), (Settled{80, 0}));
}

TEST(AVolumesMeter, WaitsAMomentForSpaceThatDoesNotComeOnceTheLeastIsThere) {
  EXPECT_EQ(settle({{0ms, 10}}), (Settled{10, 500}));
}

TEST(AVolumesMeter, WaitsAsLongAsMoreSpaceComes) {
  EXPECT_EQ(settle({{0ms, 10}, {400ms, 20}, {800ms, 79}, {1200ms, 80}}), (Settled{80, 1200}));
}

TEST(AVolumesMeter, WaitsLongerForTheLeast) {
  EXPECT_EQ(settle({{1400ms, 80}}), (Settled{80, 1400}));
  EXPECT_EQ(settle({{0ms, 9}}), (Settled{9, 1500}));
}

TEST(AVolumesMeter, WaitsNoLongerForSpaceThatTrickles) {
  std::map<std::chrono::milliseconds, std::uint64_t> trickle;
  for (int turn = 0; turn < 60; ++turn) {
    trickle[turn * 100ms] = 10 + static_cast<std::uint64_t>(turn);
  }
  EXPECT_EQ(settle(trickle), (Settled{25, 1500}));
}

/// Frees everything with the first commit after so long.
class LateCommits : public ScriptedMeter {
 public:
  LateCommits(Simulation& simulation, Milliseconds late)
      : ScriptedMeter(simulation, {}), simulation_(simulation), late_(late) {}

  std::uint64_t freeBytes() override { return free_; }

 protected:
  void flush() override { free_ = simulation_.elapsed() < late_ ? 10 : 80; }

 private:
  Simulation& simulation_;
  const Milliseconds late_;
  std::uint64_t free_ = 10;
};

TEST(AVolumesMeter, HasTheFileSystemCommitAgainWhenOnceWasTooEarly) {
  Simulation simulation;
  simulation.run([&] {
    EXPECT_EQ(LateCommits(simulation, 300ms).settledFree(80, 10), 80U);
    EXPECT_EQ(simulation.elapsed(), 400ms);
  });
}

/// Frees with commits only, while somebody else's space comes free.
class SharedCommits : public LateCommits {
 public:
  explicit SharedCommits(Simulation& simulation) : LateCommits(simulation, {}) {}

  std::uint64_t freeBytes() override { return others + LateCommits::freeBytes(); }

  static constexpr std::uint64_t others = 80;

 protected:
  bool freesWithCommits() override { return true; }
};

TEST(AVolumesMeter, DoesNotTakeWhatOthersFreedForItsOwnWhereThatNeedsACommit) {
  Simulation simulation;
  simulation.run([&] {
    EXPECT_EQ(SharedCommits(simulation).settledFree(80, 10), 80U + SharedCommits::others);
    EXPECT_EQ(simulation.elapsed(), 0ms);
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
