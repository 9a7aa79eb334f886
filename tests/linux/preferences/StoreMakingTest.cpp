// SPDX-License-Identifier: Apache-2.0
// What the making of a store leaves behind, displaces and removes.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "platform/Process.h"
#include "platform/linux/preferences/PreferencesStore.h"
#include "tests/harness/ResultText.h"
#include "tests/linux/preferences/StoreTesting.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::dictionary;
using test::readFile;
using test::textOf;
using test::writeFile;
using test::writeTo;

const std::string directory = "/mnt/making/preferences";
const std::string place = directory + "/suite";
const std::string temporary = directory + "/.suite.new";
const std::string aside = directory + "/suite.damaged-";
const std::string lastAside = aside + std::to_string(limits::damagedPreferences);

/// Which flushes of the directory of all stores fail, the next so many.
int failingFlushes = 0;
int flushDirectory(int file) {
  if (failingFlushes > 0 && std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)) == directory) {
    --failingFlushes;
    errno = EIO;
    return -1;
  }
  return fsync(file);
}

class AStoreInTheMaking : public testing::Test {
 protected:
  AStoreInTheMaking() {
    std::filesystem::remove_all("/mnt/making");
    std::filesystem::create_directories(directory);
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
    failingFlushes = 0;
  }

  static Result<std::unique_ptr<PreferencesStore>> open() {
    return PreferencesStore::open(directory, "suite", {.flushDirectory = flushDirectory});
  }
  /// An open store in whose place is somebody else's.
  static std::unique_ptr<PreferencesStore> replacedStore() {
    auto store = open();
    EXPECT_TRUE(store) << textOf(store);
    std::filesystem::remove_all(place);
    std::filesystem::create_directory(place);
    writeFile(place + "/slot-a", "of somebody else");
    return *std::move(store);
  }
  static bool isEmpty(const std::string& path) { return std::filesystem::is_empty(path); }
};

TEST_F(AStoreInTheMaking, LeavesNothingWhenItsDirectoryCannotBeFlushed) {
  failingFlushes = 1;
  EXPECT_EQ(textOf(open()), "making suite: Input/output error");
  EXPECT_TRUE(isEmpty(directory));
  EXPECT_EQ(textOf(open()), "");
}

TEST_F(AStoreInTheMaking, LeavesNothingWhenItsFilesMayNotBeSoLong) {
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
  const rlimit low{.rlim_cur = limits::preferencesRoom / 2, .rlim_max = usual.rlim_max};
  outliveFileSizeLimit();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &low), 0);
  const std::string refused = textOf(open());
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &usual), 0);
  ASSERT_NE(std::signal(SIGXFSZ, SIG_DFL), SIG_ERR);
  EXPECT_EQ(refused, "writing slot-a: File too large");
  EXPECT_TRUE(isEmpty(directory));
}

TEST_F(AStoreInTheMaking, TakesThePlaceOfOneThatWasLeftHalfMade) {
  std::filesystem::create_directory(temporary);
  EXPECT_EQ(textOf(open()), "");
  std::filesystem::remove_all(place);
  std::filesystem::create_directory(temporary);
  writeFile(temporary + "/slot-a", "half");
  EXPECT_EQ(textOf(open()), "");
  EXPECT_FALSE(std::filesystem::exists(temporary));
}

TEST_F(AStoreInTheMaking, RemovesNothingElseThatHasItsTemporaryName) {
  const auto within = [](const std::function<void()>& fill) {
    return [fill] {
      std::filesystem::create_directory(temporary);
      writeFile(temporary + "/slot-a", "half");
      fill();
    };
  };
  const std::string elsewhere = "/mnt/making/elsewhere";
  std::filesystem::create_directory(elsewhere);
  writeFile(elsewhere + "/slot-a", "of somebody else");
  struct Obstacle {
    std::function<void()> put;
    std::string why;
  };
  const std::vector<Obstacle> obstacles = {
      {[] { writeFile(temporary, "a file"); }, "Not a directory"},
      {[&] { std::filesystem::create_directory_symlink(elsewhere, temporary); }, "Not a directory"},
      {within([] { writeFile(temporary + "/notes", ""); }), "it holds more than a store's files"},
      {within([] { std::filesystem::create_directory(temporary + "/slot-b"); }), "it holds more than a store's files"},
      {within([&] { std::filesystem::create_symlink(elsewhere, temporary + "/slot-b"); }),
       "it holds more than a store's files"},
  };
  for (const auto& [put, why] : obstacles) {
    put();
    EXPECT_EQ(textOf(open()), "removing " + temporary + ": " + why);
    EXPECT_FALSE(std::filesystem::exists(place));
    if (why != "Not a directory") {
      EXPECT_EQ(readFile(temporary + "/slot-a"), "half") << "not even what a store may have made";
    }
    EXPECT_EQ(readFile(elsewhere + "/slot-a"), "of somebody else");
    ASSERT_GT(std::filesystem::remove_all(temporary), 0u);
  }
  EXPECT_EQ(textOf(open()), "");
}

