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
#include "tests/harness/ResultText.h"
#include "tests/linux/preferences/StoreTesting.h"
#include "tests/linux/testing/Eventually.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

/// A suite of this name; null when it cannot be opened.
std::unique_ptr<PreferencesSuite> opened(const std::string& name) {
  auto suite = PreferencesSuite::open(name);
  return suite ? *std::move(suite) : nullptr;
}

/// Has a suite, or its core, written, and waits for it: empty when it went well.
std::string written(auto& suite) {
  std::promise<std::string> promise;
  suite.whenDurable([&](const PreferencesSuite::Outcome& outcome) { promise.set_value(test::textOf(outcome)); });
  return promise.get_future().get();
}

TEST(ASuite, ShowsAtOnceWhatIsSet) {
  const auto suite = opened("shows");
  ASSERT_TRUE(suite);
  EXPECT_TRUE((*suite)["state"].isAbsent());
  EXPECT_EQ(suite->entry("state", "a"), std::nullopt) << "there is no dictionary";
  suite->setEntry("state", "a", 1);
  suite->setEntry("state", "b", 2);
  EXPECT_EQ(suite->entry("state", "a"), Value(1));
  EXPECT_EQ((*suite)["state"], Value(Value::Dictionary{{"a", 1}, {"b", 2}}));
  suite->setEntry("state", "a", Value());
  suite->setEntry("state", "c", Value());
  EXPECT_EQ(suite->entry("state", "a"), Value());
  EXPECT_EQ((*suite)["state"], Value(Value::Dictionary{{"b", 2}}));
}

TEST(ASuite, WritesEveryChangeOverWhateverWasThere) {
  {
    const auto store = PreferencesStore::open(paths::preferencesDirectory, "changing");
    ASSERT_TRUE(store) << test::textOf(store);
    const Value::Dictionary contents = {
        {"state", "text"}, {"other", Value::Dictionary{{"x", 1}, {"y", 2}}}, {"kept", 5}};
    ASSERT_EQ(test::textOf(test::writeTo(**store, contents)), "");
  }
  auto suite = opened("changing");
  ASSERT_TRUE(suite);
  EXPECT_EQ((*suite)["state"], Value("text"));
  EXPECT_EQ(suite->entry("state", "a"), std::nullopt) << "it is no dictionary";
  EXPECT_EQ(suite->entry("other", "x"), Value(1));
  suite->setEntry("state", "gone", Value());
  EXPECT_EQ((*suite)["state"], Value(Value::Dictionary{})) << "an empty one takes the place of the text";
  suite->setEntry("other", "x", Value());
  EXPECT_EQ(written(*suite), "");
  suite->setEntry("state", "a", 1);
  suite->setEntry("other", "y", 3);
  suite->setEntry("state", "a", 4);
  EXPECT_EQ(written(*suite), "");
  suite.reset();
  suite = opened("changing");
  ASSERT_TRUE(suite);
  EXPECT_EQ((*suite)["state"], Value(Value::Dictionary{{"a", 4}}));
  EXPECT_EQ((*suite)["other"], Value(Value::Dictionary{{"y", 3}}));
  EXPECT_EQ((*suite)["kept"], Value(5));
}

TEST(ASuite, ThatAnotherProcessHasOpenSaysSo) {
  const auto suite = opened("first");
  EXPECT_EQ(PreferencesSuite::open("second").failure().number, EBUSY);
}

TEST(ASuite, FindsWhatWasWrittenWhenItIsOpenedAgain) {
  auto suite = opened("com.tessaly.kelvane");
  ASSERT_TRUE(suite);
  suite->setEntry("kept", "a", "b");
  suite->setEntry("kept", "removed", true);
  EXPECT_EQ(written(*suite), "");
  suite->setEntry("kept", "removed", Value());
  EXPECT_EQ(written(*suite), "");
  suite.reset();
  suite = opened("com.tessaly.kelvane");
  ASSERT_TRUE(suite);
  EXPECT_EQ((*suite)["kept"], Value(Value::Dictionary{{"a", "b"}}));
  EXPECT_TRUE(std::filesystem::is_directory("/var/lib/kelvane/preferences/com.tessaly.kelvane"));
}

TEST(ASuite, NeedsANameThatAFileCanHave) {
  for (const std::string& name : {std::string(), std::string("a/b"), std::string(".."), std::string(".hidden"),
                                  std::string("a\0b", 3), std::string(201, 'x')}) {
    EXPECT_EQ(opened(name), nullptr) << name;
  }
  EXPECT_NE(opened(std::string(200, 'x')), nullptr);
}

