// SPDX-License-Identifier: Apache-2.0
// What a purge must not delete, whatever happens to it meanwhile.
#include "services/directory-cache/Removal.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <optional>

#include "tests/services/CacheFixture.h"

namespace kelvane::directoryCache {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

/// Finds candidates, so that a test can change the files before they are removed.
class ARemoval : public CacheTest {
 protected:
  ARemoval() : directories_({rules(), rules("other")}) { fs::create_directory(absolute("other")); }

  /// The only candidate.
  Candidate find() {
    open_ = openDirectoriesOn(root_, directories_);
    Candidates candidates({100, 10'000}, std::nullopt);
    survey(open_, 4, testNow, Cancellation(), [&](FoundLink link) { candidates.offer(std::move(link)); });
    std::vector<Candidate> found = candidates.take().candidates;
    EXPECT_EQ(found.size(), 1U);
    return found.at(0);
  }
  RemovalOutcome remove(const Candidate& candidate) const { return removeFile(open_, candidate).outcome; }

  std::vector<DirectoryRules> directories_;
  std::vector<OpenDirectory> open_;
};

TEST_F(ARemoval, TellsTheBytesThatWereAllocated) {
  makeFile("cache/a", day, 3);
  const Candidate candidate = find();
  const Removal removal = removeFile(open_, candidate);
  EXPECT_EQ(removal.outcome, RemovalOutcome::Removed);
  EXPECT_EQ(removal.bytes, 3 * unit);
  EXPECT_FALSE(exists("cache/a"));
}

TEST_F(ARemoval, SparesAFileThatWasReadMeanwhile) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  setTimes("cache/a", hour, day);
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(ARemoval, SparesAFileThatWasWrittenMeanwhile) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  setTimes("cache/a", day, hour);
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(ARemoval, SparesAFileThatWasChangedMeanwhileAndHasItsTimesBack) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  makeFile("cache/a", day, 2);
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(ARemoval, SparesAnotherFileOfTheSameNameAndAge) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  makeFile("new", day);
  fs::rename(absolute("new"), absolute("cache/a"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(ARemoval, SparesAFileThatGotAnotherNameMeanwhile) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  fs::create_hard_link(absolute("cache/a"), absolute("kept"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(ARemoval, SurvivesAFileThatVanished) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  fs::remove(absolute("cache/a"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
}

TEST_F(ARemoval, SurvivesADirectoryThatVanished) {
  makeFile("cache/deep/a", day);
  const Candidate candidate = find();
  fs::remove_all(absolute("cache/deep"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
}

TEST_F(ARemoval, SparesADirectoryInThePlaceOfAFile) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  fs::remove(absolute("cache/a"));
  fs::create_directory(absolute("cache/a"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(ARemoval, FollowsNoLinkInThePlaceOfAFile) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  fs::rename(absolute("cache/a"), absolute("moved"));
  fs::create_symlink(absolute("moved"), absolute("cache/a"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("cache/a"));
  EXPECT_TRUE(exists("moved"));
}

TEST_F(ARemoval, FollowsNoLinkInThePlaceOfADirectory) {
  makeFile("cache/deep/a", day);
  const Candidate candidate = find();
  fs::rename(absolute("cache/deep"), absolute("moved"));
  fs::create_directory_symlink(absolute("moved"), absolute("cache/deep"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
  EXPECT_TRUE(exists("moved/a"));
}

TEST_F(ARemoval, ReachesItsDirectoryThoughThatWasRenamed) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  fs::rename(absolute("cache"), absolute("renamed"));
  EXPECT_EQ(remove(candidate), RemovalOutcome::Removed);
  EXPECT_FALSE(exists("renamed/a"));
}

TEST_F(ARemoval, SparesAFileThatIsOpenAsDeletingItWouldFreeNothing) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  std::optional<Descriptor> reader = Descriptor(::open(absolute("cache/a").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(remove(candidate), RemovalOutcome::InUse);
  EXPECT_TRUE(exists("cache/a"));
  reader.reset();
  EXPECT_EQ(remove(candidate), RemovalOutcome::Removed);
}

TEST_F(ARemoval, SparesAFileThatIsMapped) {
  makeFile("cache/a", day);
  const Candidate candidate = find();
  void* mapping = nullptr;
  {
    const Descriptor reader(::open(absolute("cache/a").c_str(), O_RDONLY | O_CLOEXEC));
    mapping = mmap(nullptr, unit, PROT_READ, MAP_PRIVATE, reader.number(), 0);
  }
  ASSERT_NE(mapping, MAP_FAILED);
  EXPECT_EQ(remove(candidate), RemovalOutcome::InUse);
  EXPECT_TRUE(exists("cache/a"));
  munmap(mapping, unit);
}

TEST_F(ARemoval, OfAFileWithSeveralNamesTakesThemAll) {
  makeFile("cache/a", day, 2);
  fs::create_hard_link(absolute("cache/a"), absolute("cache/b"));
  fs::create_hard_link(absolute("cache/a"), absolute("other/c"));
  const Candidate candidate = find();
  const Removal removal = removeFile(open_, candidate);
  EXPECT_EQ(removal.outcome, RemovalOutcome::Removed);
  EXPECT_EQ(removal.bytes, 2 * unit);
  EXPECT_FALSE(exists("cache/a") || exists("cache/b") || exists("other/c"));
}

TEST_F(ARemoval, OfAFileWithSeveralNamesTakesNoneWhenOneHasChanged) {
  makeFile("cache/a", day);
  fs::create_hard_link(absolute("cache/a"), absolute("cache/b"));
  for (const char* moved : {"cache/a", "cache/b"}) {
    const Candidate candidate = find();
    fs::rename(absolute(moved), absolute("elsewhere"));
    EXPECT_EQ(remove(candidate), RemovalOutcome::Changed);
    EXPECT_TRUE(exists("cache/a") || exists("cache/b"));
    fs::rename(absolute("elsewhere"), absolute(moved));
  }
  EXPECT_TRUE(exists("cache/a") && exists("cache/b"));
}

TEST_F(ARemoval, TellsThatTheSystemDoesNotLetTheFileGo) {
  makeFile("cache/deep/a", day);
  const Candidate candidate = find();
  fs::permissions(root_, fs::perms::all);
  ASSERT_EQ(chmod(absolute("cache/deep").c_str(), 0555), 0);
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    // As somebody who is not above permissions.
    ASSERT_EQ(seteuid(12345), 0);
  }
  EXPECT_EQ(remove(candidate), RemovalOutcome::Forbidden);
  if (isRoot) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_TRUE(exists("cache/deep/a"));
  ASSERT_EQ(chmod(absolute("cache/deep").c_str(), 0755), 0);
}

TEST_F(ARemoval, NeedsNoPermissionToRead) {
  makeFile("cache/a", day);
  ASSERT_EQ(chmod(absolute("cache/a").c_str(), 0), 0);
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(chown(absolute("cache/a").c_str(), 12345, 12345), 0);
  }
  const Candidate candidate = find();
  ASSERT_EQ(chmod(absolute("cache").c_str(), 0777), 0);
  fs::permissions(root_, fs::perms::all);
  std::optional<Descriptor> reader = Descriptor(::open(absolute("cache/a").c_str(), O_PATH | O_CLOEXEC));
  if (isRoot) {
    ASSERT_EQ(seteuid(12345), 0);
  }
  EXPECT_EQ(remove(candidate), RemovalOutcome::InUse);
  reader.reset();
  EXPECT_EQ(remove(candidate), RemovalOutcome::Removed);
  if (isRoot) {
    ASSERT_EQ(seteuid(0), 0);
  }
}

using HardLinks = CacheTest;

TEST_F(HardLinks, CountForNothingWhileOneIsElsewhere) {
  makeFile("cache/a", 30 * day);
  fs::create_hard_link(absolute("cache/a"), absolute("elsewhere"));
  EXPECT_EQ(purgeable({rules()}, 4), 0U);
  EXPECT_EQ(purge({rules()}, 4, everything).freed, 0U);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(HardLinks, CountOnceWhenAllAreInside) {
  makeFile("cache/a", 30 * day, 2);
  fs::create_hard_link(absolute("cache/a"), absolute("cache/b"));
  EXPECT_EQ(purgeable({rules()}, 1), 2 * unit);
  EXPECT_EQ(purge({rules()}, 1, everything).freed, 2 * unit);
  EXPECT_FALSE(exists("cache/a") || exists("cache/b"));
}

TEST_F(HardLinks, ProtectTheFileWhenOneMatchesAPattern) {
  makeFile("cache/a", 30 * day);
  fs::create_hard_link(absolute("cache/a"), absolute("cache/b.keep"));
  DirectoryRules protecting = rules();
  protecting.protectedPatterns = {"*.keep"};
  EXPECT_EQ(purge({protecting}, 4, everything).freed, 0U);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(HardLinks, AcrossDirectoriesLeaveWhatEachKeeps) {
  makeFile("cache/a", 30 * day, 2);
  fs::create_directory(absolute("other"));
  fs::create_hard_link(absolute("cache/a"), absolute("other/b"));
  DirectoryRules keeping = rules("other");
  keeping.keepBytes = 1;
  EXPECT_EQ(purgeable({rules(), keeping}, 1), 2 * unit - 1);
  EXPECT_EQ(purge({rules(), keeping}, 1, everything).freed, 0U);
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(HardLinks, BeyondTheBoundsAreFoundInALaterRound) {
  makeFile("cache/old", 40 * day);
  makeFile("cache/a", 30 * day);
  fs::create_hard_link(absolute("cache/a"), absolute("cache/b"));
  makeFile("cache/new", 20 * day);
  EXPECT_EQ(purge({rules()}, 1, everything, {}, {2, 1000}).freed, 3 * unit);
}

}  // namespace
}  // namespace kelvane::directoryCache
