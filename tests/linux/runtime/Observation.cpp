// SPDX-License-Identifier: Apache-2.0
// What the runtime's tests see of the process from outside.
#include "tests/linux/runtime/Observation.h"

#include <sys/syscall.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace kelvane::test {

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::vector<std::string> threadsNamed(const std::string& name) {
  std::vector<std::string> threads;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string threadName;
    // A thread may have ended since it was listed; then nothing is read.
    std::getline(std::ifstream(task.path() / "comm"), threadName);
    if (threadName == name)
      threads.push_back(task.path().filename());
  }
  return threads;
}

bool sleepsWithoutLimit(const std::string& thread) {
  long call = 0;
  std::string address, operation, value, timeout;
  std::ifstream("/proc/self/task/" + thread + "/syscall") >> call >> address >> operation >> value >> timeout;
  return call == SYS_futex && timeout == "0x0";
}

}  // namespace kelvane::test
