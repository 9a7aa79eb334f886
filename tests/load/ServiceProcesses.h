// SPDX-License-Identifier: Apache-2.0
// Services in processes of their own, which are killed and started again.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "platform/linux/runtime/FileDescriptor.h"
#include "tests/load/Ledger.h"

namespace kelvane::test {

inline constexpr char ledgerFile[] = "/run/test/ledger";

/// Keeps a number of services running on a thread of its own. At any time some are being killed, by this or, in the
/// middle of a request, by themselves; but none before its check-in was answered. A service that ends in another way
/// than by SIGKILL fails the test.
class ServiceProcesses {
 public:
  /// Their accounts are the first ones. Each keeps up to so many bytes. The mutex is held while one is being started.
  ServiceProcesses(int count, std::uint64_t capacity, Ledger& ledger, std::mutex& starting);
  /// Lets those that run leave in order.
  ~ServiceProcesses();
  ServiceProcesses(const ServiceProcesses&) = delete;
  ServiceProcesses& operator=(const ServiceProcesses&) = delete;

  static std::string identifier(int number) { return "com.example.process" + std::to_string(number); }
  /// So many times one that served was killed.
  int deaths() const { return deaths_; }

 private:
  struct Process {
    pid_t pid = 0;
    FileDescriptor life;
    FileDescriptor news;
    bool serves = false;
  };

  void run();
  void start(std::size_t number);
  void note(std::size_t number);
  void killOne();
  std::string waitFor(Process& process);

  const std::uint64_t capacity_;
  Ledger& ledger_;
  std::mutex& starting_;
  std::deque<Process> processes_;
  std::minstd_rand random_{7};
  std::atomic<int> deaths_ = 0;
  FileDescriptor wake_;
  std::thread thread_;
};

}  // namespace kelvane::test