TEST_F(AStoreInTheMaking, LeavesWhatIsMountedAloneWhicheverDiskItIsOf) {
  const std::string elsewhere = "/mnt/making/elsewhere";
  std::filesystem::create_directory(elsewhere);
  std::filesystem::create_directory(temporary);
  for (const char* kind : {"tmpfs", "bind"}) {
    const bool isBind = std::string(kind) == "bind";
    ASSERT_EQ(mount(elsewhere.c_str(), temporary.c_str(), kind, isBind ? MS_BIND : 0, nullptr), 0);
    writeFile(temporary + "/slot-a", "of another store");
    const auto store = open();
    EXPECT_EQ(textOf(store), "removing " + temporary + ": it is a mount point") << kind;
    ASSERT_FALSE(store);
    EXPECT_NE(store.failure().number, EBUSY) << "it is no other daemon's";
    EXPECT_EQ(readFile(temporary + "/slot-a"), "of another store");
    ASSERT_EQ(umount2(temporary.c_str(), MNT_DETACH), 0);
  }
  EXPECT_EQ(textOf(open()), "");
}

TEST_F(AStoreInTheMaking, DisplacesNothingThatCannotBeKeptAside) {
  const auto store = replacedStore();
  for (int number = 1; number <= limits::damagedPreferences; ++number) {
    std::filesystem::create_directory(aside + std::to_string(number));
  }
  writeFile(lastAside + "/notes", "of somebody else");
  for (int count = 0; count < 2; ++count) {
    EXPECT_EQ(textOf(writeTo(*store, dictionary("refused"))),
              "removing " + lastAside + ": it holds more than a store's files");
    EXPECT_EQ(readFile(place + "/slot-a"), "of somebody else");
    EXPECT_FALSE(std::filesystem::exists(temporary));
  }
  EXPECT_EQ(readFile(lastAside + "/notes"), "of somebody else");
  std::filesystem::remove_all(lastAside);
  EXPECT_EQ(textOf(writeTo(*store, dictionary("after"))), "");
  EXPECT_EQ(readFile(lastAside + "/slot-a"), "of somebody else");
}

TEST_F(AStoreInTheMaking, LeavesWhatIsInItsPlaceThereUntilItIsDurable) {
  const auto store = replacedStore();
  failingFlushes = 2;
  for (int count = 0; count < 2; ++count) {
    EXPECT_EQ(textOf(writeTo(*store, dictionary("refused"))), "making suite: Input/output error");
    EXPECT_EQ(readFile(place + "/slot-a"), "of somebody else");
    EXPECT_FALSE(std::filesystem::exists(temporary));
    EXPECT_FALSE(std::filesystem::exists(aside + "1"));
  }
  EXPECT_EQ(textOf(writeTo(*store, dictionary("after"))), "");
  EXPECT_EQ(readFile(aside + "1/slot-a"), "of somebody else");
}

TEST_F(AStoreInTheMaking, KeepsAMountPointInItsPlace) {
  const auto store = replacedStore();
  test::mountTmpfs(place, "size=1m");
  EXPECT_EQ(textOf(writeTo(*store, dictionary("refused"))), "renaming " + place + ": it is a mount point");
  EXPECT_FALSE(std::filesystem::exists(temporary));
  EXPECT_FALSE(std::filesystem::exists(aside + "1"));
  ASSERT_EQ(umount2(place.c_str(), MNT_DETACH), 0);
  EXPECT_EQ(textOf(writeTo(*store, dictionary("after"))), "");
  EXPECT_EQ(readFile(aside + "1/slot-a"), "of somebody else");
}

TEST_F(AStoreInTheMaking, KeepsADamagedOneThatCannotBeKeptAside) {
  std::filesystem::create_directory(place);
  writeFile(place + "/slot-a", "damage");
  for (int number = 1; number < limits::damagedPreferences; ++number) {
    std::filesystem::create_directory(aside + std::to_string(number));
  }
  test::mountTmpfs(lastAside, "size=1m");
  writeFile(lastAside + "/slot-a", "of another disk");
  const auto store = open();
  EXPECT_EQ(textOf(store), "removing " + lastAside + ": it is a mount point");
  ASSERT_FALSE(store);
  EXPECT_NE(store.failure().number, EBUSY);
  EXPECT_EQ(readFile(place + "/slot-a"), "damage");
  EXPECT_EQ(readFile(lastAside + "/slot-a"), "of another disk");
  ASSERT_EQ(umount2(lastAside.c_str(), MNT_DETACH), 0);
}

}  // namespace
}  // namespace kelvane
