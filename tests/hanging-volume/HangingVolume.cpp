// SPDX-License-Identifier: Apache-2.0
// A volume that hangs when a test wants it to.
#include "tests/hanging-volume/HangingVolume.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace kelvane::test {

HangingVolume::HangingVolume(const std::string& directory) : directory_(directory) {
  std::filesystem::create_directories(directory);
  std::array<int, 2> input = {-1, -1};
  std::array<int, 2> output = {-1, -1};
  if (pipe2(input.data(), O_CLOEXEC) != 0 || pipe2(output.data(), O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2: errno " << errno;
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  std::string program = KELVANE_HANGING_VOLUME;
  std::array<char*, 3> arguments = {program.data(), directory_.data(), nullptr};
  EXPECT_EQ(posix_spawn(&process_, program.c_str(), &actions, nullptr, arguments.data(), environ), 0) << program;
  posix_spawn_file_actions_destroy(&actions);
  close(input[0]);
  close(output[1]);
  commands_.reset(fdopen(input[1], "w"));
  answers_.reset(fdopen(output[0], "r"));
  const std::string mounted = answer();
  EXPECT_EQ(mounted, "ok") << directory;
}

HangingVolume::~HangingVolume() {
  commands_.reset();
  if (process_ > 0) {
    int status = 0;
    EXPECT_EQ(waitpid(process_, &status, 0), process_);
    EXPECT_EQ(status, 0) << directory_;
  }
}

std::string HangingVolume::tell(const std::string& command) {
  std::fputs((command + "\n").c_str(), commands_.get());
  std::fflush(commands_.get());
  const std::string answered = answer();
  EXPECT_EQ(answered.substr(0, 2), "ok") << command << ": " << answered;
  return answered;
}

std::size_t HangingVolume::number(const std::string& question) {
  const std::string answered = tell(question);
  return answered.size() < 4 ? 0 : std::strtoul(answered.c_str() + 3, nullptr, 10);
}

std::string HangingVolume::answer() {
  std::array<char, 4096> line = {};
  if (std::fgets(line.data(), line.size(), answers_.get()) == nullptr) {
    return "it has ended";
  }
  std::string text(line.data());
  return text.substr(0, text.find('\n'));
}

}  // namespace kelvane::test
