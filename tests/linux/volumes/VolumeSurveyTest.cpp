// SPDX-License-Identifier: Apache-2.0
// Questions about all volumes at once.
#include "platform/linux/volumes/VolumeSurvey.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <thread>

#include "platform/Volumes.h"
#include "platform/linux/runtime/Thread.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/MountVisit.h"
#include "platform/linux/volumes/Paths.h"
#include "platform/linux/volumes/VolumeSpace.h"
#include "platform/linux/volumes/WriteNotices.h"
#include "tests/hanging-volume/HangingVolume.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;
constexpr char sixtyPercent[] = "<plist><dict><key>LowPercent</key><integer>60</integer></dict></plist>";

bool areSixtyPercent(const VolumeLevels& levels) {
  return levels.marks("/data", gibibyte).levelAt(gibibyte / 2) == SpaceLevel::Low;
}

class ASurvey : public testing::Test {
 protected:
  ASurvey() { test::mountTmpfs(path, "size=64m"); }
  ~ASurvey() override {
    EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0);
    std::filesystem::remove(paths::volumeLevelsFile);
  }

  VolumeMount mount() const {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return {path, status.st_dev, true};
  }

  void mountSecond() const { test::mountTmpfs(second, "size=32m"); }

  const std::string path = "/mnt/surveyed";
  const std::string second = "/mnt/surveyed-too";
};

std::ptrdiff_t probeWorkers() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::count_if(begin(threads), end(threads), [](const std::filesystem::directory_entry& thread) {
    return test::readFile(thread.path() / "comm") == "kelvane-probe\n";
  });
}

/// Hands the probe's only worker to another question as soon as it is done with the one that asks for a space.
class NextInLine {
 public:
  NextInLine() {
    // Those that hung in other tests come to their end.
    while (probeWorkers() > 1) {
      usleep(1000);
    }
    isSpaceAsked = isInLine = mayEnd = false;
    spaceReader = [](const VolumeMount& mount) {
      set(isSpaceAsked);
      isInLine.wait(false);
      return readSpace(mount);
    };
    asker_ = std::thread([] {
      isSpaceAsked.wait(false);
      runtime::threadCreator = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
        set(isInLine);
        return EAGAIN;
      };
      static_cast<void>(FileSystemProbe::shared().run([](FileSystemProbe::Visit&) { mayEnd.wait(false); }));
    });
  }
  ~NextInLine() {
    set(mayEnd);
    asker_.join();
    runtime::threadCreator = &pthread_create;
    spaceReader = readSpace;
  }
  NextInLine(const NextInLine&) = delete;
  NextInLine& operator=(const NextInLine&) = delete;

 private:
  static void set(std::atomic<bool>& flag) {
    flag = true;
    flag.notify_all();
  }
  static inline std::atomic<bool> isSpaceAsked = false;
  static inline std::atomic<bool> isInLine = false;
  static inline std::atomic<bool> mayEnd = false;
  std::thread asker_;
};

TEST_F(ASurvey, IsOneQuestionThoughItIsAboutSpacesAndLevels) {
  test::writeFile(paths::volumeLevelsFile, sixtyPercent);
  const NextInLine next;
  const VolumeSurvey survey = surveyVolumes({mount()});
  ASSERT_EQ(survey.spaces.size(), 1u);
  EXPECT_TRUE(survey.spaces[0].space);
  EXPECT_TRUE(areSixtyPercent(survey.levels)) << "a second question would have found no worker";
}

/// Mounts of file systems that are not there: whoever asks one is kept until so many are asked.
class SlowVolumes {
 public:
  explicit SlowVolumes(std::size_t awaited) {
    asked = 0;
    isEnded = false;
    SlowVolumes::awaited = awaited;
    spaceReader = [](const VolumeMount& mount) {
      ++asked;
      while (asked < SlowVolumes::awaited && !isEnded) {
        usleep(1000);
      }
      return Result<volumes::Space>(volumes::Space{.size = gibibyte, .fileSystem = mount.device});
    };
    while (mounts.size() < count) {
      // One that was slow rests.
      static dev_t device = 1'000'000;
      mounts.push_back({"/slow/" + std::to_string(++device), device, true});
    }
  }
  ~SlowVolumes() {
    isEnded = true;
    while (FileSystemProbe::shared().lostWorkers() > 0) {
      usleep(1000);
    }
    spaceReader = readSpace;
  }
  SlowVolumes(const SlowVolumes&) = delete;
  SlowVolumes& operator=(const SlowVolumes&) = delete;

