// SPDX-License-Identifier: Apache-2.0
// The process's dealings with its service manager and the rest of the system.
#include "platform/Process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>

#include "platform/linux/system/Handlers.h"
#include "platform/linux/system/Reload.h"
#include "platform/linux/system/ServiceManager.h"
#include "tests/linux/testing/DatagramSocket.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

/// A service manager that listens.
class TheServiceManager : public testing::Test {
 protected:
  TheServiceManager() : socket_("/run/test/notify") { setenv("NOTIFY_SOCKET", "/run/test/notify", 1); }
  ~TheServiceManager() override { unsetenv("NOTIFY_SOCKET"); }

  test::DatagramSocket socket_;
};

TEST_F(TheServiceManager, IsToldHowManyTransactionsThereAre) {
  {
    const Transaction first;
    EXPECT_EQ(socket_.receive(), "STATUS=Busy, 1 transaction");
    {
      const Transaction second;
      EXPECT_EQ(socket_.receive(), "STATUS=Busy, 2 transactions");
    }
    EXPECT_EQ(socket_.receive(), "STATUS=Busy, 1 transaction");
  }
  EXPECT_EQ(socket_.receive(), "STATUS=Idle");
}

TEST_F(TheServiceManager, IsToldWhatThereIsToRemarkBesidesUntilThatIsOver) {
  remarkInStatus("it rains");
  EXPECT_EQ(socket_.receive(), "STATUS=Idle; it rains");
  {
    const Transaction transaction;
    EXPECT_EQ(socket_.receive(), "STATUS=Busy, 1 transaction; it rains");
  }
  EXPECT_EQ(socket_.receive(), "STATUS=Idle; it rains");
  remarkInStatus("");
  EXPECT_EQ(socket_.receive(), "STATUS=Idle");
}

TEST_F(TheServiceManager, IsToldThatTheProcessIsReady) {
  serviceManager::notifyReady();
  EXPECT_EQ(socket_.receiveBeginningWith("READY"), "READY=1");
}

TEST_F(TheServiceManager, IsToldWhenTheConfigurationIsReadAgain) {
  std::thread([this] {
    // Asked twice before it begins, it does it once; asked meanwhile, once more.
    int times = 0;
    setReloadHandler([&times] {
      if (++times == 1) {
        raise(SIGHUP);
      }
      remarkInStatus("read " + std::to_string(times) + " times");
    });
    raise(SIGHUP);
    raise(SIGHUP);
    for (const char* remark : {"read 1 times", "read 2 times"}) {
      reload::fulfilNext();
      EXPECT_EQ(socket_.receive(), "RELOADING=1");
      EXPECT_EQ(socket_.receive(), std::string("STATUS=Idle; ") + remark);
      EXPECT_EQ(socket_.receive(), "READY=1");
    }
    EXPECT_EQ(socket_.receive(0), "");
  }).join();
  remarkInStatus("");
  setReloadHandler(nullptr);
}

TEST_F(TheServiceManager, WithoutAWatchdogIsNotFed) {
  superviseQueue(SerialQueue("unwatched"));
  EXPECT_EQ(socket_.receive(300), "");
}

TEST_F(TheServiceManager, WatchesAQueue) {
  setenv("WATCHDOG_USEC", "200000", 1);
  const SerialQueue queue("watched");
  superviseQueue(queue);
  for (int count = 0; count < 3; ++count) {
    EXPECT_EQ(socket_.receive(), "WATCHDOG=1");
  }
  const Semaphore entered(0);
  const Semaphore released(0);
  queue.async([entered, released] {
    entered.signal();
    released.wait();
  });
  entered.wait();
  testing::internal::CaptureStderr();
  while (!socket_.receive(0).empty()) {
  }
  EXPECT_EQ(socket_.receive(500), "") << "the queue is stuck, yet the watchdog was fed";
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("watched is stuck"));
  released.signal();
  EXPECT_EQ(socket_.receive(), "WATCHDOG=1");
  unsetenv("WATCHDOG_USEC");
}

TEST(AnActivity, ChecksInAndThenRunsWhenItIsDue) {
  const Semaphore called(0);
  const Semaphore finished(0);
  std::vector<ActivityState> states;
  registerActivity("daily", [&states, called](const Activity& activity) {
    EXPECT_EQ(activity.name, "daily");
    states.push_back(activity.state);
    called.signal();
  });
  called.wait();
  EXPECT_THAT(states, testing::ElementsAre(ActivityState::CheckIn));
  EXPECT_TRUE(handlers::runActivity("daily", [finished] { finished.signal(); }));
  finished.wait();
  EXPECT_THAT(states, testing::ElementsAre(ActivityState::CheckIn, ActivityState::Run));
}

TEST(AnActivity, CountsAsRunningUntilItsHandlerReturns) {
  const Semaphore entered(0);
  const Semaphore released(0);
  const Semaphore finished(0);
  registerActivity("long", [entered, released](const Activity& activity) {
    if (activity.state == ActivityState::Run) {
      entered.signal();
      released.wait();
    }
  });
  EXPECT_TRUE(handlers::runActivity("long", [finished] { finished.signal(); }));
  entered.wait();
  EXPECT_FALSE(finished.wait(std::chrono::milliseconds(50)));
  released.signal();
  finished.wait();
}

