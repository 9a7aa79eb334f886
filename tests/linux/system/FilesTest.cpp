// SPDX-License-Identifier: Apache-2.0
// Finding and reading files.
#include "platform/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/Limits.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

/// A new, empty directory for each test.
class Files : public testing::Test {
 protected:
  Files() {
    std::filesystem::remove_all(top_);
    std::filesystem::create_directories(top_);
  }

  std::string readText(const std::string& name, std::size_t maximumBytes = 1000) {
    const auto result = files::read(top_ + "/" + name, maximumBytes);
    if (const auto* error = std::get_if<files::Error>(&result)) {
      return "error: " + error->text;
    }
    const Data& data = std::get<Data>(result);
    return {data.begin(), data.end()};
  }

  const std::string top_ = "/mnt/files";
};

TEST_F(Files, AreListedInNameOrderWithADirectoryBeforeWhatIsInIt) {
  std::filesystem::create_directories(top_ + "/b/c");
  writeFile(top_ + "/b/z", "");
  writeFile(top_ + "/b/c/x", "");
  writeFile(top_ + "/b.plist", "");
  writeFile(top_ + "/a", "");
  EXPECT_THAT(files::entriesBeneath(top_).entries, ElementsAre("a", "b", "b/c", "b/c/x", "b/z", "b.plist"));
}

TEST_F(Files, AreListedThroughASymbolicLinkToTheDirectoryItselfOnly) {
  std::filesystem::create_directories(top_ + "/real/inner");
  writeFile(top_ + "/real/inner/file", "");
  std::filesystem::create_directory_symlink("inner", top_ + "/real/link");
  std::filesystem::create_directory_symlink("real", top_ + "/top");
  EXPECT_THAT(files::entriesBeneath(top_ + "/top").entries, ElementsAre("inner", "inner/file", "link"));
}

TEST_F(Files, OfAMissingDirectoryAreNone) {
  const files::Listing listing = files::entriesBeneath(top_ + "/missing");
  EXPECT_THAT(listing.entries, IsEmpty());
  EXPECT_THAT(listing.failures, IsEmpty());
}

TEST_F(Files, OfWhatCannotBeListedAreNoneAndTheReasonIsTold) {
  writeFile(top_ + "/file", "");
  std::filesystem::create_symlink("nowhere", top_ + "/dangling");
  std::filesystem::create_symlink("loop", top_ + "/loop");
  const auto reasonFor = [&](const std::string& name) {
    const files::Listing listing = files::entriesBeneath(top_ + name);
    EXPECT_THAT(listing.entries, IsEmpty()) << name;
    return listing.failures;
  };
  EXPECT_THAT(reasonFor("/file"), ElementsAre("/mnt/files/file: Not a directory"));
  EXPECT_THAT(reasonFor("/file/rules"), ElementsAre("/mnt/files/file/rules: Not a directory"));
  EXPECT_THAT(reasonFor("/dangling"), ElementsAre("/mnt/files/dangling: A symbolic link leads nowhere"));
  EXPECT_THAT(reasonFor("/dangling/rules"), ElementsAre("/mnt/files/dangling/rules: A symbolic link leads nowhere"));
  EXPECT_THAT(reasonFor("/loop"), ElementsAre("/mnt/files/loop: Too many levels of symbolic links"));
}

TEST_F(Files, AreListedNoDeeperThanTheLimit) {
  std::string path = top_;
  for (int depth = 0; depth < limits::directoryDepth + 3; ++depth) {
    path += "/d";
    std::filesystem::create_directory(path);
  }
  EXPECT_EQ(files::entriesBeneath(top_).entries.size(), static_cast<std::size_t>(limits::directoryDepth));
}

TEST_F(Files, AreListedNoMoreThanTheLimit) {
  for (std::size_t index = 0; index < limits::directoryEntries + 2; ++index) {
    ASSERT_EQ(mknod((top_ + "/" + std::to_string(index)).c_str(), S_IFREG | 0600, 0), 0);
  }
  EXPECT_EQ(files::entriesBeneath(top_).entries.size(), limits::directoryEntries);
}