  static constexpr std::size_t count = 10;
  std::vector<VolumeMount> mounts;

 private:
  static inline std::atomic<std::size_t> asked = 0;
  static inline std::atomic<std::size_t> awaited = 0;
  static inline std::atomic<bool> isEnded = false;
};

std::vector<dev_t> answeredOf(const std::vector<SpaceAnswer>& answers) {
  std::vector<dev_t> answered;
  for (const SpaceAnswer& answer : answers) {
    if (answer.space) {
      answered.push_back(answer.space->fileSystem);
    }
  }
  return answered;
}

TEST_F(ASurvey, AsksSlowVolumesAtTheSameTime) {
  test::writeFile(paths::volumeLevelsFile, sixtyPercent);
  const SlowVolumes slow(SlowVolumes::count);
  std::vector<dev_t> all;
  for (const VolumeMount& mount : slow.mounts) {
    all.push_back(mount.device);
  }
  const VolumeSurvey survey = surveyVolumes(slow.mounts);
  EXPECT_EQ(answeredOf(survey.spaces), all) << "in their order, though none answers before all are asked";
  EXPECT_TRUE(areSixtyPercent(survey.levels));
}

TEST_F(ASurvey, WaitsForVolumesThatHangAtTheSameTime) {
  const SlowVolumes hanging(SlowVolumes::count + 1);
  const auto begin = FileSystemProbe::Clock::now();
  const VolumeSurvey survey = surveyVolumes(hanging.mounts);
  EXPECT_LT(FileSystemProbe::Clock::now() - begin, SlowVolumes::count * FileSystemProbe::patience / 2);
  ASSERT_EQ(survey.spaces.size(), SlowVolumes::count);
  EXPECT_EQ(answeredOf(survey.spaces), std::vector<dev_t>());
  for (const VolumeMount& mount : hanging.mounts) {
    EXPECT_EQ(FileSystemProbe::shared().closedUntil(mount.device), FileSystemProbe::Time::max()) << mount.path;
  }
}

TEST_F(ASurvey, IsNotRepeatedForAsLongAsItTook) {
  mountSecond();
  static std::atomic<int> asked;
  asked = 0;
  spaceReader = [](const VolumeMount& mount) {
    ++asked;
    usleep(1'000'000);
    return readSpace(mount);
  };
  const auto first = volumes::recentSpaces({path, second, "/mnt/missing"});
  const int once = asked;
  const auto again = volumes::recentSpaces({second, path});
  spaceReader = readSpace;
  EXPECT_EQ(once, 2);
  EXPECT_EQ(asked, once) << "both are as they were";
  ASSERT_TRUE(first[0] && first[1]);
  EXPECT_EQ(*first[0], *again[1]);
  EXPECT_EQ(*first[1], *again[0]);
  EXPECT_EQ(first[2].failure().number, ENOENT);
  for (const std::string& one : {path, second}) {
    struct stat status = {};
    EXPECT_EQ(stat(one.c_str(), &status), 0);
    // Another test may be given a volume with the same number.
    while (FileSystemProbe::shared().closedUntil(status.st_dev)) {
      usleep(1000);
    }
  }
  EXPECT_EQ(umount2(second.c_str(), MNT_DETACH), 0);
}

