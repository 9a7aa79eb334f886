// SPDX-License-Identifier: Apache-2.0
// The daemon that a test runs against.
#include "tests/hostile/DaemonProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string_view>

#include "platform/linux/runtime/FileDescriptor.h"
#include "tests/hostile/Places.h"
#include "tests/linux/testing/BusClient.h"
#include "tests/linux/testing/Eventually.h"

namespace kelvane::test {

namespace {

constexpr char logFile[] = "/run/test/kelvaned.log";

/// The test's own environment, changed so that no report of a sanitizer goes unnoticed.
std::vector<std::string> environmentWith(const std::vector<std::string>& more) {
  std::map<std::string, std::string> variables;
  const auto add = [&variables](const std::string& text) {
    const std::size_t equals = text.find('=');
    variables[text.substr(0, equals)] = text.substr(equals + 1);
  };
  for (char** variable = environ; *variable != nullptr; ++variable) {
    add(*variable);
  }
  variables["ASAN_OPTIONS"] = "detect_stack_use_after_return=1:quarantine_size_mb=16";
  variables["UBSAN_OPTIONS"] = "print_stacktrace=1";
  variables["TSAN_OPTIONS"] = "halt_on_error=1:atexit_sleep_ms=0";
  for (const std::string& text : more) {
    add(text);
  }
  std::vector<std::string> environment;
  for (const auto& [name, value] : variables) {
    environment.push_back(name + "=" + value);
  }
  return environment;
}

std::string readAll(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::size_t entriesIn(const std::string& directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

DaemonProcess::~DaemonProcess() {
  if (pid_ != 0) {
    send(SIGKILL);
    wait();
  }
}

void DaemonProcess::start(const Circumstances& circumstances) {
  launch(circumstances);
  // The door to the main loop, and so the last that is opened.
  ASSERT_TRUE(eventually([this] { return FileDescriptor(connectedSocket(controlSocket)) || !isRunning(); }));
}

void DaemonProcess::launch(const Circumstances& circumstances) {
  std::filesystem::create_directories(std::filesystem::path(logFile).parent_path());
  std::vector<std::string> environment = environmentWith(circumstances.environment);
  std::vector<char*> variables;
  for (std::string& variable : environment) {
    variables.push_back(variable.data());
  }
  variables.push_back(nullptr);
  char program[] = KELVANE_DAEMON;
  char* arguments[] = {program, nullptr};
  const FileDescriptor log(open(logFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  const int standardError = circumstances.standardError >= 0 ? circumstances.standardError : log.get();
  const rlimit descriptors{circumstances.descriptors, circumstances.descriptors};

  pid_ = fork();
  ASSERT_GE(pid_, 0);
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(standardError, STDOUT_FILENO);
    dup2(standardError, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    if (descriptors.rlim_cur != RLIM_INFINITY) {
      setrlimit(RLIMIT_NOFILE, &descriptors);
    }
    execve(program, arguments, variables.data());
    _exit(127);
  }
}

bool DaemonProcess::isRunning() {
  if (pid_ != 0 && waitpid(pid_, &status_, WNOHANG) == pid_) {
    pid_ = 0;
  }
  return pid_ != 0;
}

void DaemonProcess::send(int signal) const {
  kill(pid_, signal);
}

void DaemonProcess::limitDescriptors(rlim_t count) const {
  rlimit limit{};
  EXPECT_EQ(prlimit(pid_, RLIMIT_NOFILE, nullptr, &limit), 0);
  limit.rlim_cur = count;
  EXPECT_EQ(prlimit(pid_, RLIMIT_NOFILE, &limit, nullptr), 0);
}

std::string DaemonProcess::wait() {
  if (pid_ != 0) {
    waitpid(std::exchange(pid_, 0), &status_, 0);
  }
  return WIFSIGNALED(status_) ? "signal " + std::to_string(WTERMSIG(status_))
                              : "exit " + std::to_string(WEXITSTATUS(status_));
}

std::string DaemonProcess::log() const {
  return readAll(logFile);
}

std::size_t DaemonProcess::openDescriptors() const {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/fd")) {
    std::error_code closed;
    count += std::filesystem::read_symlink(entry, closed) != "anon_inode:[fanotify]" ? 1 : 0;
  }
  return count;
}

std::size_t DaemonProcess::threads() const {
  return entriesIn("/proc/" + std::to_string(pid_) + "/task");
}

std::size_t DaemonProcess::residentBytes() const {
  std::istringstream sizes(readAll("/proc/" + std::to_string(pid_) + "/statm"));
  std::size_t all = 0;
  std::size_t resident = 0;
  sizes >> all >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace kelvane::test
