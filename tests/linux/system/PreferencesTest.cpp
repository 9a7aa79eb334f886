// SPDX-License-Identifier: Apache-2.0
// Preferences suites, and how synchronising callers share writes.
#include "platform/Preferences.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <latch>
#include <thread>
#include <vector>

#include "platform/linux/system/Paths.h"
#include "platform/linux/system/PreferencesSuiteCore.h"
#include "tests/linux/system/PrivateNamespace.h"

namespace kelvane {
namespace {

TEST(ASuite, ShowsAtOnceWhatIsSet) {
  const auto suite = PreferencesSuite::open("shows");
  ASSERT_TRUE(suite);
  EXPECT_TRUE((*suite)["key"].isAbsent());
  suite->set("key", 5);
  EXPECT_EQ((*suite)["key"], Value(5));
  suite->set("key", Value());
  EXPECT_TRUE((*suite)["key"].isAbsent());
}

TEST(ASuite, FindsWhatWasSynchronisedWhenItIsOpenedAgain) {
  auto suite = PreferencesSuite::open("com.tessaly.kelvane");
  ASSERT_TRUE(suite);
  suite->set("kept", Value::Dictionary{{"a", "b"}});
  suite->set("removed", true);
  EXPECT_TRUE(suite->synchronize());
  suite->set("removed", Value());
  EXPECT_TRUE(suite->synchronize());
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

TEST(ASuite, IsWrittenBehindWhenNobodySynchronises) {
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

class SynchronisingCallers : public testing::Test {
 protected:
  SynchronisingCallers() {
    disk.fails = false;
    std::filesystem::remove_all("/mnt/shared");
    core_ = std::make_unique<PreferencesSuiteCore>("suite", openStore());
    disk.flushes = 0;
  }
  static std::unique_ptr<PreferencesStore> openStore() {
    return PreferencesStore::open("/mnt/shared", "suite", countedFlush);
  }

  std::unique_ptr<PreferencesSuiteCore> core_;
};

TEST_F(SynchronisingCallers, ShareOneFlush) {
  constexpr int count = 20;
  std::latch entered(1);
  std::latch released(1);
  disk.released = &released;
  disk.entered = &entered;
  core_->set("first", true);
  std::thread first([this] { EXPECT_TRUE(core_->synchronize()); });
  entered.wait();

  std::latch set(count);
  std::vector<std::thread> others;
  for (int index = 0; index < count; ++index) {
    others.emplace_back([this, index, &set] {
      core_->set(std::to_string(index), index);
      set.count_down();
      EXPECT_TRUE(core_->synchronize());
    });
  }
  set.wait();
  released.count_down();
  first.join();
  for (std::thread& thread : others) {
    thread.join();
  }
  EXPECT_EQ(disk.flushes, 2) << "one for the first caller, one for all that set meanwhile";
  core_.reset();
  const auto contents = openStore()->contents();
  EXPECT_EQ(contents.size(), count + 1u);
}

TEST_F(SynchronisingCallers, PayNothingWhenNothingHasChanged) {
  EXPECT_TRUE(core_->synchronize());
  core_->set("key", 1);
  EXPECT_TRUE(core_->synchronize());
  EXPECT_TRUE(core_->synchronize());
  EXPECT_EQ(disk.flushes, 1);
}

TEST_F(SynchronisingCallers, LearnOfAFailureAndTheNextAttemptWritesAgain) {
  disk.fails = true;
  core_->set("key", "value");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(core_->synchronize());
  EXPECT_FALSE(core_->synchronize());
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(log.find("Unable to write the preferences suite: Input/output error"),
            log.rfind("Unable to write the preferences suite: Input/output error"));
  EXPECT_NE(log.find("Unable to write"), std::string::npos);
  EXPECT_EQ(core_->value("key"), Value("value")) << "what was set stays in memory";
  disk.fails = false;
  EXPECT_TRUE(core_->synchronize());
  core_.reset();
  EXPECT_EQ(openStore()->contents().at("key"), Value("value"));
}

TEST_F(SynchronisingCallers, AndSettersMayComeFromAnyThread) {
  constexpr int threads = 8;
  constexpr int rounds = 50;
  std::vector<std::thread> callers;
  for (int index = 0; index < threads; ++index) {
    callers.emplace_back([this, index] {
      for (int round = 1; round <= rounds; ++round) {
        core_->set(std::to_string(index), round);
        EXPECT_TRUE(core_->synchronize());
        EXPECT_EQ(core_->value(std::to_string(index)), Value(round));
      }
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  core_.reset();
  const auto contents = openStore()->contents();
  for (int index = 0; index < threads; ++index) {
    EXPECT_EQ(contents.at(std::to_string(index)), Value(rounds));
  }
}

TEST_F(SynchronisingCallers, FailOnceTheStoreIsClosed) {
  core_->set("key", 1);
  core_->close();
  EXPECT_FALSE(core_->synchronize());
}

}  // namespace
}  // namespace kelvane
