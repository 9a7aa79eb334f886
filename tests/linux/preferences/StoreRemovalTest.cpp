// SPDX-License-Identifier: Apache-2.0
// Stores whose files are removed or replaced while they are open.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "platform/linux/preferences/PreferencesStore.h"
#include "platform/linux/preferences/PreferencesSuiteCore.h"
#include "tests/harness/ResultText.h"
#include "tests/linux/preferences/StoreTesting.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::dictionary;
using test::logOfWriting;
using test::readFile;
using test::textOf;
using test::writeFile;
using test::writeTo;

const std::string above = "/mnt/removal";
const std::string directory = above + "/preferences";
const std::string place = directory + "/suite";

/// The text of the one entry that these tests store.
Value storedText() {
  const auto store = PreferencesStore::open(directory, "suite");
  EXPECT_TRUE(store) << textOf(store);
  return store && (*store)->contents().contains("key") ? (*store)->contents().at("key") : Value();
}

class ARemovedStore : public testing::Test {
 protected:
  ARemovedStore() {
    std::filesystem::remove_all(above);
    auto store = PreferencesStore::open(directory, "suite");
    EXPECT_TRUE(store) << textOf(store);
    store_ = *std::move(store);
    EXPECT_EQ(textOf(writeTo(*store_, dictionary("before"))), "");
  }

  std::unique_ptr<PreferencesStore> store_;
};

/// Ways in which the files can come to be elsewhere, or nowhere.
const std::vector<std::function<void()>> removals = {
    [] { std::filesystem::remove(place + "/slot-a"); },
    [] { std::filesystem::remove(place + "/slot-b"); },
    [] { std::filesystem::remove_all(place); },
    [] { std::filesystem::remove_all(directory); },
    [] { std::filesystem::remove_all(above); },
    [] { std::filesystem::rename(place, directory + "/elsewhere"); },
    [] { std::filesystem::rename(above, "/mnt/elsewhere"); },
    [] {
      std::filesystem::rename(place, directory + "/elsewhere");
      std::filesystem::create_symlink("elsewhere", place);
    },
    [] {
      std::filesystem::copy(place, directory + "/copy", std::filesystem::copy_options::recursive);
      std::filesystem::remove_all(place);
      std::filesystem::rename(directory + "/copy", place);
    },
    [] {
      const std::string bytes = readFile(place + "/slot-b");
      std::filesystem::remove(place + "/slot-b");
      writeFile(place + "/slot-b", bytes);
    },
};

TEST_F(ARemovedStore, IsMadeAnewByTheNextWriteWhateverWasRemoved) {
  for (std::size_t index = 0; index < removals.size(); ++index) {
    std::filesystem::remove_all("/mnt/elsewhere");
    std::filesystem::remove_all(directory + "/elsewhere");
    removals[index]();
    const std::string text = "after " + std::to_string(index);
    EXPECT_NE(logOfWriting(*store_, text)
                  .find("The preferences " + place + " were removed or replaced while they were open; made anew"),
              std::string::npos)
        << index;
    EXPECT_EQ(logOfWriting(*store_, text), "") << "it is said once";
    store_.reset();
    EXPECT_EQ(storedText(), Value(text)) << index;
    store_ = *PreferencesStore::open(directory, "suite");
  }
}

TEST_F(ARemovedStore, HasTheRoomThatItHad) {
  constexpr std::size_t more = limits::preferencesRoom + 500'000;
  ASSERT_EQ(textOf(store_->makeRoom(more)), "");
  std::filesystem::remove_all(place);
  logOfWriting(*store_, "after");
  EXPECT_GE(store_->room(), more);
  EXPECT_GE(std::filesystem::file_size(place + "/slot-a"), more);
  EXPECT_GE(std::filesystem::file_size(place + "/slot-b"), more);
}

TEST_F(ARemovedStore, KeepsWhatWasPutInItsPlaceAside) {
  std::filesystem::remove_all(place);
  std::filesystem::create_directory(place);
  writeFile(place + "/slot-a", "of somebody else");
  EXPECT_NE(
      logOfWriting(*store_, "after").find("What was in the place of the preferences suite is kept as suite.damaged-1"),
      std::string::npos);
  EXPECT_EQ(readFile(directory + "/suite.damaged-1/slot-a"), "of somebody else");
  store_.reset();
  EXPECT_EQ(storedText(), Value("after"));
}

TEST_F(ARemovedStore, IsLockedWhereItIsMadeAnew) {
  std::filesystem::remove_all(above);
  logOfWriting(*store_, "after");
  EXPECT_EQ(PreferencesStore::open(directory, "suite").failure().number, EBUSY);
}

TEST_F(ARemovedStore, IsNotMadeAnewWhereAnotherProcessHasOne) {
  std::filesystem::rename(above, "/mnt/elsewhere");
  {
    const auto other = PreferencesStore::open(directory, "suite");
    ASSERT_TRUE(other) << textOf(other);
    EXPECT_EQ(writeTo(*store_, dictionary("refused")).failure().number, EBUSY);
  }
  std::filesystem::remove_all("/mnt/elsewhere");
  EXPECT_EQ(textOf(writeTo(*store_, dictionary("after"))), "");
}

TEST_F(ARemovedStore, CannotBeWrittenForAsLongAsItCannotBeMade) {
  std::filesystem::remove_all(above);
  writeFile(above, "in the way");
  for (int count = 0; count < 2; ++count) {
    EXPECT_EQ(textOf(writeTo(*store_, dictionary("refused"))), "making " + directory + ": Not a directory");
  }
  std::filesystem::remove(above);
  EXPECT_EQ(textOf(writeTo(*store_, dictionary("after"))), "");
  store_.reset();
  EXPECT_EQ(storedText(), Value("after"));
}

TEST_F(ARemovedStore, HasNothingThatMayBeReliedOn) {
  ASSERT_EQ(textOf(store_->handOver(dictionary("handed over"))), "");
  EXPECT_TRUE(store_->isHandedOver());
  std::filesystem::remove_all(place);
  EXPECT_FALSE(store_->isHandedOver());
  EXPECT_EQ(textOf(store_->flush()), "flushing the preferences suite: they were removed or replaced");
}

TEST_F(ARemovedStore, HoldsWhatWasHandedOverBefore) {
  const auto core = std::make_shared<PreferencesSuiteCore>("suite", std::move(store_));
  core->set({.key = "state", .entry = "key", .value = "handed over"});
  EXPECT_TRUE(core->handOver(std::chrono::minutes(1)));
  std::filesystem::remove_all(above);
  std::promise<std::string> answer;
  core->whenDurable([&](const Result<>& outcome) { answer.set_value(textOf(outcome)); });
  EXPECT_EQ(answer.get_future().get(), "");
  core->close();
  const auto store = PreferencesStore::open(directory, "suite");
  ASSERT_TRUE(store) << textOf(store);
  EXPECT_EQ((*store)->contents().at("state")["key"], Value("handed over"));
}

}  // namespace
}  // namespace kelvane
