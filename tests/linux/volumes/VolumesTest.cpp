// SPDX-License-Identifier: Apache-2.0
// Volumes that are really mounted.
#include "platform/Volumes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/linux/volumes/Paths.h"
#include "tests/linux/testing/LoopDisk.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

/// Mounts made by a test, gone after it.
class MountedVolumes : public testing::Test {
 protected:
  ~MountedVolumes() override {
    for (auto path = mounted_.rbegin(); path != mounted_.rend(); ++path) {
      EXPECT_EQ(umount2(path->c_str(), MNT_DETACH), 0) << *path;
    }
    std::filesystem::remove(paths::volumeLevelsFile);
  }

  void mountVolume(const std::string& path, const std::string& options) {
    test::mountTmpfs(path, options);
    noteMounted(path);
  }
  void noteMounted(const std::string& path) { mounted_.push_back(path); }

  void bind(const std::string& from, const std::string& onto, unsigned long flags = 0) {
    ASSERT_EQ(mount(from.c_str(), onto.c_str(), nullptr, MS_BIND, nullptr), 0);
    mounted_.push_back(onto);
    if (flags != 0) {
      ASSERT_EQ(mount(nullptr, onto.c_str(), nullptr, MS_BIND | MS_REMOUNT | flags, nullptr), 0);
    }
  }

  /// Fills a volume with one more file until this many bytes are left.
  static void leave(const std::string& path, std::uint64_t bytes) {
    const auto space = volumes::space(path);
    ASSERT_TRUE(space);
    const std::uint64_t available = space->available;
    ASSERT_GT(available, bytes);
    std::ofstream file(path + "/filler", std::ios::binary);
    const std::string block(1 << 20, 'x');
    for (std::uint64_t rest = available - bytes; rest > 0;) {
      const std::uint64_t count = std::min<std::uint64_t>(rest, block.size());
      file.write(block.data(), static_cast<std::streamsize>(count));
      rest -= count;
    }
    ASSERT_TRUE(file.flush().good());
  }

 private:
  std::vector<std::string> mounted_;
};

TEST_F(MountedVolumes, AreUsableByTheirMountPointAndNoOtherSpelling) {
  mountVolume("/mnt/a", "size=1m");
  std::filesystem::create_directory("/mnt/a/inside");
  std::filesystem::create_directory_symlink("/mnt/a", "/mnt/link");
  EXPECT_TRUE(volumes::isUsable("/mnt/a"));
  for (const char* path : {"", "mnt/a", "/mnt/a/", "/mnt//a", "/mnt/./a", "/mnt/b/../a", "/mnt/link", "/mnt/a/inside",
                           "/mnt/missing", "/proc", "/mnt/a/inside/.."}) {
    EXPECT_FALSE(volumes::isUsable(path)) << path;
  }
  EXPECT_FALSE(volumes::isUsable(std::string("/mnt/a\0", 7)));
  std::filesystem::remove("/mnt/link");
}

