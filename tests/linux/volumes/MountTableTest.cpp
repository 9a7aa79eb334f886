// SPDX-License-Identifier: Apache-2.0
// Which mounts are volumes, by mount tables as the kernel writes them.
#include "platform/linux/volumes/MountTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> pathsIn(std::string_view table) {
  test::writeFile("/mnt/mountinfo", table);
  const auto mounts = *volumeMounts("/mnt/mountinfo");
  std::vector<std::string> paths;
  for (const VolumeMount& mount : mounts) {
    paths.push_back(mount.path);
  }
  return paths;
}

TEST(AMountTable, GivesBlockBackedAndTmpfsMountsInOrder) {
  EXPECT_THAT(pathsIn("20 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                      "21 20 0:20 / /proc rw - proc proc rw\n"
                      "22 20 0:21 / /sys rw - sysfs sysfs rw\n"
                      "23 20 0:22 / /dev rw - devtmpfs udev rw\n"
                      "24 20 0:23 / /run rw - tmpfs tmpfs rw,size=10%\n"
                      "25 20 8:17 / /data rw - xfs /dev/sdb1 rw\n"
                      "26 20 0:40 / /pool rw - btrfs /dev/sdc rw\n"
                      "27 20 0:41 / /tank rw - zfs tank rw\n"
                      "28 20 8:33 / /win rw - fuseblk /dev/sdc1 rw\n"),
              ElementsAre("/", "/run", "/data", "/pool", "/tank", "/win"));
}

TEST(AMountTable, LeavesOutNetworkAndStackedFileSystems) {
  EXPECT_THAT(pathsIn("30 1 0:50 / /nfs rw - nfs4 server:/export rw\n"
                      "31 1 0:51 / /smb rw - cifs //server/share rw\n"
                      "32 1 0:52 / /ssh rw - fuse.sshfs user@server: rw\n"
                      "33 1 0:53 / /nine rw - 9p host rw\n"
                      "34 1 0:54 / /merged rw - overlay overlay rw,upperdir=/u\n"
                      "35 1 0:55 / /host rw - virtiofs host rw\n"
                      "36 1 0:56 / /archive rw - fuse.archive /dev/fuse rw\n"),
              IsEmpty());
}

TEST(AMountTable, LeavesOutWhatIsReadOnlyAsAMountOrAsAFileSystem) {
  EXPECT_THAT(pathsIn("30 1 8:1 / / ro,relatime - ext4 /dev/sda1 rw\n"
                      "31 30 8:2 / /a rw,relatime - ext4 /dev/sda2 ro,errors=remount-ro\n"
                      "32 30 7:0 / /snap ro,nodev - squashfs /dev/loop0 ro\n"
                      "33 30 8:3 / /b rw,relatime - ext4 /dev/sda3 rw,errors=remount-ro\n"
                      "34 30 8:4 / /c rw,relatime - ext4 /dev/sda4 rw,errors=remount-ro,emergency_ro\n"),
              ElementsAre("/b"));
}

TEST(AMountTable, LeavesOutMountsThatOthersCover) {
  EXPECT_THAT(pathsIn("20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                      "21 20 8:2 / /a/deep rw - ext4 /dev/sda2 rw\n"
                      "22 20 8:3 / /a rw - nfs server:/ rw\n"  // before /a/deep in every path
                      "23 20 8:4 / /b rw - ext4 /dev/sda4 rw\n"
                      "24 23 0:30 / /b rw - proc proc rw\n"            // on top of /b
                      "25 23 8:5 / /b/inner rw - ext4 /dev/sda5 rw\n"  // beneath the covered /b
                      "26 20 8:6 / /c rw - ext4 /dev/sda6 rw\n"
                      "27 26 8:7 / /c/inner rw - ext4 /dev/sda7 rw\n"
                      "28 20 8:8 / /cc rw - ext4 /dev/sda8 rw\n"),
              ElementsAre("/", "/c", "/c/inner", "/cc"));
}

TEST(AMountTable, GivesTheTopmostOfMountsOnOnePath) {
  test::writeFile("/mnt/mountinfo",
                  "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                  "21 20 8:2 / /a rw - ext4 /dev/sda2 rw\n"
                  "22 21 0:30 / /a rw - tmpfs tmpfs rw\n");
  const auto mounts = *volumeMounts("/mnt/mountinfo");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[1].path, "/a");
  EXPECT_EQ(mounts[1].device, 30u);
}

