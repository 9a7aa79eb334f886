// SPDX-License-Identifier: Apache-2.0
// What is known of the mounts is never older than the last mount or unmount.
#include "platform/linux/volumes/Mounts.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <algorithm>

#include "platform/Volumes.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

bool isKnown(const std::string& path) {
  const Mounts::Table mounts = Mounts::shared().current();
  return std::any_of(mounts->begin(), mounts->end(), [&path](const VolumeMount& mount) { return mount.path == path; });
}

void remount(const char* path, unsigned long flags) {
  ASSERT_EQ(mount(nullptr, path, nullptr, MS_REMOUNT | flags, nullptr), 0);
}

TEST(Mounts, AreTheSameUntilSomethingIsMounted) {
  const Mounts::Table before = Mounts::shared().current();
  EXPECT_EQ(Mounts::shared().current(), before);
  test::mountTmpfs("/mnt/known", "size=1m");
  EXPECT_NE(Mounts::shared().current(), before);
  EXPECT_TRUE(isKnown("/mnt/known"));
  ASSERT_EQ(umount2("/mnt/known", MNT_DETACH), 0);
  EXPECT_FALSE(isKnown("/mnt/known"));
}

TEST(Mounts, StayKnownWhileTheyCannotBeRead) {
  test::mountTmpfs("/mnt/known", "size=1m");
  ASSERT_TRUE(isKnown("/mnt/known"));
  rlimit usual;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit none{.rlim_cur = 3, .rlim_max = usual.rlim_max};
  testing::internal::CaptureStderr();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(Mounts::shared().readAgain(), Mounts::shared().current());
  EXPECT_TRUE(isKnown("/mnt/known"));
  ASSERT_EQ(umount2("/mnt/known", MNT_DETACH), 0);
  EXPECT_TRUE(isKnown("/mnt/known"));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  const std::string log = testing::internal::GetCapturedStderr();
  const auto told = log.find("Too many open files; the volumes there were are taken for those there are");
  ASSERT_NE(told, std::string::npos) << log;
  EXPECT_EQ(log.find("Too many open files", told + 1), std::string::npos) << "once";
  EXPECT_FALSE(isKnown("/mnt/known"));
}

TEST(AVolumeThatIsKnown, IsUsableOnlyWhileItIsMountedAndWritable) {
  test::mountTmpfs("/mnt/known", "size=1m");
  EXPECT_TRUE(volumes::isUsable("/mnt/known"));
  for (const unsigned long kind : {0UL, static_cast<unsigned long>(MS_BIND)}) {
    remount("/mnt/known", MS_RDONLY | kind);
    EXPECT_FALSE(volumes::isUsable("/mnt/known")) << kind;
    // Read while it cannot be written, so that it is not among what is known.
    test::mountTmpfs("/mnt/other", "size=1m");
    EXPECT_FALSE(volumes::isUsable("/mnt/known")) << kind;
    remount("/mnt/known", kind);
    EXPECT_TRUE(volumes::isUsable("/mnt/known")) << kind;
    EXPECT_TRUE(volumes::space("/mnt/known")) << kind;
    ASSERT_EQ(umount2("/mnt/other", MNT_DETACH), 0);
  }
  ASSERT_EQ(umount2("/mnt/known", MNT_DETACH), 0);
  EXPECT_FALSE(volumes::isUsable("/mnt/known"));
}

}  // namespace
}  // namespace kelvane
