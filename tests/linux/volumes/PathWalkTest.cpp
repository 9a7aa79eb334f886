// SPDX-License-Identifier: Apache-2.0
// Paths, and disks that hang on the way.
#include "platform/linux/volumes/PathWalk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/auto_fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/Files.h"
#include "tests/hanging-volume/HangingVolume.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

class APath : public testing::Test {
 protected:
  APath() {
    std::filesystem::remove_all(top);
    std::filesystem::create_directories(top + "/inner/more");
    test::writeFile(top + "/inner/file", "contents");
  }
  void link(const std::string& target, const std::string& name) const {
    std::filesystem::create_symlink(target, top + "/" + name);
  }
  /// The errno of asking, or 0 when it is the file in question.
  int ask(const std::string& path) const {
    struct stat wanted = {};
    EXPECT_EQ(stat((top + "/inner/file").c_str(), &wanted), 0);
    const auto identity = askIdentity(path);
    if (!identity) {
      return identity.failure().number;
    }
    EXPECT_TRUE(identity->isSame({.device = wanted.st_dev, .inode = wanted.st_ino})) << path;
    return 0;
  }

  /// Another test may be given a disk with the same number.
  static void awaitRest(dev_t device) {
    while (FileSystemProbe::shared().closedUntil(device)) {
      usleep(1000);
    }
  }

  const std::string top = "/mnt/paths";
};

TEST_F(APath, LeadsToTheFileThatTheSystemFindsThere) {
  link("inner", "directory");
  link("/mnt/paths/directory/file", "absolute");
  link("inner/../directory/more/../file", "upAndDown");
  link("absolute", "second");
  for (const char* name :
       {"inner/file", "./inner//file", "directory/file", "absolute", "upAndDown", "second", "inner/more/../file"}) {
    EXPECT_EQ(ask(top + "/" + name), 0) << name;
  }
  EXPECT_EQ(ask(top + "/missing"), ENOENT);
  EXPECT_EQ(ask(top + "/missing/../inner/file"), ENOENT);
  EXPECT_EQ(ask(top + "/inner/file/more"), ENOTDIR);
}

TEST_F(APath, WithoutAnEndIsRefused) {
  link("loop", "loop");
  EXPECT_EQ(ask(top + "/loop"), ELOOP);
}

TEST_F(APath, ToADiskThatHangsBlamesThatDiskAlone) {
  if (!test::isTrulyRoot()) {
    // Others have no disks of their own; what waits here is the same code as for the others.
    return;
  }
  test::HangingVolume disk("/mnt/hanging");
  disk.addFile("file", "contents");
  link("/mnt/hanging/file", "outward");
  struct stat status = {};
  ASSERT_EQ(stat("/mnt/hanging", &status), 0);
  disk.hang();
  EXPECT_EQ(ask(top + "/outward"), ETIMEDOUT);
  EXPECT_EQ(FileSystemProbe::shared().closedUntil(status.st_dev), FileSystemProbe::Time::max());
  EXPECT_EQ(ask(top + "/inner/file"), 0) << "the link's own disk is none the worse";
  const auto asked = disk.received();
  const auto unread = files::read(top + "/outward", 1000);
  EXPECT_TRUE(std::holds_alternative<files::Error>(unread));
  EXPECT_EQ(files::entriesBeneath("/mnt/hanging").failures,
            std::vector<std::string>{"/mnt/hanging: Connection timed out"});
  EXPECT_EQ(disk.received(), asked) << "it is known to hang";
  disk.resume();
  awaitRest(status.st_dev);
}