TEST(AProcess, OutlivesAWriteBeyondTheLimitOnAFilesSize) {
  const auto writeTooMuch = [] {
    const rlimit none{.rlim_cur = 0, .rlim_max = 0};
    const int file = open("/mnt/limited", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    outliveFileSizeLimit();
    const bool isSet = file >= 0 && setrlimit(RLIMIT_FSIZE, &none) == 0;
    _exit(isSet && write(file, "x", 1) < 0 && errno == EFBIG ? 0 : 1);
  };
  EXPECT_EXIT(writeTooMuch(), testing::ExitedWithCode(0), "");
}

TEST(AnActivity, ThatNobodyRegisteredCannotRun) {
  EXPECT_FALSE(handlers::runActivity("unknown", [] { ADD_FAILURE(); }));
}

TEST(AnEventStream, HandlesSeveralEventsAtATime) {
  const Semaphore inside(0);
  const Semaphore released(0);
  const Semaphore finished(0);
  setEventStreamHandler("stream", [inside, released](const Value&) {
    inside.signal();
    released.wait();
  });
  for (int index = 0; index < 2; ++index) {
    EXPECT_TRUE(handlers::postEvent("stream", Value::Dictionary{{"_Flags", index}}, [finished] { finished.signal(); }));
  }
  inside.wait();
  inside.wait();
  released.signal();
  released.signal();
  finished.wait();
  finished.wait();
  setEventStreamHandler("stream", [](const Value&) {});
}

TEST(AnEventStream, DoesNotWaitForAnother) {
  const Semaphore entered(0);
  const Semaphore released(0);
  const Semaphore finished(0);
  setEventStreamHandler("slow", [entered, released](const Value&) {
    entered.signal();
    released.wait();
  });
  setEventStreamHandler("quick", [](const Value&) {});
  EXPECT_TRUE(handlers::postEvent("slow", Value::Dictionary(), [finished] { finished.signal(); }));
  entered.wait();
  EXPECT_TRUE(handlers::postEvent("quick", Value::Dictionary(), [finished] { finished.signal(); }));
  finished.wait();
  released.signal();
  finished.wait();
}

TEST(AnEventStream, WithoutAHandlerTakesNoEvents) {
  EXPECT_FALSE(handlers::postEvent("unknown", Value::Dictionary(), [] { ADD_FAILURE(); }));
}

TEST(ANotification, MovesANewFileOntoItsName) {
  ASSERT_EQ(postNotification("com.tessaly.kelvane.launched"), 0);
  const std::string file = "/run/kelvane/notify/com.tessaly.kelvane.launched";
  const std::string first = test::readFile(file);
  EXPECT_THAT(first, MatchesRegex("[0-9]+\\.[0-9]{9}\n"));
  const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  ASSERT_GE(inotify_add_watch(watch, "/run/kelvane/notify", IN_MOVED_TO), 0);
  ASSERT_EQ(postNotification("com.tessaly.kelvane.launched"), 0);
  alignas(inotify_event) char buffer[4096];
  ASSERT_GT(read(watch, buffer, sizeof buffer), 0);
  EXPECT_STREQ(reinterpret_cast<const inotify_event*>(buffer)->name, "com.tessaly.kelvane.launched");
  EXPECT_NE(test::readFile(file), first);
  close(watch);
  std::size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/run/kelvane/notify")) {
    ++entries;
  }
  EXPECT_EQ(entries, 1u);
}

TEST(ANotification, NeedsANameThatAFileCanHave) {
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string("."), std::string("a\0b", 3), std::string(201, 'x')}) {
    errno = 0;
    EXPECT_EQ(postNotification(name), -1);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST(ANotification, ThatCannotBeWrittenSaysWhyAndLeavesTheOldOne) {
  ASSERT_EQ(postNotification("kept"), 0);
  const std::string before = test::readFile("/run/kelvane/notify/kept");
  ASSERT_EQ(mount("/run/kelvane/notify", "/run/kelvane/notify", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, "/run/kelvane/notify", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(postNotification("kept"), -1);
  EXPECT_EQ(errno, EROFS);
  EXPECT_EQ(test::readFile("/run/kelvane/notify/kept"), before);
  ASSERT_EQ(umount("/run/kelvane/notify"), 0);
}

TEST(ATerminationDeathTest, CallsTheHandlerWhichEndsTheProcess) {
  EXPECT_EXIT(
      {
        installTerminationHandler([](int signal) { exitImmediately(signal == SIGTERM ? 0 : 1); });
        raise(SIGTERM);
        _exit(2);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ATerminationDeathTest, ComesThoughTheSignalWasBlocked) {
  EXPECT_EXIT(
      {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        installTerminationHandler([](int) { exitImmediately(0); });
        raise(SIGTERM);
        _exit(2);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ARandomUuid, HasTheFormOfVersionFourAndIsNew) {
  std::set<std::string> seen;
  for (int count = 0; count < 100; ++count) {
    const std::string uuid = randomUuid();
    EXPECT_THAT(uuid, MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

}  // namespace
}  // namespace kelvane
