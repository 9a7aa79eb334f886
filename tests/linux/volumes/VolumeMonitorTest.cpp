// SPDX-License-Identifier: Apache-2.0
// The volume monitor on real mounts.
#include "platform/linux/volumes/VolumeMonitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <limits>
#include <mutex>
#include <thread>

#include "platform/Process.h"
#include "platform/Queues.h"
#include "platform/Volumes.h"
#include "platform/linux/ipc/Readiness.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/system/Handlers.h"
#include "platform/linux/volumes/Paths.h"
#include "platform/linux/volumes/VolumeSpace.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using namespace std::chrono_literals;
constexpr auto patience = 20s;

/// An event as the handler finds it: its flags, and which volumes below /mnt are low on space then.
struct SeenEvent {
  std::uint64_t flags;
  std::vector<std::string> volumes;
};

std::vector<std::string> lowBelowMnt() {
  std::vector<std::string> ours;
  for (const std::string& volume : volumes::lowOnSpace()) {
    if (volume.starts_with("/mnt/")) {
      volumes::beginRelief(volume);
      ours.push_back(volume);
    }
  }
  return ours;
}

/// A handler that notes its events. They are compared with what a test waits for, as this system's own volumes may
/// be low, too.
class TheVolumeMonitor : public testing::Test {
 protected:
  TheVolumeMonitor() {
    setEventStreamHandler("com.tessaly.dispatch.vfs", [this](const Value& event) {
      EXPECT_EQ(event.dictionary()->size(), 1u);
      SeenEvent seen{event["_Flags"].uint64Value(), lowBelowMnt()};
      const std::lock_guard lock(mutex_);
      events_.push_back(std::move(seen));
      noted_.notify_all();
    });
  }
  ~TheVolumeMonitor() override {
    setEventStreamHandler("com.tessaly.dispatch.vfs", [](const Value&) {});
    for (const std::string& path : mounted_) {
      EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0) << path;
    }
  }

  static void start() { announceReadiness(); }

  void mountVolume(const std::string& path) {
    test::mountTmpfs(path, "size=64m");
    noteMounted(path);
  }
  void noteMounted(const std::string& path) { mounted_.push_back(path); }
  /// A volume that is full when it appears.
  void mountFullVolume(const std::string& path) {
    const FileDescriptor context(fsopen("tmpfs", FSOPEN_CLOEXEC));
    ASSERT_EQ(fsconfig(context.get(), FSCONFIG_SET_STRING, "size", "64m", 0), 0);
    ASSERT_EQ(fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0), 0);
    const FileDescriptor tree(fsmount(context.get(), FSMOUNT_CLOEXEC, 0));
    const FileDescriptor file(openat(tree.get(), "filler", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_EQ(posix_fallocate(file.get(), 0, 63 << 20), 0);
    std::filesystem::create_directories(path);
    ASSERT_EQ(move_mount(tree.get(), "", AT_FDCWD, path.c_str(), MOVE_MOUNT_F_EMPTY_PATH), 0);
    noteMounted(path);
  }
  static void fill(const std::string& path, off_t mebibytes) {
    const FileDescriptor file(open((path + "/filler").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_EQ(posix_fallocate(file.get(), 0, mebibytes << 20), 0);
  }

  /// The first event, even if it has come already, for exactly these volumes.
  std::optional<SeenEvent> await(const std::vector<std::string>& volumes) {
    std::unique_lock lock(mutex_);
    std::optional<SeenEvent> found;
    noted_.wait_for(lock, patience, [&] {
      for (const SeenEvent& event : events_) {
        if (event.volumes == volumes) {
          found = event;
        }
      }
      return found.has_value();
    });
    return found;
  }

 private:
  std::vector<std::string> mounted_;
  std::mutex mutex_;
  // Guarded by mutex_:
  std::condition_variable noted_;
  std::vector<SeenEvent> events_;
};

TEST_F(TheVolumeMonitor, PostsALowDiskEventWhenAVolumeFillsUp) {
  mountVolume("/mnt/low");
  start();
  fill("/mnt/low", 60);
  const auto event = await({"/mnt/low"});
  ASSERT_TRUE(event);
  EXPECT_EQ(event->flags, 0x4u);
}

TEST_F(TheVolumeMonitor, PostsAVeryLowDiskEventByItsBitAlone) {
  mountVolume("/mnt/very-low");
  start();
  fill("/mnt/very-low", 63);
  const auto event = await({"/mnt/very-low"});
  ASSERT_TRUE(event);
  EXPECT_EQ(event->flags, 0x200u);
}

TEST_F(TheVolumeMonitor, SeesAtOnceWhatIsMounted) {
  start();
  mountFullVolume("/mnt/full");
  const auto event = await({"/mnt/full"});
  ASSERT_TRUE(event);
  EXPECT_EQ(event->flags, 0x200u);
}

TEST_F(TheVolumeMonitor, EndsPausesForAnEventOfSomebodyElse) {
  mountVolume("/mnt/pausing");
  start();
  fill("/mnt/pausing", 63);
  ASSERT_TRUE(await({"/mnt/pausing"}));
  const Semaphore handled(0);
  ASSERT_TRUE(handlers::postEvent("com.tessaly.dispatch.vfs", Value::Dictionary{{"_Flags", 0x204}},
                                  [handled] { handled.signal(); }));
  handled.wait();
  const auto event = await({"/mnt/pausing"});
  ASSERT_TRUE(event);
  EXPECT_EQ(event->flags, 0x204u);
}

/// Notices that this process waits for, by what the kernel says of its descriptors.
std::size_t noticesAskedFor() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    count += test::readFile(entry.path()).find("fanotify sdev:") != std::string::npos ? 1 : 0;
  }
  return count;
}