TEST(ASuite, IsWrittenBehindWhenNobodyWaitsForIt) {
  auto suite = opened("behind");
  ASSERT_TRUE(suite);
  const int watch = inotify_init1(IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, "/var/lib/kelvane/preferences/behind/slot-b", IN_MODIFY), 0);
  suite->setEntry("state", "key", "value");
  pollfd written = {watch, POLLIN, 0};
  ASSERT_EQ(poll(&written, 1, 30'000), 1);
  close(watch);
  suite.reset();  // Waits for the write to end.
  suite = opened("behind");
  ASSERT_TRUE(suite);
  EXPECT_EQ(suite->entry("state", "key"), Value("value"));
}

constexpr std::chrono::seconds patience{30};

/// A flush that counts, and can be held up or made to fail.
struct Disk {
  std::atomic<int> flushes = 0;
  std::atomic<int> writes = 0;
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

/// The next flush, which does not end before it is released.
class HeldFlush {
 public:
  HeldFlush() {
    disk.released = &released_;
    disk.entered = &entered_;
  }
  void awaitBegin() const { entered_.wait(); }
  void release() { released_.count_down(); }

 private:
  std::latch entered_{1};
  std::latch released_{1};
};

ssize_t countedWrite(int file, const void* bytes, std::size_t count, off_t offset) {
  ++disk.writes;
  return pwrite(file, bytes, count, offset);
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
    auto store = PreferencesStore::open("/mnt/shared", "suite", {.write = countedWrite, .flush = countedFlush});
    return store ? *std::move(store) : nullptr;
  }

  /// Changes what the flush has to write, and comes back once it writes.
  void beginFlush(const HeldFlush& flush) {
    core_->set({.key = "state", .entry = "key", .value = 1});
    core_->whenDurable([](const PreferencesSuite::Outcome&) {});
    flush.awaitBegin();
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
  HeldFlush flush;
  std::latch answered(1 + count);
  const auto answer = [&](const PreferencesSuite::Outcome& outcome) {
    EXPECT_EQ(test::textOf(outcome), "");
    answered.count_down();
  };
  core_->set({.key = "state", .entry = "first", .value = true});
  core_->whenDurable(answer);
  flush.awaitBegin();
  for (int index = 0; index < count; ++index) {
    core_->set({.key = "state", .entry = std::to_string(index), .value = index});
    core_->whenDurable(answer);
  }
  flush.release();
  answered.wait();
  EXPECT_EQ(disk.flushes, 2) << "one for the first caller, one for all that set meanwhile";
  close();
  EXPECT_EQ(openStore()->contents().at("state").dictionary()->size(), count + 1u);
}

TEST_F(WaitingCallers, AreNotAnsweredBeforeTheDiskHasTheirChange) {
  HeldFlush flush;
  core_->set({.key = "state", .entry = "key", .value = 1});
  std::atomic<bool> isAnswered = false;
  core_->whenDurable([&](const PreferencesSuite::Outcome&) { isAnswered = true; });
  flush.awaitBegin();
  EXPECT_FALSE(isAnswered);
  EXPECT_EQ(core_->entry("state", "key"), Value(1)) << "readers have it at once";
  flush.release();
  EXPECT_EQ(written(*core_), "");
  EXPECT_TRUE(isAnswered);
}

TEST_F(WaitingCallers, PayNothingWhenNothingHasChanged) {
  EXPECT_EQ(written(*core_), "");
  core_->set({.key = "state", .entry = "key", .value = 1});
  EXPECT_EQ(written(*core_), "");
  EXPECT_EQ(written(*core_), "");
  EXPECT_EQ(disk.flushes, 1);
}

TEST_F(WaitingCallers, LearnOfAFailureAndTheNextAttemptWritesAgain) {
  disk.fails = true;
  core_->set({.key = "state", .entry = "key", .value = "value"});
  testing::internal::CaptureStderr();
  EXPECT_EQ(written(*core_), "flushing slot-b: Input/output error");
  EXPECT_EQ(written(*core_), "flushing slot-b: Input/output error");
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(log.find("Unable to write the preferences suite: flushing slot-b: Input/output error"),
            log.rfind("Unable to write the preferences suite: flushing slot-b: Input/output error"));
  EXPECT_NE(log.find("Unable to write"), std::string::npos);
  EXPECT_EQ(core_->entry("state", "key"), Value("value")) << "what was set stays in memory";
  disk.fails = false;
  EXPECT_EQ(written(*core_), "");
  close();
  EXPECT_EQ(openStore()->contents().at("state")["key"], Value("value"));
}

/// Whether the metrics come to say so of what is set.
bool eventuallyWritten(bool isWritten) {
  const std::string line = std::string("\nkelvane_preferences_written ") + (isWritten ? "1\n" : "0\n");
  return test::eventually(
      [&line] { return test::readFile("/run/kelvane/metrics.prom").find(line) != std::string::npos; });
}

TEST_F(WaitingCallers, AreSeenToBeFailedByTheMetricsForAsLongAsTheyAre) {
  EXPECT_TRUE(eventuallyWritten(true));
  disk.fails = true;
  core_->set({.key = "state", .entry = "key", .value = "value"});
  EXPECT_NE(written(*core_), "");
  EXPECT_TRUE(eventuallyWritten(false));
  EXPECT_NE(written(*core_), "");
  disk.fails = false;
  EXPECT_EQ(written(*core_), "");
  EXPECT_TRUE(eventuallyWritten(true));
  std::filesystem::remove_all("/mnt/shared");
  test::writeFile("/mnt/shared", "in the way");
  core_->set({.key = "state", .entry = "key", .value = "handed over"});
  EXPECT_FALSE(core_->handOver(patience));
  EXPECT_TRUE(eventuallyWritten(false));
  std::filesystem::remove("/mnt/shared");
  EXPECT_TRUE(core_->handOver(patience));
  EXPECT_EQ(written(*core_), "");
  EXPECT_TRUE(eventuallyWritten(true));
}

TEST_F(WaitingCallers, AreSeenToWaitByTheMetricsForAsLongAsTheyDo) {
  HeldFlush flush;
  beginFlush(flush);
  core_->set({.key = "state", .entry = "key", .value = 2});
  EXPECT_FALSE(core_->handOver(std::chrono::milliseconds(20)));
  EXPECT_TRUE(eventuallyWritten(false));
  flush.release();
  EXPECT_EQ(written(*core_), "");
  EXPECT_TRUE(eventuallyWritten(true));
}

TEST(ASuite, ThatCannotBeOpenedIsSeenNotToBeWrittenByTheMetrics) {
  const auto suite = opened("first");
  ASSERT_TRUE(suite);
  EXPECT_TRUE(eventuallyWritten(true));
  EXPECT_FALSE(PreferencesSuite::open("second"));
  EXPECT_TRUE(eventuallyWritten(false));
}

TEST_F(WaitingCallers, AndSettersMayComeFromAnyThread) {
  constexpr int threads = 8;
  constexpr int rounds = 50;
  std::vector<std::thread> callers;
  for (int index = 0; index < threads; ++index) {
    callers.emplace_back([this, index] {
      for (int round = 1; round <= rounds; ++round) {
        core_->set({.key = "state", .entry = std::to_string(index), .value = round});
        EXPECT_EQ(written(*core_), "");
        EXPECT_EQ(core_->entry("state", std::to_string(index)), Value(round));
      }
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  close();
  const auto contents = openStore()->contents();
  for (int index = 0; index < threads; ++index) {
    EXPECT_EQ(contents.at("state")[std::to_string(index)], Value(rounds));
  }
}

TEST_F(WaitingCallers, GetTheRoomTheyAskForWhileOthersWrite) {
  constexpr int rounds = 20;
  std::thread writer([this] {
    for (int round = 0; round < rounds; ++round) {
      core_->set({.key = "state", .entry = "key", .value = round});
      EXPECT_EQ(written(*core_), "");
    }
  });
  for (std::size_t round = 0; round < rounds; ++round) {
    EXPECT_EQ(test::textOf(core_->makeRoom(limits::preferencesRoom + round * 100'000, patience)), "");
  }
  writer.join();
  close();
  EXPECT_GE(openStore()->room(), limits::preferencesRoom + (rounds - 1) * 100'000);
}

/// What the slots of the store hold at this moment, as the process's death would leave them.
Value::Dictionary leftBehind() {
  std::filesystem::remove_all("/mnt/copy");
  std::filesystem::copy("/mnt/shared", "/mnt/copy", std::filesystem::copy_options::recursive);
  const auto store = PreferencesStore::open("/mnt/copy", "suite");
  EXPECT_TRUE(store) << test::textOf(store);
  return store ? (*store)->contents() : Value::Dictionary();
}

TEST_F(WaitingCallers, HaveItHandedOverWithoutAFlush) {
  core_->set({.key = "state", .entry = "key", .value = 1});
  EXPECT_TRUE(core_->handOver(patience));
  EXPECT_EQ(disk.flushes, 0);
  EXPECT_EQ(leftBehind(), (Value::Dictionary{{"state", Value::Dictionary{{"key", 1}}}}));
  EXPECT_EQ(disk.flushes, 0);
}

TEST_F(WaitingCallers, PayOnlyForTheFlushOfWhatWasHandedOver) {
  core_->set({.key = "state", .entry = "key", .value = 1});
  EXPECT_TRUE(core_->handOver(patience));
  disk.writes = 0;
  EXPECT_TRUE(core_->handOver(patience));
  EXPECT_EQ(written(*core_), "");
  EXPECT_EQ(disk.writes, 0) << "a write that is cut off would take from a process's death what it was promised";
  EXPECT_EQ(disk.flushes, 1);
  core_->set({.key = "state", .entry = "key", .value = 2});
  EXPECT_TRUE(core_->handOver(patience));
  EXPECT_EQ(disk.writes, 1);
}

TEST_F(WaitingCallers, HaveItWrittenAgainAfterAFailedFlush) {
  core_->set({.key = "state", .entry = "key", .value = 1});
  EXPECT_TRUE(core_->handOver(patience));
  disk.fails = true;
  EXPECT_NE(written(*core_), "");
  disk.fails = false;
  disk.writes = 0;
  EXPECT_TRUE(core_->handOver(patience));
  EXPECT_EQ(disk.writes, 1);
  EXPECT_EQ(written(*core_), "");
  close();
  EXPECT_EQ(openStore()->contents().at("state")["key"], Value(1));
}

TEST_F(WaitingCallers, OfAHandOverAreReleasedBeforeTheFlushThatFollows) {
  HeldFlush flush;
  beginFlush(flush);
  EXPECT_TRUE(core_->handOver(patience)) << "the flush has begun, so it is with the kernel";
  flush.release();
  close();
}

TEST_F(WaitingCallers, WaitForADiskThatDoesNotAnswerOnceAndNotLong) {
  HeldFlush flush;
  beginFlush(flush);
  core_->set({.key = "state", .entry = "key", .value = 2});
  testing::internal::CaptureStderr();
  EXPECT_FALSE(core_->handOver(std::chrono::milliseconds(20)));
  // Any of these would not return if it waited.
  constexpr auto forEver = std::chrono::hours(24);
  EXPECT_FALSE(core_->handOver(forEver));
  EXPECT_EQ(core_->makeRoom(2 * limits::preferencesRoom, forEver).failure().number, ETIMEDOUT);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("The disk of the preferences suite keeps everybody waiting"), std::string::npos);
  EXPECT_EQ(log.find("keeps everybody"), log.rfind("keeps everybody"));
  flush.release();
  EXPECT_EQ(written(*core_), "");
  core_->set({.key = "state", .entry = "key", .value = 3});
  EXPECT_TRUE(core_->handOver(patience)) << "it answers again";
  EXPECT_EQ(test::textOf(core_->makeRoom(2 * limits::preferencesRoom, patience)), "");
  close();
}

TEST_F(WaitingCallers, FindTheLastOfManyChangesHoweverLongTheDiskTakes) {
  HeldFlush flush;
  beginFlush(flush);
  std::weak_ptr<const Value::Dictionary> replaced;
  for (int round = 1; round <= 1000; ++round) {
    const Value value = Value::Dictionary{{"round", round}};
    if (round == 500) {
      replaced = value.dictionary();
    }
    core_->set({.key = "state", .entry = "key", .value = value});
  }
  EXPECT_TRUE(replaced.expired()) << "what nobody will write is not kept for the disk";
  flush.release();
  EXPECT_EQ(written(*core_), "");
  close();
  EXPECT_EQ(openStore()->contents().at("state")["key"]["round"], Value(1000));
}

TEST_F(WaitingCallers, FailOnceTheStoreIsClosed) {
  core_->set({.key = "state", .entry = "key", .value = 1});
  core_->close();
  EXPECT_EQ(written(*core_), "the store is closed");
}

}  // namespace
}  // namespace kelvane
