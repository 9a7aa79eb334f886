// SPDX-License-Identifier: Apache-2.0
// The lock that keeps one process's stores from all others.
#include "platform/linux/preferences/StoreLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "platform/linux/preferences/PreferencesStore.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "tests/harness/ResultText.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::textOf;
using test::writeFile;

const std::string directory = "/mnt/preferences";

class AStoresLock : public testing::Test {
 protected:
  AStoresLock() {
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(directory);
  }
};

TEST_F(AStoresLock, LetsItBeOpenOnceAtATime) {
  const auto store = PreferencesStore::open(directory, "suite");
  ASSERT_TRUE(store);
  EXPECT_EQ(PreferencesStore::open(directory, "suite").failure().number, EBUSY);
}

TEST_F(AStoresLock, IsOfItsDirectoryBeforeThereIsAnythingInIt) {
  const auto store = PreferencesStore::open(directory, "suite");
  std::filesystem::remove_all(directory + "/suite");
  const auto second = PreferencesStore::open(directory, "suite");
  ASSERT_FALSE(second);
  EXPECT_EQ(second.failure().number, EBUSY);
  EXPECT_FALSE(std::filesystem::exists(directory + "/suite"));
}

/// A process that has the stores' directory locked though it has ended, as one's threads do that a disk keeps.
class AnEndedProcess {
 public:
  AnEndedProcess() : process_(fork()) {
    if (process_ == 0) {
      _exit(flock(lock_.get(), LOCK_EX));
    }
    siginfo_t end = {};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(end.si_status, 0);
  }
  ~AnEndedProcess() { EXPECT_EQ(waitpid(process_, nullptr, 0), process_); }
  AnEndedProcess(const AnEndedProcess&) = delete;
  AnEndedProcess& operator=(const AnEndedProcess&) = delete;

 private:
  // This process keeps it open.
  FileDescriptor lock_{::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  pid_t process_;
};

TEST_F(AStoresLock, OfAProcessThatHasEndedAndIsKeptIsNotTakenForAnotherDaemons) {
  {
    const AnEndedProcess process;
    EXPECT_EQ(textOf(PreferencesStore::open(directory, "suite")),
              "locking " + directory + ": the disk still keeps a process that has ended");
  }
  EXPECT_EQ(textOf(PreferencesStore::open(directory, "suite")), "");
}

/// Another user's process that has the directory locked, which it could open once, for as long as this lives.
class AStranger {
 public:
  explicit AStranger(const std::string& path) {
    const FileDescriptor lock(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int isLocked[2];
    int isToEnd[2];
    EXPECT_EQ(pipe2(isLocked, O_CLOEXEC) | pipe2(isToEnd, O_CLOEXEC), 0);
    process_ = fork();
    if (process_ == 0) {
      char byte = 0;
      close(isToEnd[1]);
      const bool isReady =
          setresuid(65534, 65534, 65534) == 0 && flock(lock.get(), LOCK_EX) == 0 && write(isLocked[1], &byte, 1) == 1;
      _exit(isReady && read(isToEnd[0], &byte, 1) == 0 ? 0 : 1);
    }
    close(isLocked[1]);
    close(isToEnd[0]);
    end_ = FileDescriptor(isToEnd[1]);
    const FileDescriptor locked(isLocked[0]);
    char byte = 0;
    EXPECT_EQ(read(locked.get(), &byte, 1), 1);
  }
  ~AStranger() {
    end_ = FileDescriptor();
    EXPECT_EQ(waitpid(process_, nullptr, 0), process_);
  }
  AStranger(const AStranger&) = delete;
  AStranger& operator=(const AStranger&) = delete;

  pid_t process() const { return process_; }

 private:
  FileDescriptor end_;
  pid_t process_ = 0;
};

TEST_F(AStoresLock, OfAnotherUsersProcessIsNotTakenForAnotherDaemons) {
  if (!test::isTrulyRoot()) {
    // There is no other user.
    return;
  }
  {
    const AStranger stranger(directory);
    const auto store = PreferencesStore::open(directory, "suite");
    EXPECT_EQ(textOf(store), "locking " + directory + ": process " + std::to_string(stranger.process()) +
                                 ", which is no daemon, has locked it");
    ASSERT_FALSE(store);
    EXPECT_NE(store.failure().number, EBUSY);
  }
  EXPECT_EQ(textOf(PreferencesStore::open(directory, "suite")), "");
}

TEST_F(AStoresLock, OfAProcessThatHasEndedIsToldFromTheLockedFileOfItsNumberOnAnotherDisk) {
  const AnEndedProcess process;
  const std::string disk = "/mnt/disk";
  std::filesystem::create_directory(disk);
  ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, nullptr), 0);
  const auto numberOf = [](const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_ino;
  };
  // It numbers its files from one on.
  std::string file;
  for (int count = 0; file.empty() || numberOf(file) < numberOf(directory); ++count) {
    file = disk + "/" + std::to_string(count);
    writeFile(file, "");
  }
  ASSERT_EQ(numberOf(file), numberOf(directory));
  const FileDescriptor lock(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  EXPECT_EQ(textOf(PreferencesStore::open(directory, "suite")),
            "locking " + directory + ": the disk still keeps a process that has ended");
}

}  // namespace
}  // namespace kelvane
