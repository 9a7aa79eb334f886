// SPDX-License-Identifier: Apache-2.0
// Preferences suites, and how those who wait for the disk share writes.
#include "platform/Preferences.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <future>
#include <latch>
#include <thread>
#include <vector>

#include "platform/Limits.h"
#include "platform/linux/preferences/Paths.h"
#include "platform/linux/preferences/PreferencesSuiteCore.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

/// Has a suite, or its core, written, and waits for it.
PreferencesSuite::Outcome written(auto& suite) {
  std::promise<PreferencesSuite::Outcome> promise;
  suite.whenDurable([&](const PreferencesSuite::Outcome& outcome) { promise.set_value(outcome); });
  return promise.get_future().get();
}

TEST(ASuite, ShowsAtOnceWhatIsSet) {
  const auto suite = PreferencesSuite::open("shows");
  ASSERT_TRUE(suite);
  EXPECT_TRUE((*suite)["key"].isAbsent());
  suite->set("key", 5);
  EXPECT_EQ((*suite)["key"], Value(5));
  suite->set("key", Value());
  EXPECT_TRUE((*suite)["key"].isAbsent());
}

TEST(ASuite, FindsWhatWasWrittenWhenItIsOpenedAgain) {
  auto suite = PreferencesSuite::open("com.tessaly.kelvane");
  ASSERT_TRUE(suite);
  suite->set("kept", Value::Dictionary{{"a", "b"}});
  suite->set("removed", true);
  EXPECT_EQ(written(*suite), std::nullopt);
  suite->set("removed", Value());
  EXPECT_EQ(written(*suite), std::nullopt);
  suite.reset();
  suite = PreferencesSuite::open("com.tessaly.kelvane");
  ASSERT_TRUE(suite);
  EXPECT_EQ((*suite)["kept"]["a"], Value("b"));
  EXPECT_TRUE((*suite)["removed"].isAbsent());
  EXPECT_TRUE(std::filesystem::is_directory("/var/lib/kelvane/preferences/com.tessaly.kelvane"));
}

TEST(ASuite, NeedsANameThatAFileCanHave) {
  for (const std::string& name : {std::string(), std::string("a/b"), std::string(".."), std::string(".hidden"),
                                  std::string("a\0b", 3), std::string(201, 'x')}) {
    EXPECT_EQ(PreferencesSuite::open(name), nullptr) << name;
  }
  EXPECT_NE(PreferencesSuite::open(std::string(200, 'x')), nullptr);
}

