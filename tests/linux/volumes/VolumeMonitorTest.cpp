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

#include "platform/Process.h"
#include "platform/Queues.h"
#include "platform/Volumes.h"
#include "platform/linux/ipc/Readiness.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/runtime/Thread.h"
#include "platform/linux/system/Handlers.h"
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

/// Holds up whoever asks one volume, until the question is answered or this goes.
class SilentVolume {
 public:
  SilentVolume() {
    mayAnswer = questions = answers = 0;
    volumeSpaceReader = [](const VolumeMount& volume) {
      if (volume.path == "/mnt/silent") {
        std::unique_lock lock(mutex);
        const int question = questions++;
        changed.notify_all();
        changed.wait(lock, [question] { return question < mayAnswer; });
        ++answers;
        changed.notify_all();
      }
      return spaceOf(volume);
    };
  }
  ~SilentVolume() {
    volumeSpaceReader = spaceOf;
    std::unique_lock lock(mutex);
    mayAnswer = std::numeric_limits<int>::max();
    changed.notify_all();
    EXPECT_TRUE(changed.wait_for(lock, patience, [] { return answers == questions; }));
  }

  void awaitQuestion() {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, patience, [] { return questions > mayAnswer; }));
  }
  /// The questions after this one are left open, too.
  void answer() {
    const std::lock_guard lock(mutex);
    ++mayAnswer;
    changed.notify_all();
  }

 private:
  static inline std::mutex mutex;
  // Guarded by mutex:
  static inline std::condition_variable changed;
  static inline int questions = 0;
  static inline int answers = 0;
  static inline int mayAnswer = 0;
};

TEST_F(TheVolumeMonitor, LeavesASilentFileSystemOutUntilItAnswersAndCountsWhatItThenSays) {
  mountVolume("/mnt/silent");
  mountVolume("/mnt/talkative");
  fill("/mnt/silent", 63);
  SilentVolume silent;
  start();
  silent.awaitQuestion();
  fill("/mnt/talkative", 60);
  ASSERT_TRUE(await({"/mnt/talkative"})) << "one that does not answer holds up none that do, nor is it asked again";
  silent.answer();
  ASSERT_TRUE(await({"/mnt/silent"})) << "though the next question is open";
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
  EXPECT_GT(volumes::availableBytes("/mnt/silent"), 0u);
  fill("/mnt/silent", 63);
  SilentVolume silent;
  start();
  silent.awaitQuestion();
  fill("/mnt/talkative", 60);
  ASSERT_TRUE(await({"/mnt/talkative"}));
  EXPECT_FALSE(volumes::isUsable("/mnt/silent"));
  EXPECT_EQ(volumes::availableBytes("/mnt/silent"), 0u);
  EXPECT_TRUE(volumes::isUsable("/mnt/talkative"));
  silent.answer();
  ASSERT_TRUE(await({"/mnt/silent"}));
  EXPECT_TRUE(volumes::isUsable("/mnt/silent"));
  EXPECT_GT(volumes::availableBytes("/mnt/silent"), 0u);
}

TEST_F(TheVolumeMonitor, GoesOnWithTheSameThreadWhenThereIsNoOther) {
  mountVolume("/mnt/silent");
  mountVolume("/mnt/talkative");
  SilentVolume silent;
  start();
  silent.awaitQuestion();
  static std::atomic<bool> wasRefused;
  wasRefused = false;
  runtime::threadCreator = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
    runtime::threadCreator = &pthread_create;
    wasRefused = true;
    wasRefused.notify_one();
    return EAGAIN;
  };
  wasRefused.wait(false);
  silent.answer();
  fill("/mnt/talkative", 60);
  ASSERT_TRUE(await({"/mnt/talkative"}));
}

TEST(AFileSystemThatAnswersLate, RestsAsLongAsItTookAndTwiceAsLongEachTimeUpToAMinute) {
  VolumeMonitor::SlowAnswers answers;
  const VolumeWatch::Time now(1000h);
  for (const auto rest : {3s, 6s, 12s, 24s, 48s, 60s, 60s}) {
    answers.isAwaited = true;
    answers.noteAnswer(now, 3s);
    EXPECT_FALSE(answers.isAwaited);
    EXPECT_EQ(answers.restsUntil, now + rest);
  }
  VolumeMonitor::SlowAnswers others;
  others.noteAnswer(now, 20s);
  EXPECT_EQ(others.restsUntil, now + 20s);
  others.noteAnswer(now, 10min);
  EXPECT_EQ(others.restsUntil, now + 1min);
}

}  // namespace
}  // namespace kelvane
