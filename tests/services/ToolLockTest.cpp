// SPDX-License-Identifier: Apache-2.0
// A cache whose program is at work.
#include "services/directory-cache/ToolLock.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>

#include <filesystem>
#include <limits>
#include <optional>

#include "tests/services/CacheFixture.h"

namespace kelvane::directoryCache {
namespace {

constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

class ALockedCache : public CacheTest {
 protected:
  ALockedCache() : rules_(rules()) {
    rules_.lock = absolute("cache/lock");
    rules_.protectedPatterns = {"lock"};
    makeFile("cache/a", 30 * day);
  }

  Descriptor openLock() const { return Descriptor(::open(rules_.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)); }
  static bool lockByRecord(const Descriptor& file) {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    return fcntl(file.number(), F_OFD_SETLK, &whole) == 0;
  }

  DirectoryRules rules_;
};

TEST_F(ALockedCache, IsLeftWhicheverLockItIs) {
  for (const bool isRecord : {true, false}) {
    std::optional<Descriptor> lock = openLock();
    ASSERT_TRUE(isRecord ? lockByRecord(*lock) : flock(lock->number(), LOCK_EX | LOCK_NB) == 0);
    EXPECT_EQ(purgeable({rules_}, 4), 0U);
    EXPECT_EQ(purge({rules_}, 4, everything).removed, 0U);
    lock.reset();
    EXPECT_EQ(purgeable({rules_}, 4), unit);
  }
  EXPECT_EQ(purge({rules_}, 4, everything).removed, 1U);
  EXPECT_TRUE(exists("cache/lock"));
}

TEST_F(ALockedCache, IsItselfLockedWhileItIsPurged) {
  const Descriptor lock = openLock();
  const std::vector<DirectoryRules> directories = {rules_};
  std::vector<OpenDirectory> open = openDirectoriesOn(root_, directories, LockUse::Look);
  EXPECT_TRUE(lockByRecord(lock) && flock(lock.number(), LOCK_EX | LOCK_NB) == 0);
  flock(lock.number(), LOCK_UN);
  struct flock none = {};
  none.l_type = F_UNLCK;
  fcntl(lock.number(), F_OFD_SETLK, &none);
  open = openDirectoriesOn(root_, directories, LockUse::Hold);
  EXPECT_FALSE(lockByRecord(lock));
  EXPECT_NE(flock(lock.number(), LOCK_EX | LOCK_NB), 0);
  open.clear();
  EXPECT_TRUE(lockByRecord(lock) && flock(lock.number(), LOCK_EX | LOCK_NB) == 0);
}

TEST_F(ALockedCache, IsNotLockedByAFileThatIsNotThere) {
  EXPECT_EQ(purgeable({rules_}, 4), unit);
  EXPECT_EQ(purge({rules_}, 4, everything).removed, 1U);
  EXPECT_FALSE(exists("cache/lock"));
}

TEST_F(ALockedCache, IsLeftFromWhenItsLockIsMadeOrMadeAnew) {
  const std::vector<DirectoryRules> directories = {rules_};
  for (const bool isThere : {false, true}) {
    std::filesystem::remove(rules_.lock);
    if (isThere) {
      openLock();
    }
    const std::vector<OpenDirectory> open = openDirectoriesOn(root_, directories, LockUse::Hold);
    ASSERT_EQ(open.size(), 1U);
    std::filesystem::remove(rules_.lock);
    const Descriptor lock = openLock();
    ASSERT_TRUE(lockByRecord(lock));
    DirectoryMeter meter(root_, 1);
    EXPECT_EQ(Purger(open, meter, {10, 1000}).purge({4, everything, testNow}, Cancellation()).inUse, 1U);
    EXPECT_TRUE(exists("cache/a"));
  }
}

TEST_F(ALockedCache, IsLeftWhenItsLockIsReachedThroughALink) {
  std::filesystem::create_symlink("elsewhere", rules_.lock);
  EXPECT_EQ(purge({rules_}, 4, everything).removed, 0U);
}

}  // namespace
}  // namespace kelvane::directoryCache