TEST_F(ASurvey, HasAllSpacesThoughTheConfigurationIsOnADiskThatHangs) {
  if (!test::isTrulyRoot()) {
    // Others have no disks of their own.
    return;
  }
  test::HangingVolume disk("/mnt/hanging");
  disk.addFile("levels", sixtyPercent);
  std::filesystem::create_symlink("/mnt/hanging/levels", paths::volumeLevelsFile);
  struct stat status = {};
  ASSERT_EQ(stat("/mnt/hanging", &status), 0);
  const VolumeMount hanging{"/mnt/hanging", status.st_dev, true};
  EXPECT_TRUE(areSixtyPercent(surveyVolumes({hanging, mount()}).levels));
  // It tells its space, and then nothing more.
  disk.hang("lookup getattr open read");
  const VolumeSurvey survey = surveyVolumes({hanging, mount()});
  // What it said last applies.
  EXPECT_TRUE(areSixtyPercent(survey.levels));
  ASSERT_EQ(survey.spaces.size(), 2u);
  EXPECT_TRUE(survey.spaces[0].space);
  EXPECT_TRUE(survey.spaces[1].space);
  disk.resume();
  while (FileSystemProbe::shared().closedUntil(status.st_dev)) {
    usleep(1000);
  }
}

/// A volume that is mounted beneath a disk that hangs.
class AVolumeBeneathADiskThatHangs : public testing::Test {
 protected:
  AVolumeBeneathADiskThatHangs() {
    if (!test::isTrulyRoot()) {
      // Others have no disks of their own.
      return;
    }
    disk.emplace("/mnt/hanging");
    disk->addDirectory("inside");
    EXPECT_EQ(::mount("volume", "/mnt/hanging/inside", "tmpfs", 0, "size=64m"), 0);
    device = deviceOf("/mnt/hanging/inside");
    hanging = deviceOf("/mnt/hanging");
  }
  ~AVolumeBeneathADiskThatHangs() override {
    if (disk) {
      disk->resume();
      while (FileSystemProbe::shared().closedUntil(hanging) || FileSystemProbe::shared().closedUntil(device)) {
        usleep(1000);
      }
      EXPECT_EQ(umount2("/mnt/hanging/inside", MNT_DETACH), 0);
    }
  }

  static dev_t deviceOf(const char* path) {
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0);
    return status.st_dev;
  }
  std::vector<VolumeMount> mounts() const {
    std::vector<VolumeMount> all = *volumeMounts(paths::mountInfo);
    std::erase_if(all, [this](const VolumeMount& mount) { return mount.device != device; });
    return all;
  }

  std::optional<test::HangingVolume> disk;
  dev_t device = 0;
  dev_t hanging = 0;
};

TEST_F(AVolumeBeneathADiskThatHangs, IsAskedWhereItIsMountedElsewhere) {
  if (!disk) {
    return;
  }
  std::filesystem::create_directories("/mnt/elsewhere");
  ASSERT_EQ(::mount("/mnt/hanging/inside", "/mnt/elsewhere", nullptr, MS_BIND, nullptr), 0);
  const std::vector<VolumeMount> both = mounts();
  disk->hang();
  const std::vector<SpaceAnswer> answers = askEachSpace(both);
  EXPECT_EQ(both.size(), 2u);
  ASSERT_EQ(answers.size(), 1u) << "though it was mounted there first";
  EXPECT_EQ(answers[0].mount.path, "/mnt/elsewhere");
  EXPECT_TRUE(answers[0].space);
  EXPECT_EQ(disk->held(), 0u) << "nobody asked the disk";
  EXPECT_EQ(umount2("/mnt/elsewhere", MNT_DETACH), 0);
}

TEST_F(AVolumeBeneathADiskThatHangs, IsNotKnownForTheDisksSakeAlone) {
  if (!disk) {
    return;
  }
  const std::vector<VolumeMount> one = mounts();
  ASSERT_EQ(one.size(), 1u);
  EXPECT_TRUE(askSpace(one[0]));
  disk->hang();
  EXPECT_EQ(askSpace(one[0]).failure().number, ETIMEDOUT);
  EXPECT_EQ(FileSystemProbe::shared().closedUntil(hanging), FileSystemProbe::Time::max());
  EXPECT_EQ(FileSystemProbe::shared().closedUntil(device), std::nullopt) << "it does not hang itself";
  EXPECT_EQ(closedUntil(one[0]), FileSystemProbe::Time::max());
  EXPECT_FALSE(volumes::isUsable("/mnt/hanging/inside"));
  WriteNotices notices;
  EXPECT_FALSE(notices.ask(one[0]));
  EXPECT_EQ(FileSystemProbe::shared().lostWorkers(), 1u);
}

}  // namespace
}  // namespace kelvane
