// SPDX-License-Identifier: Apache-2.0
// Where a walk goes and where it does not.
#include "services/directory-cache/Tree.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/Limits.h"
#include "tests/services/CacheFixture.h"

namespace kelvane::directoryCache {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class AWalk : public CacheTest {
 protected:
  std::vector<std::string> walk(const std::vector<std::string>& protectedPatterns = {}) {
    std::vector<std::string> paths;
    result_ = Tree::open(absolute("cache"))->walk({protectedPatterns}, Cancellation(), [&](const WalkedFile& file) {
      paths.push_back(file.path);
    });
    return paths;
  }

  WalkResult result_;
};

TEST_F(AWalk, ShowsFilesByTheirPathsWithinTheTree) {
  makeFile("cache/a", 0);
  makeFile("cache/deep/down/b", 0);
  fs::create_directory(absolute("cache/empty"));
  EXPECT_THAT(walk(), UnorderedElementsAre("a", "deep/down/b"));
  EXPECT_EQ(result_.unreadable, 0U);
}

TEST_F(AWalk, FollowsNoLinks) {
  makeFile("outside/a", 0);
  fs::create_directory_symlink(absolute("outside"), absolute("cache/directory"));
  fs::create_symlink(absolute("outside/a"), absolute("cache/file"));
  fs::create_directory_symlink("..", absolute("cache/up"));
  fs::create_symlink("nowhere", absolute("cache/dangling"));
  EXPECT_THAT(walk(), IsEmpty());
  EXPECT_EQ(result_.unreadable, 0U);
}

TEST_F(AWalk, PassesOverWhatMatchesAPatternAndAllBeneathIt) {
  makeFile("cache/.hidden", 0);
  makeFile("cache/index/a", 0);
  makeFile("cache/index/deep/b", 0);
  makeFile("cache/other/index", 0);
  makeFile("cache/c.lock", 0);
  makeFile("cache/other/d.lock", 0);
  EXPECT_THAT(walk({"index", "*.lock", "other/i*"}), UnorderedElementsAre(".hidden"));
}

TEST_F(AWalk, GoesAsDeepAsItsLimit) {
  std::string path = "cache";
  for (int depth = 1; depth < limits::directoryDepth; ++depth) {
    path += "/d";
  }
  makeFile(path + "/deepest", 0);
  makeFile(path + "/d/deeper", 0);
  const std::vector<std::string> paths = walk();
  ASSERT_EQ(paths.size(), 1U);
  EXPECT_TRUE(paths.front().ends_with("/deepest"));
  EXPECT_EQ(result_.unreadable, 1U);
}

TEST_F(AWalk, DoesNotCrossToAnotherVolume) {
  // What is mounted beneath the root of this system: everything else there is left out.
  std::vector<std::string> patterns;
  for (const auto& entry : fs::directory_iterator("/")) {
    if (entry.path() != "/proc") {
      std::string pattern;
      for (const char character : entry.path().filename().string()) {
        pattern += {'\\', character};
      }
      patterns.push_back(pattern);
    }
  }
  int seen = 0;
  const WalkResult result = Tree::open("/")->walk({patterns}, Cancellation(), [&](const WalkedFile&) { ++seen; });
  EXPECT_EQ(seen, 0);
  EXPECT_EQ(result.unreadable, 0U);
}

TEST_F(AWalk, GoesOnPastADirectoryThatItCannotRead) {
  makeFile("cache/a", 0);
  makeFile("cache/secret/b", 0);
  makeFile("cache/z", 0);
  fs::permissions(absolute("cache/secret"), fs::perms::none);
  // As somebody who is not above permissions.
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(chown(absolute("cache").c_str(), 12345, 12345), 0);
    fs::permissions(root_, fs::perms::all);
    ASSERT_EQ(seteuid(12345), 0);
  }
  EXPECT_THAT(walk(), UnorderedElementsAre("a", "z"));
  EXPECT_EQ(result_.unreadable, 1U);
  if (isRoot) {
    ASSERT_EQ(seteuid(0), 0);
  }
  fs::permissions(absolute("cache/secret"), fs::perms::all);
}

TEST_F(AWalk, SurvivesATreeThatIsRemovedMeanwhile) {
  for (int index = 0; index < 20; ++index) {
    makeFile("cache/" + std::to_string(index) + "/a", 0);
  }
  int seen = 0;
  const WalkResult result = Tree::open(absolute("cache"))->walk({}, Cancellation(), [&](const WalkedFile&) {
    ++seen;
    fs::remove_all(absolute("cache"));
  });
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(result.unreadable, 0U);
}

TEST_F(AWalk, CanBeRepeated) {
  makeFile("cache/a", 0);
  const Tree tree = *Tree::open(absolute("cache"));
  for (int turn = 0; turn < 2; ++turn) {
    int seen = 0;
    tree.walk({}, Cancellation(), [&](const WalkedFile&) { ++seen; });
    EXPECT_EQ(seen, 1);
  }
}

using ATree = CacheTest;

TEST_F(ATree, IsNotOpenedThroughALink) {
  makeFile("cache/deep/a", 0);
  fs::create_directory_symlink("cache", absolute("link"));
  EXPECT_FALSE(Tree::open(absolute("link")));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(Tree::open(absolute("link/deep")));
  EXPECT_TRUE(Tree::open(absolute("cache/deep")));
}

TEST_F(ATree, IsADirectory) {
  makeFile("cache/a", 0);
  EXPECT_FALSE(Tree::open(absolute("cache/a")));
  EXPECT_FALSE(Tree::open(absolute("missing")));
}

TEST_F(ATree, OpensNoParentOutsideItself) {
  makeFile("cache/deep/a", 0);
  makeFile("outside/b", 0);
  fs::create_directory_symlink(absolute("outside"), absolute("cache/link"));
  const Tree tree = *Tree::open(absolute("cache"));
  EXPECT_TRUE(tree.openParent("deep/a").isValid());
  EXPECT_TRUE(tree.openParent("a").isValid());
  EXPECT_FALSE(tree.openParent("link/b").isValid());
  EXPECT_FALSE(tree.openParent("../outside/b").isValid());
  EXPECT_FALSE(tree.openParent("missing/c").isValid());
}

TEST(AVolumeIdentity, IsTheSameForOneDeviceOrOneMount) {
  const VolumeIdentity first = {1, 10};
  EXPECT_TRUE(first.isSame({1, 11}));
  EXPECT_TRUE(first.isSame({2, 10}));
  EXPECT_FALSE(first.isSame({2, 11}));
  EXPECT_FALSE(first.isSame({2, std::nullopt}));
  EXPECT_TRUE((VolumeIdentity{1, std::nullopt}.isSame({1, 10})));
}

TEST(AVolumeIdentity, DiffersFromThatOfAMountBeneath) {
  EXPECT_FALSE(volumeAt("/")->isSame(*volumeAt("/proc")));
  EXPECT_TRUE(volumeAt("/proc")->isSame(*volumeAt("/proc/self")));
  EXPECT_FALSE(volumeAt("/nonexistent"));
}

}  // namespace
}  // namespace kelvane::directoryCache
