// SPDX-License-Identifier: Apache-2.0
// Stores on disks that do not answer in time.
#include "platform/linux/preferences/StoreOpening.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <initializer_list>
#include <latch>
#include <memory>
#include <optional>
#include <string>

#include "tests/harness/ResultText.h"
#include "tests/linux/preferences/StoreTesting.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::readFile;
using test::textOf;
using test::writeFile;
using test::writeTo;

const std::string directory = "/mnt/opening/preferences";
const std::string slotA = directory + "/suite/slot-a";
const std::string slotB = directory + "/suite/slot-b";

/// What has to answer before the disk does, if anything; and what was asked of the disk.
std::atomic<std::latch*> answer = nullptr;
std::atomic<bool> isAsked = false;
std::atomic<int> changes = 0;

void ask() {
  isAsked = true;
  if (std::latch* const held = answer) {
    held->wait();
  }
}
ssize_t heldRead(int file, void* bytes, std::size_t count, off_t offset) {
  ask();
  return pread(file, bytes, count, offset);
}
ssize_t countedWrite(int file, const void* bytes, std::size_t count, off_t offset) {
  ++changes;
  return pwrite(file, bytes, count, offset);
}
ssize_t heldWrite(int file, const void* bytes, std::size_t count, off_t offset) {
  ask();
  return countedWrite(file, bytes, count, offset);
}
int heldFlush(int file) {
  ask();
  return fdatasync(file);
}

class AStoreOpenedInTime : public testing::Test {
 protected:
  AStoreOpenedInTime() {
    std::filesystem::remove_all("/mnt/opening");
    answer = nullptr;
    changes = 0;
  }

  static Result<std::unique_ptr<PreferencesStore>> open() { return PreferencesStore::open(directory, "suite"); }
  static void write(std::initializer_list<std::string> texts) {
    const auto store = open();
    ASSERT_TRUE(store) << textOf(store);
    for (const std::string& text : texts) {
      ASSERT_EQ(textOf(writeTo(**store, Value::Dictionary{{"key", text}})), "");
    }
  }
  static Value storedText() {
    const auto store = open();
    return store && (*store)->contents().contains("key") ? (*store)->contents().at("key") : Value();
  }

  /// Begins to open a store whose disk does not answer one of these calls, and returns when that was given up.
  void giveUp(const DiskCalls& calls) {
    isAsked = false;
    answer = &answer_;
    const auto begin = [this, &calls] {
      return openInTime(*probe_, directory, "suite", calls, std::chrono::milliseconds(50));
    };
    EXPECT_EQ(textOf(begin()), "opening " + directory + "/suite: the disk does not answer");
    while (!isAsked) {  // It was given up before the disk was asked at all.
      static_cast<void>(begin());
    }
    changes = 0;
  }
  /// Returns when the late thread has ended.
  void letAnswer() {
    answer_.count_down();
    probe_.reset();
    answer = nullptr;
  }

  std::latch answer_{1};
  std::optional<FileSystemProbe> probe_{std::in_place};
};

TEST_F(AStoreOpenedInTime, IsTheOneThatIsThere) {
  write({"one", "two"});
  auto store = openInTime(*probe_, directory, "suite");
  ASSERT_TRUE(store) << textOf(store);
  EXPECT_EQ((*store)->contents().at("key"), Value("two"));
  EXPECT_EQ(textOf(writeTo(**store, Value::Dictionary{{"key", "three"}})), "") << "it is whole";
  EXPECT_EQ(open().failure().number, EBUSY);
  EXPECT_EQ(openInTime(*probe_, directory, "suite").failure().number, EBUSY);
  *store = nullptr;
  EXPECT_EQ(storedText(), Value("three"));
}

TEST_F(AStoreOpenedInTime, IsMadeWithAllDirectoriesAboveIt) {
  const auto store = openInTime(*probe_, directory, "suite");
  EXPECT_TRUE(store) << textOf(store);
  EXPECT_TRUE(std::filesystem::exists(slotB));
}

TEST_F(AStoreOpenedInTime, IsLockedAndLeftAsItIsByAThreadThatCannotReadIt) {
  write({"older", "newer"});
  const std::string images = readFile(slotA) + readFile(slotB);
  giveUp({.read = heldRead, .write = countedWrite});
  EXPECT_EQ(open().failure().number, EBUSY) << "the thread is still in it";
  letAnswer();
  EXPECT_EQ(changes, 0);
  EXPECT_EQ(readFile(slotA) + readFile(slotB), images);
  EXPECT_EQ(storedText(), Value("newer")) << "the thread's lock is gone";
}

TEST_F(AStoreOpenedInTime, GetsNoLostSlotBackFromAThreadThatIsLate) {
  write({"older", "newer"});
  std::filesystem::remove(slotB);
  giveUp({.read = heldRead});
  letAnswer();
  EXPECT_FALSE(std::filesystem::exists(slotB));
  EXPECT_EQ(storedText(), Value("newer"));
}

TEST_F(AStoreOpenedInTime, IsNotKeptAsideByAThreadThatIsLate) {
  write({"older", "newer"});
  writeFile(slotA, "damage");
  writeFile(slotB, "damage");
  giveUp({.read = heldRead});
  letAnswer();
  EXPECT_EQ(readFile(slotA), "damage");
  EXPECT_FALSE(std::filesystem::exists(directory + "/suite.damaged-1"));
}

TEST_F(AStoreOpenedInTime, IsGivenNoRoomByAThreadThatIsLate) {
  write({"older", "newer"});
  for (const std::string& slot : {slotA, slotB}) {
    std::filesystem::resize_file(slot, 4096);
  }
  const std::string images = readFile(slotA) + readFile(slotB);
  giveUp({.write = heldWrite});
  letAnswer();
  EXPECT_EQ(changes, 1) << "the one that was held, which wrote what was there";
  EXPECT_EQ(readFile(slotA) + readFile(slotB), images);
}

TEST_F(AStoreOpenedInTime, IsNotMadeByAThreadThatIsLate) {
  giveUp({.write = countedWrite, .flush = heldFlush});
  letAnswer();
  EXPECT_EQ(changes, 0);
  EXPECT_TRUE(std::filesystem::is_empty(directory)) << "nothing half made takes space";
  write({"one"});
  EXPECT_EQ(storedText(), Value("one"));
}

}  // namespace
}  // namespace kelvane
