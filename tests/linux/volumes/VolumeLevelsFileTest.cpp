// SPDX-License-Identifier: Apache-2.0
// The configuration of levels, as a file that may lie anywhere.
#include "platform/linux/volumes/VolumeLevelsFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/Paths.h"
#include "platform/linux/volumes/VolumeSurvey.h"
#include "tests/hanging-volume/HangingVolume.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using testing::HasSubstr;

constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;
constexpr char sixtyPercent[] = "<plist><dict><key>LowPercent</key><integer>60</integer></dict></plist>";

class AVolumeConfigurationFile : public testing::Test {
 protected:
  ~AVolumeConfigurationFile() override {
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(directory);
  }

  /// Of a volume of a GiB.
  static SpaceLevel levelAt(std::uint64_t available) {
    return surveyVolumes({}).levels.marks("/data", gibibyte).levelAt(available);
  }
  static dev_t deviceOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_dev;
  }
  /// Another test may be given a disk with the same number.
  static void awaitRest(dev_t device) {
    while (FileSystemProbe::shared().closedUntil(device)) {
      usleep(1000);
    }
  }

  const std::filesystem::path directory = std::filesystem::path(paths::volumeLevelsFile).parent_path();
};

TEST_F(AVolumeConfigurationFile, IsReadAgainWhenItHasChanged) {
  test::writeFile(paths::volumeLevelsFile, "{ LowPercent = x; }");
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  test::writeFile(paths::volumeLevelsFile, sixtyPercent);
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Low);
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Low);
  std::filesystem::remove(paths::volumeLevelsFile);
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
}

TEST_F(AVolumeConfigurationFile, ThatCannotBeUsedIsLoggedOnceAndGivesTheDefaults) {
  test::writeFile(paths::volumeLevelsFile, "<plist><dict>");
  testing::internal::CaptureStderr();
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  EXPECT_EQ(levelAt(gibibyte / 100), SpaceLevel::VeryLow);
  const std::string log = testing::internal::GetCapturedStderr();
  const auto first = log.find("/etc/kelvane/volumes.plist: ");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(log.find("/etc/kelvane/volumes.plist: ", first + 1), std::string::npos);
}

TEST_F(AVolumeConfigurationFile, IsToldOfAsALinkThatLeadsNowhereButNotAsNone) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  std::filesystem::create_symlink("/mnt/nowhere", paths::volumeLevelsFile);
  testing::internal::CaptureStderr();
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("/etc/kelvane/volumes.plist: A symbolic link leads nowhere; the defaults apply"));
}

TEST_F(AVolumeConfigurationFile, IsToldOfInADirectoryThatIsALinkThatLeadsNowhereOrNoDirectory) {
  std::filesystem::remove_all(directory);
  std::filesystem::create_directory_symlink("/mnt/nowhere", directory);
  testing::internal::CaptureStderr();
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("/etc/kelvane/volumes.plist: A symbolic link leads nowhere; the defaults apply"));
  std::filesystem::remove(directory);
  test::writeFile(directory, "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("/etc/kelvane/volumes.plist: Not a directory; the defaults apply"));
}

TEST_F(AVolumeConfigurationFile, InADirectoryOnADiskThatHangsAppliesAsItWasAndIsWaitedForNoLongerThanAnyDisk) {
  if (!test::isTrulyRoot()) {
    // Others have no disks of their own.
    return;
  }
  std::filesystem::remove_all(directory);
  test::HangingVolume disk("/mnt/hanging");
  std::filesystem::create_directory_symlink(disk.path(), directory);
  disk.addFile("volumes.plist", sixtyPercent);
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Low);
  const dev_t device = deviceOf("/mnt/hanging");
  disk.hang();
  testing::internal::CaptureStderr();
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Low);
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Low);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("/etc/kelvane/volumes.plist: Connection timed out; what it said last applies"));
  EXPECT_EQ(FileSystemProbe::shared().closedUntil(device), FileSystemProbe::Time::max());
  disk.resume();
  awaitRest(device);
}

TEST_F(AVolumeConfigurationFile, ThatCanBeFoundButNotReadIsWaitedForNoLongerThanAnyDisk) {
  if (!test::isTrulyRoot()) {
    return;
  }
  // So that nothing is known of it.
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  test::HangingVolume disk("/mnt/hanging");
  // Unlike what another test has had read, as all else about the two files is the same.
  disk.addFile("levels", "<plist><dict><key>LowPercent</key><real>60.0</real></dict></plist>");
  std::filesystem::create_symlink("/mnt/hanging/levels", paths::volumeLevelsFile);
  const dev_t device = deviceOf("/mnt/hanging");
  disk.hang("open read");
  const auto begin = FileSystemProbe::Clock::now();
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Ample);
  EXPECT_LT(FileSystemProbe::Clock::now() - begin, FileSystemProbe::longPatience);
  EXPECT_EQ(FileSystemProbe::shared().closedUntil(device), FileSystemProbe::Time::max());
  disk.resume();
  awaitRest(device);
  EXPECT_EQ(levelAt(gibibyte / 2), SpaceLevel::Low);
}

}  // namespace
}  // namespace kelvane