TEST_F(APath, ThatADescriptionsDirectoryHoldsMayHangWithoutTheOthers) {
  if (!test::isTrulyRoot()) {
    return;
  }
  test::HangingVolume disk(top + "/inner/more/disk");
  test::HangingVolume other(top + "/inner/more/other");
  test::writeFile(top + "/inner/last", "");
  struct stat status = {};
  ASSERT_EQ(stat(disk.path().c_str(), &status), 0);
  struct stat otherStatus = {};
  ASSERT_EQ(stat(other.path().c_str(), &otherStatus), 0);
  disk.hang();
  other.hang();
  const auto begin = FileSystemProbe::Clock::now();
  const std::vector<std::string> found = files::entriesBeneath(top + "/inner").entries;
  EXPECT_LT(FileSystemProbe::Clock::now() - begin, 2 * FileSystemProbe::longPatience)
      << "only one is waited for so long";
  EXPECT_EQ(found, (std::vector<std::string>{"file", "last", "more", "more/disk", "more/other"}));
  EXPECT_EQ(FileSystemProbe::shared().lostWorkers(), 2u);
  disk.resume();
  other.resume();
  awaitRest(status.st_dev);
  awaitRest(otherStatus.st_dev);
}

TEST_F(APath, HasOneNameWithoutLinks) {
  link("inner/..", "around");
  link("/mnt/paths/inner/file", "absolute");
  EXPECT_EQ(*files::realPath(top + "/around/./absolute"), "/mnt/paths/inner/file");
  EXPECT_EQ(*files::realPath("/mnt/paths/inner/"), "/mnt/paths/inner");
  EXPECT_EQ(*files::realPath("/"), "/");
  EXPECT_EQ(files::realPath(top + "/missing").failure().number, ENOENT);
  EXPECT_EQ(files::realPath("").failure().number, ENOENT);
}

TEST_F(APath, HasNoNameThatIsKnownWhereADiskHangsOnItsWay) {
  if (!test::isTrulyRoot()) {
    return;
  }
  test::HangingVolume disk("/mnt/hanging");
  struct stat status = {};
  ASSERT_EQ(stat("/mnt/hanging", &status), 0);
  disk.hang();
  EXPECT_EQ(files::realPath("/mnt/hanging/inside").failure().number, ETIMEDOUT);
  disk.resume();
  awaitRest(status.st_dev);
}

/// An automount point of a process that mounts nothing there. It needs root's mount namespace.
class IdleAutomount {
 public:
  explicit IdleAutomount(const std::string& path) : path_(path) {
    std::filesystem::create_directories(path);
    EXPECT_EQ(pipe2(orders_, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(requests_, O_CLOEXEC), 0);
    process_ = fork();
    if (process_ == 0) {
      char order = 0;
      const bool isOrdered = read(orders_[0], &order, 1) == 1;
      // Only its own process group may go there without waiting.
      const int place = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      _exit(isOrdered && ioctl(place, AUTOFS_IOC_CATATONIC, 0) == 0 ? 0 : 1);
    }
    EXPECT_EQ(setpgid(process_, process_), 0);
    const std::string options =
        "fd=" + std::to_string(requests_[1]) + ",pgrp=" + std::to_string(process_) + ",minproto=5,maxproto=5,direct";
    EXPECT_EQ(mount("automount", path.c_str(), "autofs", 0, options.c_str()), 0);
  }
  /// Whoever waits gets an error.
  ~IdleAutomount() {
    EXPECT_EQ(write(orders_[1], "x", 1), 1);
    int status = -1;
    EXPECT_EQ(waitpid(process_, &status, 0), process_);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(umount2(path_.c_str(), MNT_DETACH), 0);
    for (const int end : {orders_[0], orders_[1], requests_[0], requests_[1]}) {
      close(end);
    }
  }
  IdleAutomount(const IdleAutomount&) = delete;
  IdleAutomount& operator=(const IdleAutomount&) = delete;

 private:
  const std::string path_;
  int orders_[2];
  int requests_[2];
  pid_t process_ = 0;
};

TEST_F(APath, ThatADescriptionsDirectoryHoldsIsNotMountedOnDemand) {
  if (!test::isTrulyRoot()) {
    return;
  }
  test::writeFile(top + "/inner/other", "");
  const IdleAutomount automount(top + "/inner/more/auto");
  const std::vector<std::string> found = files::entriesBeneath(top + "/inner").entries;
  EXPECT_EQ(found, (std::vector<std::string>{"file", "more", "more/auto", "other"}));
  EXPECT_EQ(FileSystemProbe::shared().lostWorkers(), 0u);
  EXPECT_EQ(ask(top + "/inner/file"), 0);
}

}  // namespace
}  // namespace kelvane
