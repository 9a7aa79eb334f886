// SPDX-License-Identifier: Apache-2.0
// What is not this process's to delete, and so neither counts nor goes.
#include "services/directory-cache/Rights.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "services/directory-cache/Removal.h"
#include "tests/services/CacheFixture.h"

namespace kelvane::directoryCache {
namespace {

namespace fs = std::filesystem;

constexpr uid_t owner = 12345;
constexpr uid_t stranger = 23456;

/// Root runs the body as the owner of the files; anybody else is that already.
class NotToBeDeleted : public CacheTest {
 protected:
  NotToBeDeleted() : isRoot_(geteuid() == 0) {
    fs::permissions(root_, fs::perms::all);
    give("cache", owner);
    makeFile("cache/ours", 30 * day);
    give("cache/ours", owner);
  }

  void give(const std::string& path, uid_t user) const {
    if (isRoot_) {
      ASSERT_EQ(chown(absolute(path).c_str(), user, user), 0);
    }
  }
  /// Ours alone counts, and ours alone goes.
  void expectOursAlone() {
    const std::vector<DirectoryRules> directories = {rules()};
    if (isRoot_) {
      ASSERT_EQ(seteuid(owner), 0);
    }
    const std::vector<OpenDirectory> open = openDirectoriesOn(root_, directories);
    const std::uint64_t counted = purgeableBytes(open, 4, testNow, Cancellation());
    Candidates candidates({100, 10'000}, std::nullopt);
    survey(open, 4, testNow, Cancellation(), [&](FoundLink link) { candidates.offer(std::move(link)); });
    for (const Candidate& candidate : candidates.take().candidates) {
      EXPECT_EQ(removeFile(open, candidate).outcome, RemovalOutcome::Removed);
    }
    if (isRoot_) {
      ASSERT_EQ(seteuid(0), 0);
    }
    EXPECT_EQ(counted, unit);
    EXPECT_FALSE(exists("cache/ours"));
  }

  const bool isRoot_;
};

TEST_F(NotToBeDeleted, IsWhatIsInADirectoryThatMayNotBeWrittenTo) {
  makeFile("cache/closed/theirs", 30 * day);
  give("cache/closed/theirs", owner);
  ASSERT_EQ(chmod(absolute("cache/closed").c_str(), 0555), 0);
  expectOursAlone();
  EXPECT_TRUE(exists("cache/closed/theirs"));
  ASSERT_EQ(chmod(absolute("cache/closed").c_str(), 0755), 0);
}

TEST_F(NotToBeDeleted, IsAnothersFileAsNobodyElseCanTellWhetherItIsOpen) {
  if (isRoot_) {
    // Nobody else can give files away.
    makeFile("cache/theirs", 30 * day);
    give("cache/theirs", stranger);
  }
  expectOursAlone();
  EXPECT_EQ(exists("cache/theirs"), isRoot_);
}

TEST(AnothersFile, MayGoOnlyByWhoCanTellWhetherItIsOpenAndIsAboveOwnersInAStickyDirectory) {
  FileStatus directory;
  FileStatus file;
  directory.owner = file.owner = geteuid() + 1;
  directory.mode = S_IFDIR | 01777;
  EXPECT_EQ(Rights().mayRemove(directory, file), geteuid() == 0);
  file.owner = geteuid();
  EXPECT_TRUE(Rights().mayRemove(directory, file));
  file.isFixed = true;
  EXPECT_FALSE(Rights().mayRemove(directory, file));
}

class RootsPurge : public CacheTest {
 protected:
  void SetUp() override {
    makeFile("cache/deep/a", 30 * day);
    if (geteuid() != 0) {
      // The owner of a directory may always write to it, and is asked about it by nobody but root.
      EXPECT_TRUE(writableByOthers(absolute("cache")));
      EXPECT_FALSE(writableForRoot(rules()));
      EXPECT_EQ(purgeable({rules()}, 4), unit);
      GTEST_SKIP() << "the rest is about root";
    }
  }
  /// Whether something goes with a path changed by somebody.
  std::uint64_t after(const std::string& path, const std::function<int(const char*)>& change) {
    EXPECT_EQ(change(absolute(path).c_str()), 0);
    return purgeable({rules()}, 4);
  }
};

TEST_F(RootsPurge, DeletesWhereRootAloneMayWrite) {
  EXPECT_EQ(purgeable({rules()}, 4), unit);
  EXPECT_FALSE(writableByOthers(absolute("cache")));
}

TEST_F(RootsPurge, LeavesDirectoriesThatOthersMayWriteToUnlessToldOtherwise) {
  for (const char* path : {"", "cache", "cache/deep"}) {
    for (const mode_t mode : {0775U, 0757U, 01777U}) {
      EXPECT_EQ(after(path, [=](const char* where) { return chmod(where, mode); }),
                mode == 01777U && *path == '\0' ? unit : 0)
          << path;
    }
    EXPECT_EQ(after(path, [](const char* where) { return chmod(where, 0755); }), unit) << path;
    EXPECT_EQ(after(path, [](const char* where) { return chown(where, stranger, 0); }), 0U) << path;
    DirectoryRules trusting = rules();
    trusting.othersMayWrite = true;
    EXPECT_EQ(purgeable({trusting}, 4), unit) << path;
    EXPECT_EQ(after(path, [](const char* where) { return chown(where, 0, 0); }), unit) << path;
  }
}

TEST_F(RootsPurge, CountsNoFileThatIsImmutable) {
  const Descriptor file(::open(absolute("cache/deep/a").c_str(), O_RDONLY | O_CLOEXEC));
  int flags = 0;
  ASSERT_EQ(ioctl(file.number(), FS_IOC_GETFLAGS, &flags), 0);
  const int immutable = flags | FS_IMMUTABLE_FL;
  ASSERT_EQ(ioctl(file.number(), FS_IOC_SETFLAGS, &immutable), 0);
  EXPECT_EQ(purgeable({rules()}, 4), 0U);
  ASSERT_EQ(ioctl(file.number(), FS_IOC_SETFLAGS, &flags), 0);
  EXPECT_EQ(purgeable({rules()}, 4), unit);
}

}  // namespace
}  // namespace kelvane::directoryCache
