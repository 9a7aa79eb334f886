// SPDX-License-Identifier: Apache-2.0
// Rights on the directory of all stores, and links to it.
#include "platform/linux/preferences/StoreRights.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/linux/preferences/PreferencesStore.h"
#include "tests/harness/ResultText.h"
#include "tests/linux/preferences/StoreTesting.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::dictionary;
using test::logOfWriting;
using test::textOf;
using test::writeFile;

const std::string above = "/mnt/rights";
const std::string directory = above + "/preferences";
const std::string elsewhere = above + "/elsewhere";

void makeDirectory(const std::string& path, mode_t mode) {
  ASSERT_TRUE(std::filesystem::create_directory(path));
  ASSERT_EQ(chmod(path.c_str(), mode), 0);
}
mode_t modeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

class TheDirectoryOfStores : public testing::Test {
 protected:
  TheDirectoryOfStores() {
    std::filesystem::remove_all(above);
    std::filesystem::create_directory(above);
  }

  static Result<std::unique_ptr<PreferencesStore>> open() { return PreferencesStore::open(directory, "suite"); }
};

TEST_F(TheDirectoryOfStores, IsClosedToOthersWhichIsSaidOnce) {
  for (const mode_t mode : {0755u, 0710u, 0701u, 0777u}) {
    makeDirectory(directory, mode);
    testing::internal::CaptureStderr();
    EXPECT_EQ(textOf(open()), "");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("The directory " + directory + " was open to others (it has"),
              std::string::npos);
    EXPECT_EQ(modeOf(directory), 0700u) << mode;
    testing::internal::CaptureStderr();
    EXPECT_EQ(textOf(open()), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    std::filesystem::remove_all(directory);
  }
}

TEST_F(TheDirectoryOfStores, IsRefusedWhenItBelongsToSomebodyElse) {
  if (!test::isTrulyRoot()) {
    // There is nobody else.
    return;
  }
  makeDirectory(directory, 0755);
  ASSERT_EQ(chown(directory.c_str(), 65534, 65534), 0);
  const auto store = open();
  EXPECT_EQ(textOf(store), "opening " + directory + ": it belongs to user 65534, not to user 0");
  ASSERT_FALSE(store);
  EXPECT_NE(store.failure().number, EBUSY);
  EXPECT_EQ(modeOf(directory), 0755u);
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(TheDirectoryOfStores, MayBeALink) {
  makeDirectory(elsewhere, 0700);
  std::filesystem::create_directory_symlink("elsewhere", directory);
  {
    const auto store = open();
    ASSERT_TRUE(store) << textOf(store);
    EXPECT_EQ(open().failure().number, EBUSY);
    EXPECT_EQ(logOfWriting(**store, "one"), "") << "it is in its place";
    EXPECT_EQ(logOfWriting(**store, "two"), "");
  }
  EXPECT_TRUE(std::filesystem::exists(elsewhere + "/suite/slot-a"));
  const auto store = open();
  ASSERT_TRUE(store) << textOf(store);
  EXPECT_EQ((*store)->contents(), dictionary("two"));
}

TEST_F(TheDirectoryOfStores, IsWhereTheLinkLeadsNow) {
  makeDirectory(elsewhere, 0700);
  std::filesystem::create_directory_symlink(elsewhere, directory);
  const auto store = open();
  ASSERT_TRUE(store) << textOf(store);
  std::filesystem::remove(directory);
  makeDirectory(above + "/other", 0700);
  std::filesystem::create_directory_symlink(above + "/other", directory);
  EXPECT_NE(logOfWriting(**store, "after").find("were removed or replaced while they were open; made anew"),
            std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(above + "/other/suite/slot-a"));
}

TEST_F(TheDirectoryOfStores, ThatALinkLeadsToIsNotClosedToOthers) {
  makeDirectory(elsewhere, 0755);
  std::filesystem::create_directory_symlink(elsewhere, directory);
  EXPECT_EQ(textOf(open()),
            "opening " + directory + ": it is a link to a directory that has mode 0755; one of mode 0700 is needed");
  EXPECT_EQ(modeOf(elsewhere), 0755u) << "it may be there for more than stores";
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
}

TEST_F(TheDirectoryOfStores, IsNotMadeWhereALinkLeadsToNothing) {
  const std::string refused = "opening " + directory + ": a link on the way there leads to nothing";
  std::filesystem::create_directory_symlink(elsewhere, directory);
  EXPECT_EQ(textOf(open()), refused);
  std::filesystem::remove_all(above);
  std::filesystem::create_directory_symlink("/mnt/nowhere", above);
  EXPECT_EQ(textOf(open()), refused);
  EXPECT_FALSE(std::filesystem::exists("/mnt/nowhere"));
  std::filesystem::remove(above);
}

}  // namespace
}  // namespace kelvane