TEST_F(TheVolumeMonitor, SeesAtOnceWhenAVolumeFillsThatHasRestedLong) {
  mountVolume("/mnt/resting");
  const FileDescriptor file(open("/mnt/resting/filler", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  start();
  // Only this system's root is told of writes, by notices of this volume, and of others that are near their marks.
  const auto giveUp = std::chrono::steady_clock::now() + patience;
  while (test::isTrulyRoot() && noticesAskedFor() == 0 && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(noticesAskedFor() > 0, test::isTrulyRoot());
  ASSERT_EQ(posix_fallocate(file.get(), 0, 60 << 20), 0);
  EXPECT_TRUE(await({"/mnt/resting"})) << "long before anybody would have looked";
}

TEST_F(TheVolumeMonitor, PostsNothingForAVolumeThatIsNotToBeRelieved) {
  mountVolume("/mnt/left-alone");
  mountVolume("/mnt/other");
  test::writeFile(paths::volumeLevelsFile, "{ Volumes = { \"/mnt/left-alone\" = { Relief = NO; }; }; }");
  start();
  fill("/mnt/left-alone", 63);
  fill("/mnt/other", 63);
  EXPECT_TRUE(await({"/mnt/other"}));
  std::filesystem::remove(paths::volumeLevelsFile);
}

TEST_F(TheVolumeMonitor, TellsOnceOfANameInTheConfigurationThatIsNoVolume) {
  mountVolume("/mnt/other");
  test::writeFile(paths::volumeLevelsFile, "{ Volumes = { \"/mnt/nowhere\" = {}; \"/mnt/other\" = {}; }; }");
  testing::internal::CaptureStderr();
  start();
  fill("/mnt/other", 60);
  EXPECT_TRUE(await({"/mnt/other"}));
  mountFullVolume("/mnt/second");
  EXPECT_TRUE(await({"/mnt/second"}));
  const std::string log = testing::internal::GetCapturedStderr();
  const auto first = log.find("/etc/kelvane/volumes.plist: /mnt/nowhere is no volume");
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find("is no volume", first + 50), std::string::npos);
  std::filesystem::remove(paths::volumeLevelsFile);
}

TEST_F(TheVolumeMonitor, TellsOfTenNamesThatAreNoVolumesAndHowManyMoreThereAre) {
  mountVolume("/mnt/other");
  std::string configuration = "{ Volumes = { ";
  for (int number = 100; number < 1000; ++number) {
    configuration += "\"/mnt/nowhere-" + std::to_string(number) + "\" = {}; ";
  }
  test::writeFile(paths::volumeLevelsFile, configuration + "}; }");
  testing::internal::CaptureStderr();
  start();
  fill("/mnt/other", 60);
  EXPECT_TRUE(await({"/mnt/other"}));
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("/etc/kelvane/volumes.plist: /mnt/nowhere-109 is no volume"), std::string::npos) << log;
  EXPECT_EQ(log.find("/mnt/nowhere-110 is no volume"), std::string::npos);
  EXPECT_NE(log.find("/etc/kelvane/volumes.plist: nor are 890 more"), std::string::npos) << log;
  std::filesystem::remove(paths::volumeLevelsFile);
}

TEST_F(TheVolumeMonitor, TellsOnceOfAVolumeThatCannotTellItsSpace) {
  mountVolume("/mnt/failing");
  spaceReader = [](const VolumeMount& volume) {
    return volume.path == "/mnt/failing" ? Result<volumes::Space>(Failure{.number = EIO, .tried = {}})
                                         : readSpace(volume);
  };
  testing::internal::CaptureStderr();
  start();
  mountFullVolume("/mnt/first");
  EXPECT_TRUE(await({"/mnt/first"}));
  mountFullVolume("/mnt/second");
  EXPECT_TRUE(await({"/mnt/second"}));
  const std::string log = testing::internal::GetCapturedStderr();
  spaceReader = readSpace;
  const auto first = log.find("/mnt/failing cannot be relieved: Input/output error");
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find("cannot be relieved", first + 20), std::string::npos) << log;
}