TEST_F(MountedVolumes, AreUsableOnlyWhileWritable) {
  mountVolume("/mnt/a", "size=1m");
  ASSERT_EQ(mount(nullptr, "/mnt/a", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_FALSE(volumes::isUsable("/mnt/a"));
  EXPECT_THAT(volumes::local(), Not(Contains("/mnt/a")));
  ASSERT_EQ(mount(nullptr, "/mnt/a", nullptr, MS_REMOUNT, nullptr), 0);
  EXPECT_TRUE(volumes::isUsable("/mnt/a"));
  EXPECT_THAT(volumes::local(), Contains("/mnt/a"));
}

TEST_F(MountedVolumes, AreListedOnceHoweverOftenTheyAreBound) {
  mountVolume("/mnt/a", "size=1m");
  std::filesystem::create_directories("/mnt/b");
  bind("/mnt/a", "/mnt/b");
  EXPECT_THAT(volumes::local(), Contains("/mnt/a"));
  EXPECT_THAT(volumes::local(), Not(Contains("/mnt/b")));
  EXPECT_TRUE(volumes::isUsable("/mnt/b")) << "a bind mount is a mount point of its file system";
}

TEST_F(MountedVolumes, BoundReadOnlyAreNotUsableThere) {
  mountVolume("/mnt/a", "size=1m");
  std::filesystem::create_directories("/mnt/b");
  bind("/mnt/a", "/mnt/b", MS_RDONLY);
  EXPECT_TRUE(volumes::isUsable("/mnt/a"));
  EXPECT_FALSE(volumes::isUsable("/mnt/b"));
}

TEST_F(MountedVolumes, AreNotFilesThatAreMountPoints) {
  mountVolume("/mnt/a", "size=1m");
  test::writeFile("/mnt/a/file", "");
  test::writeFile("/mnt/file", "");
  bind("/mnt/a/file", "/mnt/file");
  EXPECT_FALSE(volumes::isUsable("/mnt/file"));
}

TEST_F(MountedVolumes, CountAsTheTopmostMountSaysSo) {
  mountVolume("/mnt/a", "size=1m");
  ASSERT_EQ(mount("proc", "/mnt/a", "tmpfs", MS_RDONLY, "size=1m"), 0);
  EXPECT_FALSE(volumes::isUsable("/mnt/a"));
  EXPECT_THAT(volumes::local(), Not(Contains("/mnt/a")));
  ASSERT_EQ(umount("/mnt/a"), 0);
  EXPECT_TRUE(volumes::isUsable("/mnt/a"));
}

TEST_F(MountedVolumes, HaveNoSpaceThatIsKnownOnceTheyAreGone) {
  test::mountTmpfs("/mnt/b", "size=1m");
  EXPECT_TRUE(volumes::space("/mnt/b"));
  ASSERT_EQ(umount("/mnt/b"), 0);
  EXPECT_FALSE(volumes::space("/mnt/b")) << "though there is room beneath";
}

TEST_F(MountedVolumes, MayComeAndGoWhileTheyAreLookedAt) {
  std::atomic<bool> isOver = false;
  std::thread relief([&isOver] {
    while (!isOver) {
      EXPECT_THAT(volumes::lowOnSpace(), Not(Contains("/mnt/b")));
    }
  });
  std::thread other([&isOver] {
    while (!isOver) {
      EXPECT_FALSE(volumes::space("/mnt/missing/"));
    }
  });
  for (int count = 0; count < 100; ++count) {
    test::mountTmpfs("/mnt/b", "size=65m");
    EXPECT_EQ(umount2("/mnt/b", MNT_DETACH), 0);
  }
  isOver = true;
  relief.join();
  other.join();
}

TEST_F(MountedVolumes, TellWhatIsAvailableToUnprivilegedUsers) {
  mountVolume("/mnt/a", "size=1m");
  struct statvfs status;
  ASSERT_EQ(statvfs("/mnt/a", &status), 0);
  EXPECT_EQ(volumes::space("/mnt/a")->available, status.f_bavail * status.f_frsize);
  EXPECT_EQ(volumes::space("/mnt/a")->available, std::uint64_t{1} << 20);
  EXPECT_FALSE(volumes::space("/mnt/missing"));
}

TEST_F(MountedVolumes, TellWhatIsFreeWithTheReserveOfRoot) {
  const std::string image = "/mnt/disk.image";
  const bool hasReserve = test::isTrulyRoot() && test::makeDisk(image, 64 << 20) && test::mountDisk(image, "/mnt/a");
  if (hasReserve) {
    noteMounted("/mnt/a");
  } else {
    mountVolume("/mnt/a", "size=64m");
  }
  struct statvfs status;
  ASSERT_EQ(statvfs("/mnt/a", &status), 0);
  const auto space = volumes::space("/mnt/a");
  ASSERT_TRUE(space);
  EXPECT_EQ(space->size, status.f_blocks * status.f_frsize);
  EXPECT_EQ(space->available, status.f_bavail * status.f_frsize);
  EXPECT_EQ(space->free, status.f_bfree * status.f_frsize);
  EXPECT_EQ(space->free > space->available, hasReserve);
  EXPECT_EQ(volumes::space("/mnt/missing").failure().number, ENOENT);
}

TEST_F(MountedVolumes, AreToldFromThoseThatAreMountedInTheirPlaceUnderTheSameNumber) {
  const std::string image = "/mnt/disk.image";
  if (!test::isTrulyRoot() || !test::makeDisk(image, 64 << 20) || !test::mountDisk(image, "/mnt/a")) {
    // Only a file system on a disk is sure to have an identity of its own.
    return;
  }
  const auto before = volumes::space("/mnt/a");
  ASSERT_EQ(umount("/mnt/a"), 0);
  ASSERT_TRUE(test::mountDisk(image, "/mnt/a"));
  EXPECT_EQ(volumes::space("/mnt/a")->fileSystem, before->fileSystem) << "it is the same one";
  ASSERT_EQ(umount("/mnt/a"), 0);
  ASSERT_TRUE(test::makeDisk(image, 64 << 20));
  ASSERT_TRUE(test::mountDisk(image, "/mnt/a"));
  noteMounted("/mnt/a");
  EXPECT_NE(volumes::space("/mnt/a")->fileSystem, before->fileSystem);
}

TEST_F(MountedVolumes, ThatAreLowOnSpaceAreListedTheEmptiestFirst) {
  mountVolume("/mnt/a", "size=64m");
  mountVolume("/mnt/b", "size=65m");
  mountVolume("/mnt/c", "size=66m");
  mountVolume("/mnt/small", "size=63m");
  const auto low = [] {
    std::vector<std::string> ours;
    for (const std::string& volume : volumes::lowOnSpace()) {
      if (volume.starts_with("/mnt/")) {
        ours.push_back(volume);
      }
    }
    return ours;
  };
  EXPECT_THAT(low(), ElementsAre());
  leave("/mnt/a", 3 << 20);
  leave("/mnt/b", 1 << 20);
  leave("/mnt/c", 2 << 20);
  leave("/mnt/small", 1 << 20);
  EXPECT_THAT(low(), ElementsAre("/mnt/b", "/mnt/c", "/mnt/a"));
  test::writeFile(paths::volumeLevelsFile, "{ Volumes = { \"/mnt/c\" = { LowBytes = 1; }; }; }");
  EXPECT_THAT(low(), ElementsAre("/mnt/b", "/mnt/c", "/mnt/a")) << "texts are no numbers";
  test::writeFile(paths::volumeLevelsFile,
                  "<plist><dict><key>Volumes</key><dict><key>/mnt/c</key><dict><key>LowBytes</key><integer>0</integer>"
                  "<key>VeryLowBytes</key><integer>0</integer></dict></dict></dict></plist>");
  EXPECT_THAT(low(), ElementsAre("/mnt/b", "/mnt/a"));
}

}  // namespace
}  // namespace kelvane