TEST(ASuite, IsWrittenBehindWhenNobodyWaitsForIt) {
  auto suite = PreferencesSuite::open("behind");
  ASSERT_TRUE(suite);
  const int watch = inotify_init1(IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, "/var/lib/kelvane/preferences/behind/slot-b", IN_MODIFY), 0);
  suite->set("key", "value");
  pollfd written = {watch, POLLIN, 0};
  ASSERT_EQ(poll(&written, 1, 30'000), 1);
  close(watch);
  suite.reset();  // Waits for the write to end.
  suite = PreferencesSuite::open("behind");
  ASSERT_TRUE(suite);
  EXPECT_EQ((*suite)["key"], Value("value"));
}

/// A flush that counts, and can be held up or made to fail.
struct Disk {
  std::atomic<int> flushes = 0;
  std::atomic<bool> fails = false;
  std::atomic<std::latch*> entered = nullptr;
  std::atomic<std::latch*> released = nullptr;
};
Disk disk;

int countedFlush(int descriptor) {
  ++disk.flushes;
  if (std::latch* entered = disk.entered.exchange(nullptr)) {
    entered->count_down();
    disk.released.load()->wait();
  }
  if (disk.fails) {
    errno = EIO;
    return -1;
  }
  return fdatasync(descriptor);
}

class WaitingCallers : public testing::Test {
 protected:
  WaitingCallers() {
    disk.fails = false;
    std::filesystem::remove_all("/mnt/shared");
    core_ = std::make_shared<PreferencesSuiteCore>("suite", openStore());
    disk.flushes = 0;
  }
  static std::unique_ptr<PreferencesStore> openStore() {
    return PreferencesStore::open("/mnt/shared", "suite", countedFlush);
  }

  /// Lets the store be opened again.
  void close() {
    core_->close();
    core_.reset();
  }

  std::shared_ptr<PreferencesSuiteCore> core_;
};

TEST_F(WaitingCallers, ShareOneFlush) {
  constexpr int count = 20;
  std::latch entered(1);
  std::latch released(1);
  disk.released = &released;
  disk.entered = &entered;
  std::latch answered(1 + count);
  const auto answer = [&](const PreferencesSuite::Outcome& outcome) {
    EXPECT_EQ(outcome, std::nullopt);
    answered.count_down();
  };
  core_->set("first", true);
  core_->whenDurable(answer);
  entered.wait();
  for (int index = 0; index < count; ++index) {
    core_->set(std::to_string(index), index);
    core_->whenDurable(answer);
  }
  released.count_down();
  answered.wait();
  EXPECT_EQ(disk.flushes, 2) << "one for the first caller, one for all that set meanwhile";
  close();
  const auto contents = openStore()->contents();
  EXPECT_EQ(contents.size(), count + 1u);
}

TEST_F(WaitingCallers, AreNotAnsweredBeforeTheDiskHasTheirChange) {
  std::latch entered(1);
  std::latch released(1);
  disk.released = &released;
  disk.entered = &entered;
  core_->set("key", 1);
  std::atomic<bool> isAnswered = false;
  core_->whenDurable([&](const PreferencesSuite::Outcome&) { isAnswered = true; });
  entered.wait();
  EXPECT_FALSE(isAnswered);
  EXPECT_EQ(core_->value("key"), Value(1)) << "readers have it at once";
  released.count_down();
  EXPECT_EQ(written(*core_), std::nullopt);
  EXPECT_TRUE(isAnswered);
}

TEST_F(WaitingCallers, PayNothingWhenNothingHasChanged) {
  EXPECT_EQ(written(*core_), std::nullopt);
  core_->set("key", 1);
  EXPECT_EQ(written(*core_), std::nullopt);
  EXPECT_EQ(written(*core_), std::nullopt);
  EXPECT_EQ(disk.flushes, 1);
}

TEST_F(WaitingCallers, LearnOfAFailureAndTheNextAttemptWritesAgain) {
  disk.fails = true;
  core_->set("key", "value");
  testing::internal::CaptureStderr();
  EXPECT_EQ(written(*core_), "Input/output error");
  EXPECT_EQ(written(*core_), "Input/output error");
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(log.find("Unable to write the preferences suite: Input/output error"),
            log.rfind("Unable to write the preferences suite: Input/output error"));
  EXPECT_NE(log.find("Unable to write"), std::string::npos);
  EXPECT_EQ(core_->value("key"), Value("value")) << "what was set stays in memory";
  disk.fails = false;
  EXPECT_EQ(written(*core_), std::nullopt);
  close();
  EXPECT_EQ(openStore()->contents().at("key"), Value("value"));
}

TEST_F(WaitingCallers, AndSettersMayComeFromAnyThread) {
  constexpr int threads = 8;
  constexpr int rounds = 50;
  std::vector<std::thread> callers;
  for (int index = 0; index < threads; ++index) {
    callers.emplace_back([this, index] {
      for (int round = 1; round <= rounds; ++round) {
        core_->set(std::to_string(index), round);
        EXPECT_EQ(written(*core_), std::nullopt);
        EXPECT_EQ(core_->value(std::to_string(index)), Value(round));
      }
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  close();
  const auto contents = openStore()->contents();
  for (int index = 0; index < threads; ++index) {
    EXPECT_EQ(contents.at(std::to_string(index)), Value(rounds));
  }
}

TEST_F(WaitingCallers, GetTheRoomTheyAskForWhileOthersWrite) {
  constexpr int rounds = 20;
  std::thread writer([this] {
    for (int round = 0; round < rounds; ++round) {
      core_->set("key", round);
      EXPECT_EQ(written(*core_), std::nullopt);
    }
  });
  for (std::size_t round = 0; round < rounds; ++round) {
    EXPECT_EQ(core_->makeRoom(limits::preferencesRoom + round * 100'000), std::nullopt);
  }
  writer.join();
  close();
  EXPECT_GE(openStore()->room(), limits::preferencesRoom + (rounds - 1) * 100'000);
}

TEST_F(WaitingCallers, FailOnceTheStoreIsClosed) {
  core_->set("key", 1);
  core_->close();
  EXPECT_EQ(written(*core_), "the store is closed");
}

}  // namespace
}  // namespace kelvane
