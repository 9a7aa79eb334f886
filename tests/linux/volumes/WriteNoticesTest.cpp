// SPDX-License-Identifier: Apache-2.0
// Notices of writes to real volumes, where the rights allow it.
#include "platform/linux/volumes/WriteNotices.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "platform/linux/volumes/Mounts.h"
#include "tests/linux/testing/LoopDisk.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A volume; on ext4 where there are loop devices, too.
class NoticesOfWrites : public testing::TestWithParam<const char*> {
 protected:
  NoticesOfWrites() {
    const std::string image = "/mnt/disk.image";
    if (std::string_view(GetParam()) != "ext4" || !test::isTrulyRoot() || !test::makeDisk(image, 32 << 20) ||
        !test::mountDisk(image, path)) {
      test::mountTmpfs(path, "size=32m");
    }
    test::writeFile(file, "before");
    mount = *findMount(*Mounts::shared().current(), path);
  }
  ~NoticesOfWrites() override { EXPECT_EQ(umount(path.c_str()), 0) << "a notice keeps it busy, errno " << errno; }

  bool isReadable() const {
    std::vector<pollfd> events;
    notices.addTo(events);
    return poll(events.data(), events.size(), 0) > 0;
  }

  const std::string path = "/mnt/noticed";
  const std::string file = "/mnt/noticed/file";
  VolumeMount mount;
  WriteNotices notices;
};

TEST_P(NoticesOfWrites, ComeOnceWhenSomethingIsWritten) {
  if (!notices.ask(mount)) {
    // Only this system's root is told; whoever is not is told that.
    EXPECT_FALSE(test::isTrulyRoot());
    EXPECT_FALSE(notices.areAskedFor(mount.device));
    return;
  }
  EXPECT_TRUE(notices.areAskedFor(mount.device));
  EXPECT_EQ(test::readFile(file), "before");
  EXPECT_FALSE(isReadable()) << "reading is no writing";
  EXPECT_THAT(notices.take(), IsEmpty());
  test::writeFile(file, "after");
  EXPECT_TRUE(isReadable());
  EXPECT_THAT(notices.take(), ElementsAre(mount.device));
  EXPECT_FALSE(notices.areAskedFor(mount.device));
  test::writeFile(file, "more");
  EXPECT_FALSE(isReadable());
  EXPECT_TRUE(notices.ask(mount));
  EXPECT_FALSE(isReadable()) << "what was written before is over";
  test::writeFile("/mnt/noticed/new", "");
  EXPECT_THAT(notices.take(), ElementsAre(mount.device)) << "a new file is going to be written";
}

TEST_P(NoticesOfWrites, KeepNoFileSystemBusyEvenIfNobodyTakesThem) {
  notices.ask(mount);
  test::writeFile(file, "after");
}

TEST_P(NoticesOfWrites, GoWithTheirMounts) {
  const bool areTold = notices.ask(mount);
  notices.keepOnly({mount});
  EXPECT_EQ(notices.areAskedFor(mount.device), areTold);
  notices.keepOnly({});
  EXPECT_FALSE(notices.areAskedFor(mount.device));
}

INSTANTIATE_TEST_SUITE_P(On, NoticesOfWrites, testing::Values("tmpfs", "ext4"),
                         [](const auto& info) { return std::string(info.param); });

TEST(NoticesOfManyVolumes, LeaveGroupsToOtherPrograms) {
  WriteNotices notices;
  std::vector<std::string> paths;
  bool areTold = true;
  for (std::size_t number = 0; number <= WriteNotices::mostGroups; ++number) {
    paths.push_back("/mnt/many/" + std::to_string(number));
    test::mountTmpfs(paths.back(), "size=1m");
    const bool isTold = notices.ask(*findMount(*Mounts::shared().readAgain(), paths.back()));
    areTold = number == 0 ? isTold : areTold;
    EXPECT_EQ(isTold, areTold && number < WriteNotices::mostGroups) << number;
  }
  for (const std::string& path : paths) {
    EXPECT_EQ(umount(path.c_str()), 0);
  }
}

TEST(NoticesThatAreForbidden, AreSaidToBeOnceAndNotAskedForAgain) {
  WriteNotices notices;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(notices.ask({"/mnt/missing", 1, true}));
  EXPECT_FALSE(notices.ask({"/mnt/missing", 1, true}));
  EXPECT_FALSE(notices.ask({"/mnt/missing-too", 2, true}));
  const std::string log = testing::internal::GetCapturedStderr();
  const auto first = log.find("Nobody tells of writes");
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find("Nobody tells of writes", first + 1), std::string::npos);
}

}  // namespace
}  // namespace kelvane
