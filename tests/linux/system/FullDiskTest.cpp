// SPDX-License-Identifier: Apache-2.0
// Preferences on a file system without a free block.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/Limits.h"
#include "platform/linux/system/PreferencesStore.h"
#include "tests/linux/system/PrivateNamespace.h"

namespace kelvane {
namespace {

const std::string disk = "/mnt/disk";

/// Mounts a small ext4 on a loop device; false where the system has no loop devices or no mkfs.
bool mountExt4() {
  const std::string image = "/mnt/disk.image";
  test::writeFile(image, "");
  std::filesystem::resize_file(image, 32 << 20);
  const FileDescriptor control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  const FileDescriptor file(open(image.c_str(), O_RDWR | O_CLOEXEC));
  if (std::system(("mkfs.ext4 -q -m 0 " + image + " 2>/dev/null").c_str()) != 0 || !control) {
    return false;
  }
  loop_config configuration = {};
  configuration.fd = static_cast<unsigned>(file.get());
  configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  for (int attempt = 0; attempt < 20; ++attempt) {  // Another process may take the free device first.
    const std::string device = "/dev/loop" + std::to_string(ioctl(control.get(), LOOP_CTL_GET_FREE));
    const FileDescriptor loop(open(device.c_str(), O_RDWR | O_CLOEXEC));
    if (loop && ioctl(loop.get(), LOOP_CONFIGURE, &configuration) == 0) {
      std::filesystem::create_directories(disk);
      return mount(device.c_str(), disk.c_str(), "ext4", 0, nullptr) == 0;
    }
  }
  return false;
}

/// Takes every block there is.
void fill() {
  const FileDescriptor file(open((disk + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  ASSERT_TRUE(file);
  std::string block(1 << 20, 'x');
  while (!block.empty()) {
    const ssize_t count = write(file.get(), block.data(), block.size());
    if (count < static_cast<ssize_t>(block.size())) {
      block.resize(block.size() / 2);
    }
  }
  static_cast<void>(fsync(file.get()));
  struct statvfs status;
  ASSERT_EQ(statvfs(disk.c_str(), &status), 0);
  ASSERT_EQ(status.f_bavail, 0u);
}

/// On ext4 where the rights allow it, else on tmpfs, which overwrites in place as well.
class AFullDisk : public testing::Test {
 protected:
  AFullDisk() {
    if (!test::isTrulyRoot() || !mountExt4()) {
      test::mountTmpfs(disk, "size=8m");
    }
  }
  ~AFullDisk() override { EXPECT_EQ(umount2(disk.c_str(), MNT_DETACH), 0); }

  static std::unique_ptr<PreferencesStore> openStore() {
    return PreferencesStore::open(disk + "/preferences", "suite", fdatasync);
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
    ASSERT_EQ(store->write(dictionary(length, 'x')), std::nullopt) << length;
  }
  ASSERT_EQ(store->write(dictionary(most, 'y')), std::nullopt);
  store.reset();
  store = openStore();
  ASSERT_TRUE(store) << "opening needs no space either";
  EXPECT_EQ(store->contents(), dictionary(most, 'y'));
  EXPECT_EQ(store->write(dictionary(most, 'z')), std::nullopt);
}

TEST_F(AFullDisk, LosesNothingWhenItRefusesMore) {
  constexpr std::size_t more = 2 * limits::preferencesRoom;
  auto store = openStore();
  ASSERT_EQ(store->write(dictionary(1000, 'a')), std::nullopt);
  fill();
  EXPECT_EQ(store->makeRoom(more), "No space left on device");
  for (int count = 0; count < 3; ++count) {
    EXPECT_EQ(store->write(dictionary(more, 'b')), "No space left on device");
  }
  store.reset();
  store = openStore();
  ASSERT_TRUE(store);
  EXPECT_EQ(store->contents(), dictionary(1000, 'a'));
  std::filesystem::remove(disk + "/filler");
  EXPECT_EQ(store->write(dictionary(more, 'b')), std::nullopt) << "with space again it goes on";
}

TEST_F(AFullDisk, TakesWhatRoomWasMadeForBefore) {
  constexpr std::size_t more = limits::preferencesRoom + 500'000;
  const auto store = openStore();
  ASSERT_EQ(store->makeRoom(more), std::nullopt);
  fill();
  EXPECT_EQ(store->write(dictionary(more - 100, 'c')), std::nullopt);
  EXPECT_EQ(store->write(dictionary(more - 100, 'd')), std::nullopt);
}

TEST_F(AFullDisk, HasNoRoomForANewStore) {
  fill();
  testing::internal::CaptureStderr();
  EXPECT_EQ(openStore(), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("No space left on device"), std::string::npos);
  std::filesystem::remove(disk + "/filler");
  EXPECT_NE(openStore(), nullptr) << "nothing half made is in the way";
}

}  // namespace
}  // namespace kelvane
