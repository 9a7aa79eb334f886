// SPDX-License-Identifier: Apache-2.0
// A process of another user.
#include "tests/hostile/OtherUser.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace kelvane::test {

OtherUser::OtherUser(const std::function<bool()>& work) {
  int result[2];
  int life[2];
  EXPECT_EQ(pipe(result), 0);
  EXPECT_EQ(pipe(life), 0);
  pid_ = fork();
  EXPECT_GE(pid_, 0);
  if (pid_ == 0) {
    close(life[1]);
    const bool changed = setgroups(0, nullptr) == 0 && setgid(otherUser) == 0 && setuid(otherUser) == 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const char outcome = changed && work() && !testing::Test::HasFailure() ? 1 : 0;
    [[maybe_unused]] const ssize_t told = write(result[1], &outcome, 1);
    char ignored = 0;
    [[maybe_unused]] const ssize_t ended = read(life[0], &ignored, 1);
    _exit(0);
  }
  close(result[1]);
  close(life[0]);
  result_ = FileDescriptor(result[0]);
  life_ = FileDescriptor(life[1]);
}

OtherUser::~OtherUser() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

bool OtherUser::succeeds() {
  char outcome = 0;
  return read(result_.get(), &outcome, 1) == 1 && outcome == 1;
}

}  // namespace kelvane::test
