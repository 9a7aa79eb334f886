// SPDX-License-Identifier: Apache-2.0
// That a hanging volume does what tests of other programs rely on.
#include "tests/hanging-volume/HangingVolume.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane::test {

namespace {

constexpr char directory[] = "/mnt/hanging";

/// The errno of asking, or 0.
int ask(const std::string& path = directory) {
  struct statvfs space = {};
  return statvfs(path.c_str(), &space) == 0 ? 0 : errno;
}

/// The fields of the mount's line.
std::set<std::string> mountInfo() {
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    if (line.find(directory) != std::string::npos) {
      std::istringstream words(line);
      return {std::istream_iterator<std::string>(words), {}};
    }
  }
  return {};
}

TEST(HangingVolume, IsADiskToEverybodyElse) {
  const HangingVolume volume(directory);
  struct stat status = {};
  ASSERT_EQ(stat(directory, &status), 0);
  EXPECT_NE(major(status.st_dev), 0U);
  EXPECT_TRUE(mountInfo().contains("fuseblk"));
  EXPECT_EQ(access(directory, R_OK | X_OK), 0);
}

TEST(HangingVolume, TellsTheFiguresItIsTold) {
  HangingVolume volume(directory);
  volume.setSize(std::uint64_t{1} << 40);
  volume.setFree(123 * 4096);
  struct statvfs space = {};
  ASSERT_EQ(statvfs(directory, &space), 0);
  EXPECT_EQ(space.f_blocks * space.f_frsize, std::uint64_t{1} << 40);
  EXPECT_EQ(space.f_bavail * space.f_frsize, 123 * 4096U);
}

TEST(HangingVolume, HoldsOneKindOfRequestsAndAnswersTheOthers) {
  HangingVolume volume(directory);
  volume.hang("statfs");
  auto asked = std::async(std::launch::async, [] { return ask(); });
  volume.awaitHeld("statfs");
  EXPECT_TRUE(std::filesystem::is_empty(directory));
  EXPECT_EQ(volume.held("statfs"), 1U);
  EXPECT_EQ(volume.held(), 1U);
  volume.resume("statfs");
  EXPECT_EQ(asked.get(), 0);
  EXPECT_EQ(volume.held(), 0U);
  EXPECT_EQ(ask(), 0);
  EXPECT_EQ(volume.received("statfs"), 2U);
}

TEST(HangingVolume, HoldsAnythingThatTheFileSystemIsAsked) {
  HangingVolume volume(directory);
  volume.addFile("program", "#!/bin/true");
  volume.hang();
  auto listed = std::async(std::launch::async, [] { return std::filesystem::is_empty(directory); });
  volume.awaitHeld("getattr opendir");
  auto opened = std::async(std::launch::async, [] { return open("/mnt/hanging/program", O_RDONLY | O_CLOEXEC); });
  volume.awaitHeld("lookup access");
  volume.resume();
  EXPECT_FALSE(listed.get());
  EXPECT_EQ(close(opened.get()), 0);
}

TEST(HangingVolume, FailsAsItIsTold) {
  HangingVolume volume(directory);
  volume.fail("statfs", EIO);
  EXPECT_EQ(ask(), EIO);
  volume.resume("statfs");
  EXPECT_EQ(ask(), 0);
}

TEST(HangingVolume, HasTheFilesItIsGiven) {
  HangingVolume volume(directory);
  volume.addFile("one", "first line");
  volume.addFile("two", "#!/bin/true");
  EXPECT_EQ(readFile("/mnt/hanging/one"), "first line");
  EXPECT_EQ(access("/mnt/hanging/three", F_OK), -1);
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.insert(entry.path().filename());
  }
  EXPECT_EQ(names, (std::set<std::string>{"one", "two"}));
  EXPECT_EQ(std::system("/mnt/hanging/two"), 0);
}

TEST(HangingVolume, GivesWhoeverStillWaitsAnErrorWhenItEnds) {
  std::future<int> asked;
  {
    HangingVolume volume(directory);
    volume.hang();
    asked = std::async(std::launch::async, [] { return ask(); });
    volume.awaitHeld("statfs");
  }
  EXPECT_EQ(asked.get(), ECONNABORTED);
  EXPECT_TRUE(mountInfo().empty());
}

TEST(HangingVolume, HoldsWhoeverAsksAgainstSignals) {
  HangingVolume volume(directory);
  volume.hang("statfs interrupt");
  const pid_t asker = fork();
  if (asker == 0) {
    ask();
    _exit(0);
  }
  volume.awaitHeld("statfs");
  kill(asker, SIGKILL);
  volume.awaitHeld("interrupt");
  EXPECT_EQ(waitpid(asker, nullptr, WNOHANG), 0);
  volume.resume("statfs");
  int status = 0;
  EXPECT_EQ(waitpid(asker, &status, 0), asker);
  EXPECT_TRUE(WIFSIGNALED(status));
}

}  // namespace

}  // namespace kelvane::test