TEST_F(Files, AreReadWhole) {
  const std::string contents(100'000, 'x');
  writeFile(top_ + "/file", contents);
  EXPECT_EQ(readText("file", 1'000'000), contents);
  writeFile(top_ + "/empty", "");
  EXPECT_EQ(readText("empty"), "");
}

TEST_F(Files, ThatSayTheyAreEmptyAreReadAllTheSame) {
  const auto result = files::read("/proc/self/mountinfo", 1'000'000);
  ASSERT_TRUE(std::holds_alternative<Data>(result));
  EXPECT_FALSE(std::get<Data>(result).empty());
}

TEST_F(Files, LargerThanTheMaximumAreRefused) {
  writeFile(top_ + "/file", "12345");
  EXPECT_EQ(readText("file", 5), "12345");
  EXPECT_EQ(readText("file", 4), "error: Larger than 4 bytes");
  const auto result = files::read("/proc/self/mountinfo", 10);
  ASSERT_TRUE(std::holds_alternative<files::Error>(result));
  EXPECT_EQ(std::get<files::Error>(result).text, "Larger than 10 bytes");
}

TEST_F(Files, ThatCannotBeReadSayWhy) {
  std::filesystem::create_directory(top_ + "/directory");
  EXPECT_EQ(readText("directory"), "error: Is a directory");
  EXPECT_EQ(readText("missing"), "error: No such file or directory");
  std::filesystem::create_symlink("loop", top_ + "/loop");
  EXPECT_EQ(readText("loop"), "error: Too many levels of symbolic links");
  std::filesystem::create_symlink("missing", top_ + "/dangling");
  EXPECT_EQ(readText("dangling"), "error: A symbolic link leads nowhere");
}

/// The error of a file that may be changed in this way.
std::string changeable(const std::string& how) {
  return "error: /mnt/files/" + how + ", and configuration that others may change does not count";
}

TEST_F(Files, ThatOthersMayWriteToAreRefused) {
  writeFile(top_ + "/file", "text");
  std::filesystem::create_symlink("file", top_ + "/link");
  ASSERT_EQ(chmod((top_ + "/file").c_str(), 0620), 0);
  EXPECT_EQ(readText("file"), changeable("file may be written to by its group"));
  ASSERT_EQ(chmod((top_ + "/file").c_str(), 0602), 0);
  EXPECT_EQ(readText("link"), changeable("file may be written to by everybody"));
  ASSERT_EQ(chmod((top_ + "/file").c_str(), 0755), 0);
  EXPECT_EQ(readText("link"), "text");
}

TEST_F(Files, BeneathADirectoryThatOthersMayWriteToAreRefusedUnlessEachMayRemoveOnlyWhatIsHis) {
  std::filesystem::create_directories(top_ + "/real/inner");
  writeFile(top_ + "/real/inner/file", "text");
  std::filesystem::create_symlink("real/inner", top_ + "/link");
  ASSERT_EQ(chmod((top_ + "/real").c_str(), 0777), 0);
  EXPECT_EQ(readText("link/file"), changeable("real may be written to by everybody"));
  EXPECT_EQ(readText("real/inner/missing"), "error: No such file or directory");
  EXPECT_THAT(files::entriesBeneath(top_ + "/link").entries, ElementsAre("file"));
  ASSERT_EQ(chmod((top_ + "/real").c_str(), 01777), 0);
  EXPECT_EQ(readText("link/file"), "text");
}

TEST_F(Files, OfAnotherUserAreRefusedAndSoAreLinksAndDirectories) {
  if (!test::isTrulyRoot()) {
    // Others can have no files of somebody else's here; what looks at owners is the same code as for modes.
    return;
  }
  std::filesystem::create_directories(top_ + "/directory/inner");
  writeFile(top_ + "/directory/inner/file", "text");
  std::filesystem::create_symlink("directory/inner/file", top_ + "/link");
  const auto readAsOf = [&](uid_t user, const std::string& name) {
    EXPECT_EQ(lchown((top_ + "/" + name).c_str(), user, 0), 0);
    const std::string text = readText("link");
    EXPECT_EQ(lchown((top_ + "/" + name).c_str(), 0, 0), 0);
    return text;
  };
  for (const char* name : {"link", "directory", "directory/inner", "directory/inner/file"}) {
    EXPECT_EQ(readAsOf(1000, name), changeable(std::string(name) + " belongs to user 1000"));
    EXPECT_EQ(readAsOf(65534, name), changeable(std::string(name) + " belongs to user 65534"));
  }
  EXPECT_EQ(readAsOf(0, "link"), "text");
}

TEST_F(Files, AreMissingOnlyWhereNothingIsToBe) {
  std::filesystem::create_directory(top_ + "/directory");
  writeFile(top_ + "/file", "");
  std::filesystem::create_symlink("directory", top_ + "/link");
  std::filesystem::create_symlink("nowhere", top_ + "/dangling");
  std::filesystem::create_symlink("dangling", top_ + "/second");
  std::filesystem::create_symlink("link/nothing", top_ + "/inward");
  const auto isMissing = [&](const std::string& name) {
    const auto result = files::read(top_ + "/" + name, 1000);
    return std::get<files::Error>(result).isMissing;
  };
  for (const char* name : {"missing", "missing/file", "directory/missing", "link/missing", "link/missing/file"}) {
    EXPECT_TRUE(isMissing(name)) << name;
  }
  for (const char* name : {"directory", "file/more", "dangling", "dangling/file", "second", "inward"}) {
    EXPECT_FALSE(isMissing(name)) << name;
  }
}

TEST_F(Files, ThatAreNotRegularAreNotOpened) {
  const std::string fifo = top_ + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, fifo.c_str(), IN_OPEN), 0);

  EXPECT_EQ(readText("fifo"), "error: Not a regular file");
  EXPECT_THAT(files::entriesBeneath(top_).entries, ElementsAre("fifo"));
  char event[1024];
  EXPECT_EQ(::read(watch, event, sizeof event), -1) << "the FIFO was opened";
  close(watch);

  const auto device = files::read("/dev/zero", 10);
  ASSERT_TRUE(std::holds_alternative<files::Error>(device));
  EXPECT_EQ(std::get<files::Error>(device).text, "Not a regular file");
}

}  // namespace
}  // namespace kelvane