TEST_F(TheVolumeMonitor, TellsOfAVolumeWhoseNameIsNotUtf8) {
  testing::internal::CaptureStderr();
  mountVolume("/mnt/\xff");
  start();
  mountFullVolume("/mnt/full");
  EXPECT_TRUE(await({"/mnt/full"}));
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find(" cannot be relieved: its name is not UTF-8"), std::string::npos) << log;
}

/// Holds up whoever asks one volume, until the question is answered or this goes.
class SilentVolume {
 public:
  SilentVolume() {
    questions = answers = 0;
    mayAnswer = false;
    spaceReader = [](const VolumeMount& volume) {
      if (volume.path == "/mnt/silent") {
        std::unique_lock lock(mutex);
        ++questions;
        changed.notify_all();
        changed.wait(lock, [] { return mayAnswer; });
        ++answers;
        changed.notify_all();
      }
      return readSpace(volume);
    };
  }
  ~SilentVolume() {
    spaceReader = readSpace;
    std::unique_lock lock(mutex);
    mayAnswer = true;
    changed.notify_all();
    EXPECT_TRUE(changed.wait_for(lock, patience, [] { return answers == questions; }));
  }

  void awaitQuestion() {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, patience, [] { return questions > 0; }));
  }
  void answer() {
    const std::lock_guard lock(mutex);
    mayAnswer = true;
    changed.notify_all();
  }

 private:
  static inline std::mutex mutex;
  // Guarded by mutex:
  static inline std::condition_variable changed;
  static inline int questions = 0;
  static inline int answers = 0;
  static inline bool mayAnswer = false;
};

TEST_F(TheVolumeMonitor, LeavesASilentFileSystemOutUntilItAnswers) {
  mountVolume("/mnt/silent");
  mountVolume("/mnt/talkative");
  fill("/mnt/silent", 63);
  SilentVolume silent;
  start();
  silent.awaitQuestion();
  fill("/mnt/talkative", 60);
  ASSERT_TRUE(await({"/mnt/talkative"})) << "one that does not answer holds up none that do, nor is it asked again";
  silent.answer();
  ASSERT_TRUE(await({"/mnt/silent"})) << "after a rest";
}

TEST_F(TheVolumeMonitor, IsNotHeldUpByASilentFileSystemOfWhichOnlyADirectoryIsMounted) {
  test::mountTmpfs("/mnt/origin", "size=64m");
  std::filesystem::create_directory("/mnt/origin/inside");
  std::filesystem::create_directories("/mnt/silent");
  ASSERT_EQ(mount("/mnt/origin/inside", "/mnt/silent", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(umount("/mnt/origin"), 0);
  noteMounted("/mnt/silent");
  mountVolume("/mnt/talkative");
  fill("/mnt/silent", 63);
  SilentVolume silent;
  start();
  silent.awaitQuestion();
  fill("/mnt/talkative", 60);
  ASSERT_TRUE(await({"/mnt/talkative"}));
  silent.answer();
  ASSERT_TRUE(await({"/mnt/silent"}));
}

TEST_F(TheVolumeMonitor, LetsNobodyElseAskASilentFileSystem) {
  mountVolume("/mnt/silent");
  mountVolume("/mnt/talkative");
  EXPECT_TRUE(volumes::isUsable("/mnt/silent"));
  EXPECT_TRUE(volumes::space("/mnt/silent"));
  fill("/mnt/silent", 63);
  SilentVolume silent;
  start();
  silent.awaitQuestion();
  fill("/mnt/talkative", 60);
  ASSERT_TRUE(await({"/mnt/talkative"}));
  EXPECT_FALSE(volumes::isUsable("/mnt/silent"));
  EXPECT_EQ(volumes::space("/mnt/silent").failure().number, ETIMEDOUT);
  EXPECT_TRUE(volumes::isUsable("/mnt/talkative"));
  silent.answer();
  ASSERT_TRUE(await({"/mnt/silent"}));
  EXPECT_TRUE(volumes::isUsable("/mnt/silent"));
  EXPECT_TRUE(volumes::space("/mnt/silent"));
}

}  // namespace
}  // namespace kelvane
