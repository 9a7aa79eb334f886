// SPDX-License-Identifier: Apache-2.0
// Services in processes of their own, which are killed and started again.
#include "tests/load/ServiceProcesses.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "tests/hostile/HostileTest.h"

namespace kelvane::test {

namespace {

/// Between two kills, on average. A sanitizer makes the start of a process slow.
constexpr int pauseMilliseconds = sanitizers.empty() ? 100 : 500;

/// The reading and the writing end.
std::array<FileDescriptor, 2> makePipe() {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

}  // namespace

ServiceProcesses::ServiceProcesses(int count, std::uint64_t capacity, Ledger& ledger, std::mutex& starting)
    : capacity_(capacity),
      ledger_(ledger),
      starting_(starting),
      processes_(static_cast<std::size_t>(count)),
      wake_(eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { run(); });
}

ServiceProcesses::~ServiceProcesses() {
  eventfd_write(wake_.get(), 1);
  thread_.join();
  for (Process& process : processes_) {
    process.life = FileDescriptor();
    const std::string end = waitFor(process);
    EXPECT_TRUE(end == "exit 0" || end == "signal 9") << end;
  }
}

void ServiceProcesses::run() {
  for (std::size_t number = 0; number < processes_.size(); ++number) {
    start(number);
  }
  for (;;) {
    std::vector<pollfd> states = {{wake_.get(), POLLIN, 0}};
    for (const Process& process : processes_) {
      states.push_back({process.news.get(), POLLIN, 0});
    }
    if (poll(states.data(), states.size(), static_cast<int>(random_() % (2 * pauseMilliseconds))) == 0) {
      killOne();
    }
    if (states[0].revents != 0) {
      return;
    }
    for (std::size_t number = 0; number < processes_.size(); ++number) {
      if (states[number + 1].revents != 0) {
        note(number);
      }
    }
  }
}

void ServiceProcesses::start(std::size_t number) {
  Process& process = processes_[number];
  auto [input, life] = makePipe();
  auto [news, output] = makePipe();
  std::vector<std::string> words = {KELVANE_LOAD_SERVICE, identifier(static_cast<int>(number)),
                                    std::to_string(capacity_), std::to_string(number), std::to_string(random_())};
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.get(), STDOUT_FILENO);
  {
    const std::lock_guard lock(starting_);
    EXPECT_EQ(posix_spawn(&process.pid, arguments[0], &actions, nullptr, arguments.data(), environ), 0);
  }
  posix_spawn_file_actions_destroy(&actions);
  process.life = std::move(life);
  process.news = std::move(news);
  process.serves = false;
}

/// It serves now, or is dead and begins anew.
void ServiceProcesses::note(std::size_t number) {
  Process& process = processes_[number];
  char news = 0;
  if (read(process.news.get(), &news, 1) == 1) {
    process.serves = true;
    return;
  }
  EXPECT_EQ(waitFor(process), "signal 9") << identifier(static_cast<int>(number));
  EXPECT_TRUE(process.serves);
  ledger_.settle(number);
  ++deaths_;
  start(number);
}

void ServiceProcesses::killOne() {
  const Process& process = processes_[random_() % processes_.size()];
  if (process.serves) {
    kill(process.pid, SIGKILL);
  }
}

std::string ServiceProcesses::waitFor(Process& process) {
  int status = 0;
  EXPECT_EQ(waitpid(std::exchange(process.pid, 0), &status, 0) < 0, false);
  return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                             : "exit " + std::to_string(WEXITSTATUS(status));
}

}  // namespace kelvane::test
