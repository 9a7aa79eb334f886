// SPDX-License-Identifier: Apache-2.0
// Which files a purge deletes, and when it stops.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <limits>

#include "tests/services/CacheFixture.h"

namespace kelvane::directoryCache {
namespace {

constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

using APurge = CacheTest;
using AQuery = CacheTest;

TEST_F(APurge, DeletesTheLeastRecentlyUsedFirst) {
  makeFile("cache/b", 3 * day);
  makeFile("cache/deep/down/a", 4 * day);
  makeFile("cache/c", 2 * day);
  const PurgeResult result = purge({rules()}, 4, 2 * unit);
  EXPECT_EQ(result.freed, 2 * unit);
  EXPECT_EQ(result.removed, 2U);
  EXPECT_FALSE(exists("cache/deep/down/a"));
  EXPECT_FALSE(exists("cache/b"));
  EXPECT_TRUE(exists("cache/c"));
}

TEST_F(APurge, StopsWhenTheAmountIsFreed) {
  for (int index = 0; index < 10; ++index) {
    makeFile("cache/" + std::to_string(index), (20 - index) * day);
  }
  EXPECT_EQ(purge({rules()}, 1, 1).freed, unit);
  EXPECT_FALSE(exists("cache/0"));
  EXPECT_TRUE(exists("cache/1"));
}

TEST_F(APurge, OfNothingDeletesNothing) {
  makeFile("cache/a", 20 * day);
  EXPECT_EQ(purge({rules()}, 4, 0).freed, 0U);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(APurge, DeletesOnlyFilesOldEnoughForItsUrgency) {
  const std::pair<const char*, std::int64_t> files[] = {
      {"cache/week", 7 * day}, {"cache/day", day}, {"cache/hour", hour}, {"cache/now", 0}};
  for (int urgency = 1; urgency <= 4; ++urgency) {
    for (const auto& [path, age] : files) {
      makeFile(path, age);
    }
    EXPECT_EQ(purgeable({rules()}, urgency), static_cast<std::uint64_t>(urgency) * unit);
    EXPECT_EQ(purge({rules()}, urgency, everything).freed, static_cast<std::uint64_t>(urgency) * unit);
    for (int index = 0; index < 4; ++index) {
      EXPECT_EQ(exists(files[index].first), index >= urgency) << files[index].first << " at " << urgency;
    }
  }
}

TEST_F(APurge, CountsAnAgeFromTheLaterOfReadingAndWriting) {
  makeFile("cache/read", 0);
  setTimes("cache/read", day, 30 * day);
  makeFile("cache/written", 0);
  setTimes("cache/written", 30 * day, day);
  makeFile("cache/neither", 30 * day);
  EXPECT_EQ(purge({rules()}, 1, everything).freed, unit);
  EXPECT_FALSE(exists("cache/neither"));
}

TEST_F(APurge, CountsOnlyTheClocksThatItIsToldTo) {
  makeFile("cache/a", 0);
  setTimes("cache/a", day, 30 * day);
  DirectoryRules byWriting = rules();
  byWriting.clocks = {false, true, false, false};
  EXPECT_EQ(purgeable({byWriting}, 1), unit);
  byWriting.clocks.access = true;
  EXPECT_EQ(purgeable({byWriting}, 1), 0U);
}

/// Ages from the time of the test, as nobody can set when a file was changed and made.
class AFileThatWasJustMade : public CacheTest {
 protected:
  AFileThatWasJustMade() {
    makeFile("cache/a", 0);
    // As a download that has its server's date.
    const timespec longAgo[] = {{0, 0}, {0, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, absolute("cache/a").c_str(), longAgo, 0), 0);
    made_ = statusAt(AT_FDCWD, absolute("cache/a").c_str()).value();
  }

  bool goes(const DirectoryRules& rules, std::int32_t urgency, std::int64_t age) const {
    return purgeableBytes(openDirectoriesOn(root_, {rules}), urgency, made_.changed.seconds + age, Cancellation()) != 0;
  }

  FileStatus made_;
};

TEST_F(AFileThatWasJustMade, IsNotOldUnlessItsChangeAndBirthAreNoUse) {
  DirectoryRules rules = CacheTest::rules();
  for (const Clocks clocks : {Clocks{true, true, true, false}, Clocks{true, true, false, true}, Clocks()}) {
    rules.clocks = clocks;
    EXPECT_EQ(goes(rules, 2, 0), clocks.birth && !clocks.change && !made_.born);
    EXPECT_TRUE(goes(rules, 2, day + 1));
  }
  rules.clocks = {true, true, false, false};
  EXPECT_TRUE(goes(rules, 2, 0));
}

TEST_F(AFileThatWasJustMade, StaysForItsMinimumAgeWhateverItsClocks) {
  DirectoryRules rules = CacheTest::rules();
  rules.ages.fill(0);
  rules.minimumAges = DirectoryRules().minimumAges;
  for (std::int32_t urgency = 1; urgency <= 3; ++urgency) {
    EXPECT_FALSE(goes(rules, urgency, hour - 1));
    EXPECT_TRUE(goes(rules, urgency, hour));
  }
  EXPECT_TRUE(goes(rules, 4, 0));
}

TEST_F(APurge, TakesATimeInTheFutureForNow) {
  makeFile("cache/a", -5 * day);
  EXPECT_EQ(purge({rules()}, 3, everything).freed, 0U);
  EXPECT_EQ(purge({rules()}, 4, everything).freed, unit);
}

TEST_F(APurge, TakesTheEarliestTimeThereIsForOld) {
  makeFile("cache/a", 0);
  const timespec earliest[] = {{std::numeric_limits<time_t>::min(), 0}, {std::numeric_limits<time_t>::min(), 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, absolute("cache/a").c_str(), earliest, 0), 0);
  EXPECT_EQ(purge({rules()}, 1, everything).freed, unit);
}

TEST_F(APurge, LeavesFilesOfAnAgeThatIsNeverReached) {
  makeFile("cache/a", testNow);
  DirectoryRules never = rules();
  never.ages.fill(DirectoryRules::never);
  EXPECT_EQ(purgeable({never}, 4), 0U);
  EXPECT_EQ(purge({never}, 4, everything).freed, 0U);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(APurge, LeavesTheBytesToKeep) {
  makeFile("cache/a", 30 * day, 3);
  makeFile("cache/b", 20 * day, 2);
  makeFile("cache/c", 10 * day, 1);
  DirectoryRules keeping = rules();
  keeping.keepBytes = 3 * unit;
  EXPECT_EQ(purgeable({keeping}, 1), 3 * unit);
  EXPECT_EQ(purge({keeping}, 4, everything).freed, 3 * unit);
  EXPECT_FALSE(exists("cache/a"));
  EXPECT_TRUE(exists("cache/b"));
  EXPECT_TRUE(exists("cache/c"));
}

TEST_F(APurge, PassesOverAFileThatWouldLeaveTooLittle) {
  makeFile("cache/large", 30 * day, 10);
  makeFile("cache/small", 20 * day, 1);
  DirectoryRules keeping = rules();
  keeping.keepBytes = 2 * unit;
  EXPECT_EQ(purge({keeping}, 4, everything).freed, unit);
  EXPECT_TRUE(exists("cache/large"));
  EXPECT_FALSE(exists("cache/small"));
}

TEST_F(APurge, DeletesNothingWhileThereIsLessThanToKeep) {
  makeFile("cache/a", 30 * day);
  DirectoryRules keeping = rules();
  keeping.keepBytes = 2 * unit;
  EXPECT_EQ(purgeable({keeping}, 4), 0U);
  EXPECT_EQ(purge({keeping}, 4, everything).freed, 0U);
}

TEST_F(APurge, TakesTheOldestOfAllDirectoriesAndKeepsWhatEachKeeps) {
  makeFile("cache/a", 30 * day);
  makeFile("other/b", 40 * day);
  makeFile("other/c", 20 * day);
  DirectoryRules other = rules("other");
  other.keepBytes = unit;
  const std::vector<DirectoryRules> both = {rules(), other};
  EXPECT_EQ(purgeable(both, 1), 2 * unit);
  EXPECT_EQ(purge(both, 1, unit).freed, unit);
  EXPECT_FALSE(exists("other/b"));
  EXPECT_EQ(purge(both, 1, everything).freed, unit);
  EXPECT_FALSE(exists("cache/a"));
  EXPECT_TRUE(exists("other/c"));
}

TEST_F(APurge, NeverTouchesWhatMatchesAPattern) {
  makeFile("cache/a.lock", 30 * day);
  makeFile("cache/deep/b.lock", 30 * day);
  makeFile("cache/index/c", 30 * day);
  makeFile("cache/index/deep/d", 30 * day);
  makeFile("cache/e", 30 * day);
  DirectoryRules protecting = rules();
  protecting.protectedPatterns = {"*.lock", "index"};
  EXPECT_EQ(purgeable({protecting}, 1), unit);
  EXPECT_EQ(purge({protecting}, 4, everything).freed, unit);
  EXPECT_FALSE(exists("cache/e"));
  for (const char* path : {"cache/a.lock", "cache/deep/b.lock", "cache/index/c", "cache/index/deep/d"}) {
    EXPECT_TRUE(exists(path)) << path;
  }
}

TEST_F(APurge, CountsTheBlocksOfASparseFileAndNotItsSize) {
  makeFile("cache/sparse", 30 * day);
  ASSERT_EQ(truncate(absolute("cache/sparse").c_str(), 1'000 * static_cast<off_t>(unit)), 0);
  setTimes("cache/sparse", 30 * day, 30 * day);
  makeFile("cache/b", 20 * day);
  EXPECT_EQ(purgeable({rules()}, 1), 2 * unit);
  EXPECT_EQ(purge({rules()}, 1, 2 * unit).freed, 2 * unit);
  EXPECT_FALSE(exists("cache/b"));
}

TEST_F(APurge, DeletesEmptyFilesOnTheWay) {
  makeFile("cache/empty", 30 * day, 0);
  makeFile("cache/b", 20 * day);
  EXPECT_EQ(purge({rules()}, 1, unit).freed, unit);
  EXPECT_FALSE(exists("cache/empty"));
}

TEST_F(APurge, TakesAnyBytesForAName) {
  const std::string names[] = {"line\nbreak", "\xff\xfe\x80", " ", "-rf", "*", "[a", "\\", "\x01\x1b[2J"};
  for (const std::string& name : names) {
    makeFile("cache/" + name + "/" + name, 30 * day);
  }
  EXPECT_EQ(purge({rules()}, 1, everything).removed, std::size(names));
  for (const std::string& name : names) {
    EXPECT_FALSE(exists("cache/" + name + "/" + name));
  }
}

TEST_F(APurge, LeavesDirectoriesUnlessToldOtherwise) {
  makeFile("cache/deep/down/a", 30 * day);
  purge({rules()}, 1, everything);
  EXPECT_TRUE(exists("cache/deep/down"));
}

TEST_F(APurge, RemovesDirectoriesThatItHasEmptiedWhenToldSo) {
  makeFile("cache/deep/down/a", 30 * day);
  makeFile("cache/half/down/b", 30 * day);
  makeFile("cache/half/c", 0);
  std::filesystem::create_directory(absolute("cache/was-empty"));
  DirectoryRules removing = rules();
  removing.removesEmptyDirectories = true;
  purge({removing}, 1, everything);
  EXPECT_FALSE(exists("cache/deep"));
  EXPECT_FALSE(exists("cache/half/down"));
  EXPECT_TRUE(exists("cache/half/c"));
  EXPECT_TRUE(exists("cache/was-empty"));
  EXPECT_TRUE(exists("cache"));
}

TEST_F(APurge, NeverRemovesTheDirectoryItself) {
  makeFile("cache/a", 30 * day);
  DirectoryRules removing = rules();
  removing.removesEmptyDirectories = true;
  purge({removing}, 1, everything);
  EXPECT_TRUE(exists("cache"));
  EXPECT_FALSE(exists("cache/a"));
}

TEST_F(APurge, DeletesOnlyRegularFiles) {
  ASSERT_EQ(mkfifo(absolute("cache/pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink("target", absolute("cache/link"));
  setTimes("cache/pipe", 30 * day, 30 * day);
  setTimes("cache/link", 30 * day, 30 * day);
  EXPECT_EQ(purge({rules()}, 4, everything).removed, 0U);
  EXPECT_TRUE(exists("cache/pipe"));
  EXPECT_TRUE(exists("cache/link"));
}

TEST_F(APurge, NeedsNoMoreMemoryThanItsBoundsAllow) {
  for (int index = 0; index < 50; ++index) {
    makeFile("cache/" + std::to_string(index), (100 - index) * day);
  }
  // Several rounds of at most seven files, still in order and without one left out.
  EXPECT_EQ(purge({rules()}, 1, 48 * unit, {}, {7, 1000}).freed, 48 * unit);
  EXPECT_TRUE(exists("cache/48"));
  EXPECT_TRUE(exists("cache/49"));
  EXPECT_FALSE(exists("cache/47"));
}

TEST_F(APurge, EndsWhenAllThatFitsItsBoundsCannotGo) {
  for (int index = 0; index < 10; ++index) {
    makeFile("cache/" + std::to_string(index), (100 - index) * day);
    std::filesystem::create_hard_link(absolute("cache/" + std::to_string(index)),
                                      absolute("outside" + std::to_string(index)));
  }
  makeFile("cache/last", 30 * day);
  EXPECT_EQ(purge({rules()}, 1, everything, {}, {3, 1000}).freed, unit);
  EXPECT_FALSE(exists("cache/last"));
}

TEST_F(APurge, MeasuresWhatTheVolumeGainedAndGoesOnUntilThatIsEnough) {
  for (int index = 0; index < 16; ++index) {
    makeFile("cache/" + std::to_string(index), (100 - index) * day);
  }
  yield_ = 0.5;
  const PurgeResult result = purge({rules()}, 1, 4 * unit);
  EXPECT_EQ(result.freed, 4 * unit);
  EXPECT_EQ(result.removed, 8U);
}

TEST_F(APurge, EndsWhenDeletingGainsNothing) {
  for (int index = 0; index < 16; ++index) {
    makeFile("cache/" + std::to_string(index), (100 - index) * day);
  }
  yield_ = 0;
  const PurgeResult result = purge({rules()}, 1, 4 * unit);
  EXPECT_TRUE(result.isFutile);
  EXPECT_EQ(result.freed, 0U);
  EXPECT_EQ(result.removed, 4U);
}

TEST_F(APurge, ClaimsNoMoreThanItDeletedWhateverOthersFree) {
  makeFile("cache/a", 30 * day);
  yield_ = 3;
  EXPECT_EQ(purge({rules()}, 1, everything).freed, unit);
}

TEST_F(APurge, SettlesTheVolumeBeforeItAnswersAndNotForEachFile) {
  for (int index = 0; index < 10; ++index) {
    makeFile("cache/" + std::to_string(index), (100 - index) * day);
  }
  purge({rules()}, 1, 8 * unit);
  EXPECT_EQ(settlings_, 1);
  purge({rules()}, 1, everything);
  EXPECT_EQ(settlings_, 1);
}

TEST_F(APurge, OfAVolumeThatNoDirectoryIsOnDeletesNothing) {
  makeFile("cache/a", 30 * day);
  EXPECT_TRUE(openDirectoriesOn("/proc", {rules()}).empty());
  EXPECT_TRUE(openDirectoriesOn("/nonexistent", {rules()}).empty());
  EXPECT_EQ(openDirectoriesOn(root_, {rules()}).size(), 1U);
}

TEST_F(APurge, PassesOverADirectoryThatIsNotThere) {
  makeFile("cache/a", 30 * day);
  EXPECT_EQ(purge({rules("missing"), rules()}, 1, everything).freed, unit);
}

TEST_F(APurge, ThatIsCancelledBeforehandDeletesNothing) {
  makeFile("cache/a", 30 * day);
  const Cancellation cancellation;
  cancellation.cancel();
  const PurgeResult result = purge({rules()}, 4, everything, cancellation);
  EXPECT_TRUE(result.cancelled);
  EXPECT_EQ(result.freed, 0U);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(APurge, StopsBetweenFilesWhenItIsCancelled) {
  for (int index = 0; index < 20; ++index) {
    makeFile("cache/" + std::to_string(index), (100 - index) * day);
  }
  const Cancellation cancellation;
  /// Cancels while the first batch is measured.
  class CancellingMeter : public DirectoryMeter {
   public:
    CancellingMeter(const std::string& path, Cancellation cancellation)
        : DirectoryMeter(path, 0.5), cancellation_(std::move(cancellation)) {}
    std::uint64_t settledFree(std::uint64_t expected, std::uint64_t least) override {
      cancellation_.cancel();
      return DirectoryMeter::settledFree(expected, least);
    }

   private:
    const Cancellation cancellation_;
  } meter(root_, cancellation);
  const std::vector<DirectoryRules> directories = {rules()};
  const std::vector<OpenDirectory> open = openDirectoriesOn(root_, directories);
  const PurgeResult result = Purger(open, meter, {1000, 100'000}).purge({1, 10 * unit, testNow}, cancellation);
  EXPECT_TRUE(result.cancelled);
  EXPECT_EQ(result.removed, 10U);
  EXPECT_EQ(result.freed, 5 * unit);
  EXPECT_TRUE(exists("cache/10"));
}

TEST_F(AQuery, StopsLookingWhenItIsCancelled) {
  for (int index = 0; index < 5; ++index) {
    makeFile("cache/" + std::to_string(index), 30 * day);
  }
  const Cancellation cancellation;
  int seen = 0;
  const Tree tree = *Tree::open(absolute("cache"));
  const WalkResult result = tree.walk({}, cancellation, [&](const WalkedFile&) {
    ++seen;
    cancellation.cancel();
  });
  EXPECT_TRUE(result.cancelled);
  EXPECT_LE(seen, 2);
}

TEST_F(AQuery, ChangesNothing) {
  makeFile("cache/a", 30 * day);
  EXPECT_EQ(purgeable({rules()}, 4), unit);
  EXPECT_EQ(purgeable({rules()}, 4), unit);
  EXPECT_TRUE(exists("cache/a"));
}

}  // namespace
}  // namespace kelvane::directoryCache
