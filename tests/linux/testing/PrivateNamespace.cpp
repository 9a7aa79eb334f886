// SPDX-License-Identifier: Apache-2.0
// Runs the test program in a mount namespace of its own.
#include "tests/linux/testing/PrivateNamespace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kelvane::test {

namespace {

constexpr char marker[] = "KELVANE_TEST_NAMESPACE";

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::_Exit(1);
}

void check(bool succeeded, const char* what) {
  if (!succeeded) {
    fail(what);
  }
}

/// Only system calls: it runs in a copy of a process that may have threads.
bool writeMap(const char* path, const char* text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  return file >= 0 && write(file, text, std::strlen(text)) == static_cast<ssize_t>(std::strlen(text)) &&
         close(file) == 0;
}

/// Root enters a namespace and starts the program afresh there, without threads from before. Returns when
/// root may not, as in some containers.
void restartAsRoot(char** arguments) {
  if (unshare(CLONE_NEWNS) == 0) {
    setenv(marker, "root", 1);
    execv("/proc/self/exe", arguments);
    fail("execv");
  }
}

/// Anybody else becomes root of a user namespace, which only a process without threads may do: a child, whose
/// outcome is passed on.
[[noreturn]] void restartAsUser(char** arguments) {
  char users[64];
  char groups[64];
  std::snprintf(users, sizeof users, "0 %u 1", getuid());
  std::snprintf(groups, sizeof groups, "0 %u 1", getgid());
  setenv(marker, "user", 1);
  const long child = syscall(SYS_clone, SIGCHLD | CLONE_NEWUSER | CLONE_NEWNS, nullptr, nullptr, nullptr, 0);
  check(child >= 0, "clone");
  if (child == 0) {
    if (writeMap("/proc/self/setgroups", "deny") && writeMap("/proc/self/uid_map", users) &&
        writeMap("/proc/self/gid_map", groups)) {
      execv("/proc/self/exe", arguments);
    }
    _exit(1);
  }
  int status = 0;
  check(waitpid(static_cast<pid_t>(child), &status, 0) >= 0, "waitpid");
  std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

void prepare() {
  // Configuration that a group may write to does not count, and some have their shell let it.
  umask(S_IWGRP | S_IWOTH);
  check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "making mounts private");
  for (const char* directory : {"/run", "/var/lib", "/etc", "/mnt"}) {
    check(mount("test", directory, "tmpfs", 0, "size=256m") == 0, directory);
  }
  std::filesystem::create_directories("/etc/kelvane");
}

}  // namespace

bool isTrulyRoot() {
  return std::string_view(std::getenv(marker)) == "root";
}

void mountTmpfs(const std::string& directory, const std::string& options) {
  std::filesystem::create_directories(directory);
  ASSERT_EQ(mount("test", directory.c_str(), "tmpfs", 0, options.c_str()), 0) << std::strerror(errno);
}

void writeFile(const std::string& path, std::string_view contents) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << contents;
  ASSERT_TRUE(file.flush().good()) << path;
}

std::string readFile(const std::string& path) {
  std::ostringstream contents;
  contents << std::ifstream(path, std::ios::binary).rdbuf();
  return contents.str();
}

}  // namespace kelvane::test

int main(int count, char** arguments) {
  using namespace kelvane::test;
  if (std::getenv(marker) == nullptr) {
    if (geteuid() == 0) {
      restartAsRoot(arguments);
    }
    restartAsUser(arguments);
  }
  prepare();
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
