// SPDX-License-Identifier: Apache-2.0
// Which mount a path is on, by its name.
#include "services/directory-cache/Mounts.h"

#include <gtest/gtest.h>

namespace kelvane::directoryCache {
namespace {

const Mounts mounts(
    "20 1 8:1 / / rw - ext4 /dev/a rw\n"
    "21 20 8:2 / /data rw - ext4 /dev/b rw\n"
    "22 20 0:30 / /with\\040space rw - tmpfs t rw\n"
    "23 20 8:2 /part /again rw - ext4 /dev/b rw\n"
    "24 20 8:3 / /data rw - ext4 /dev/c rw\n");

TEST(APath, IsOnTheLastMountOfItsLongestPart) {
  EXPECT_FALSE(mounts.isElsewhere("/data/x", "/data"));
  EXPECT_TRUE(mounts.isElsewhere("/data/x", "/again"));
  EXPECT_TRUE(mounts.isElsewhere("/data/x", "/"));
  EXPECT_FALSE(mounts.isElsewhere("/database", "/"));
  EXPECT_TRUE(mounts.isElsewhere("/database", "/data"));
  EXPECT_FALSE(mounts.isElsewhere("/with space/x", "/with space"));
}

TEST(TwoMounts, AreOfOneFileSystemWhenTheirDeviceIsOne) {
  EXPECT_TRUE(mounts.areOfOneFileSystem(21, 23));
  EXPECT_TRUE(mounts.areOfOneFileSystem(21, 21));
  EXPECT_FALSE(mounts.areOfOneFileSystem(21, 24));
  EXPECT_FALSE(mounts.areOfOneFileSystem(21, 99));
  EXPECT_FALSE(mounts.areOfOneFileSystem(99, 99));
}

TEST(APath, IsNowhereElseWhenNothingIsMountedAtTheVolume) {
  EXPECT_FALSE(mounts.isElsewhere("/data/x", "/nothing"));
}

}  // namespace
}  // namespace kelvane::directoryCache
