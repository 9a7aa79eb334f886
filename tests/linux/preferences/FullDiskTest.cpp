// SPDX-License-Identifier: Apache-2.0
// Preferences on a file system without a free block.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/Limits.h"
#include "platform/linux/preferences/PreferencesStore.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "tests/harness/ResultText.h"
#include "tests/linux/preferences/StoreTesting.h"
#include "tests/linux/testing/LoopDisk.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::textOf;
using test::writeTo;

const std::string disk = "/mnt/disk";

const std::string filling = "filler";

/// Takes every block there is.
void fill() {
  test::fillDisk(disk, filling);
  struct statvfs status;
  ASSERT_EQ(statvfs(disk.c_str(), &status), 0);
  ASSERT_EQ(status.f_bavail, 0u);
}

/// On ext4 where the rights allow it, else on tmpfs, which overwrites in place as well.
class AFullDisk : public testing::Test {
 protected:
  AFullDisk() {
    const std::string image = "/mnt/disk.image";
    if (!test::isTrulyRoot() || !test::makeDisk(image, 32 << 20) || !test::mountDisk(image, disk)) {
      test::mountTmpfs(disk, "size=16m");
    }
  }
  ~AFullDisk() override { EXPECT_EQ(umount2(disk.c_str(), MNT_DETACH), 0); }

  static std::unique_ptr<PreferencesStore> openStore() {
    auto store = PreferencesStore::open(disk + "/preferences", "suite");
    return store ? *std::move(store) : nullptr;
  }
  static Value::Dictionary dictionary(std::size_t length, char character) {
    return {{"key", std::string(length, character)}};
  }
};

TEST_F(AFullDisk, TakesWhatFitsIntoTheRoomKept) {
  constexpr std::size_t most = limits::preferencesRoom - 100;
  auto store = openStore();
  ASSERT_TRUE(store);
  fill();
  for (std::size_t length = 1; length < most; length += 100'000) {
    ASSERT_EQ(textOf(writeTo(*store, dictionary(length, 'x'))), "") << length;
  }
  ASSERT_EQ(textOf(writeTo(*store, dictionary(most, 'y'))), "");
  store.reset();
  store = openStore();
  ASSERT_TRUE(store) << "opening needs no space either";
  EXPECT_EQ(store->contents(), dictionary(most, 'y'));
  EXPECT_EQ(textOf(writeTo(*store, dictionary(most, 'z'))), "");
}

TEST_F(AFullDisk, LosesNothingWhenItRefusesMore) {
  constexpr std::size_t more = 2 * limits::preferencesRoom;
  auto store = openStore();
  ASSERT_EQ(textOf(writeTo(*store, dictionary(1000, 'a'))), "");
  fill();
  EXPECT_EQ(textOf(store->makeRoom(more)), "writing slot-a: No space left on device");
  for (int count = 0; count < 3; ++count) {
    EXPECT_EQ(textOf(writeTo(*store, dictionary(more, 'b'))), "writing slot-a: No space left on device");
  }
  store.reset();
  store = openStore();
  ASSERT_TRUE(store);
  EXPECT_EQ(store->contents(), dictionary(1000, 'a'));
  std::filesystem::remove(disk + "/" + filling);
  EXPECT_EQ(textOf(writeTo(*store, dictionary(more, 'b'))), "") << "with space again it goes on";
}

TEST_F(AFullDisk, TakesWhatRoomWasMadeForBefore) {
  constexpr std::size_t more = limits::preferencesRoom + 500'000;
  const auto store = openStore();
  ASSERT_EQ(textOf(store->makeRoom(more)), "");
  fill();
  EXPECT_EQ(textOf(writeTo(*store, dictionary(more - 100, 'c'))), "");
  EXPECT_EQ(textOf(writeTo(*store, dictionary(more - 100, 'd'))), "");
}

TEST_F(AFullDisk, HasNoRoomForANewStore) {
  fill();
  EXPECT_EQ(PreferencesStore::open(disk + "/preferences", "suite").failure().number, ENOSPC);
  std::filesystem::remove(disk + "/" + filling);
  EXPECT_NE(openStore(), nullptr) << "nothing half made is in the way";
}

/// What there is once it is settled.
std::uint64_t freeBlocks() {
  const FileDescriptor directory(open(disk.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(syncfs(directory.get()), 0);
  struct statvfs status = {};
  EXPECT_EQ(fstatvfs(directory.get(), &status), 0);
  return status.f_bfree;
}

TEST_F(AFullDisk, GetsBackWhatANewStoreHasTakenThatItHasNoRoomFor) {
  std::filesystem::create_directory(disk + "/preferences");
  fill();
  std::filesystem::resize_file(disk + "/" + filling,
                               std::filesystem::file_size(disk + "/" + filling) - limits::preferencesRoom / 2);
  const std::uint64_t before = freeBlocks();
  ASSERT_GT(before, 0u);
  EXPECT_EQ(PreferencesStore::open(disk + "/preferences", "suite").failure().number, ENOSPC);
  EXPECT_EQ(freeBlocks(), before);
  EXPECT_TRUE(std::filesystem::is_empty(disk + "/preferences"));
}

}  // namespace
}  // namespace kelvane