TEST(AMountTable, CoversARootThatLaterMountsReplace) {
  EXPECT_THAT(pathsIn("1 1 0:2 / / rw - rootfs rootfs rw\n"
                      "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                      "21 20 8:2 / /a rw - ext4 /dev/sda2 rw\n"),
              ElementsAre("/", "/a"));
}

TEST(AMountTable, TellsBindMountsFromWholeFileSystemsAndGivesThoseFirst) {
  test::writeFile("/mnt/mountinfo",
                  "20 1 8:1 /sub /a rw - ext4 /dev/sda1 rw\n"
                  "21 1 8:1 / /b rw - ext4 /dev/sda1 rw\n");
  const auto mounts = *volumeMounts("/mnt/mountinfo");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].path, "/b");
  EXPECT_TRUE(mounts[0].isWhole);
  EXPECT_FALSE(mounts[1].isWhole);
  EXPECT_EQ(mounts[0].device, mounts[1].device);
}

std::vector<std::string> wayOf(const VolumeMount& mount) {
  std::vector<std::string> paths;
  for (const PassedMount& passed : mount.way) {
    paths.push_back(passed.path);
  }
  return paths;
}

TEST(AMountTable, TellsWhatMayHangOnTheWayToAMountAndGivesThoseWithoutFirst) {
  test::writeFile("/mnt/mountinfo",
                  "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                  "21 20 0:50 / /nfs rw - nfs4 server:/ rw\n"
                  "22 21 8:2 / /nfs/disk rw - ext4 /dev/sda2 rw\n"
                  "23 22 8:33 / /nfs/disk/win rw - fuseblk /dev/sdc1 rw\n"
                  "24 23 8:3 / /nfs/disk/win/in rw - ext4 /dev/sda3 rw\n"
                  "25 20 8:2 /sub /bound rw - ext4 /dev/sda2 rw\n"
                  "26 20 0:51 / /over rw - fuse.archive archive rw\n"
                  "27 26 8:4 / /over rw - ext4 /dev/sda4 rw\n"
                  "28 27 8:5 / /over/in rw - ext4 /dev/sda5 rw\n"
                  "29 20 0:52 / /auto rw - autofs automount rw\n"
                  "30 29 8:6 / /auto/disk rw - ext4 /dev/sda6 rw\n");
  const auto mounts = *volumeMounts("/mnt/mountinfo");
  std::vector<std::string> paths;
  for (const VolumeMount& mount : mounts) {
    paths.push_back(mount.path);
  }
  ASSERT_THAT(paths, ElementsAre("/", "/over", "/over/in", "/bound", "/nfs/disk", "/nfs/disk/win", "/auto/disk",
                                 "/nfs/disk/win/in"));
  for (std::size_t index = 0; index < 4; ++index) {
    EXPECT_THAT(wayOf(mounts[index]), IsEmpty()) << paths[index];
  }
  EXPECT_THAT(wayOf(mounts[4]), ElementsAre("/nfs"));
  EXPECT_EQ(mounts[4].way[0].device, makedev(0, 50));
  EXPECT_THAT(wayOf(mounts[5]), ElementsAre("/nfs"));
  EXPECT_THAT(wayOf(mounts[6]), ElementsAre("/auto"));
  EXPECT_THAT(wayOf(mounts[7]), ElementsAre("/nfs", "/nfs/disk/win"));
}

std::string line(int identifier, int parent, const std::string& path) {
  return std::to_string(identifier) + " " + std::to_string(parent) + " 8:1 / " + path + " rw - ext4 /dev/sda1 rw\n";
}

TEST(AMountTable, OfThousandsWithinAndOnTopOfEachOtherIsReadInNoTime) {
  // Going all the way up from each of them would take minutes.
  constexpr int count = 20000;
  std::string stack = line(1, 1, "/");
  for (int identifier = 2; identifier <= count; ++identifier) {
    stack += line(identifier, identifier - 1, "/stack");
  }
  for (int identifier = count + 1; identifier <= 2 * count; ++identifier) {
    stack += line(identifier, count, "/stack/" + std::to_string(identifier));
  }
  EXPECT_EQ(pathsIn(stack).size(), count + 2u);

  std::string nest = line(1, 1, "/");
  std::string path;
  for (int identifier = 2; identifier <= 2000; ++identifier) {
    path += "/a";
    nest += line(identifier, identifier - 1, path);
  }
  EXPECT_EQ(pathsIn(nest).size(), 2000u);
}

TEST(AMountTable, DecodesEscapedPaths) {
  EXPECT_THAT(pathsIn("20 1 8:1 / /my\\040disk rw - ext4 /dev/sda1 rw\n"), ElementsAre("/my disk"));
}

TEST(AMountTable, ThatCannotBeReadIsNotEmptyButUnknown) {
  const auto mounts = volumeMounts("/mnt/no-such-table");
  ASSERT_FALSE(mounts);
  EXPECT_EQ(mounts.failure().text(), "reading /mnt/no-such-table: No such file or directory");
}

}  // namespace
}  // namespace kelvane
