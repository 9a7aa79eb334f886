// SPDX-License-Identifier: Apache-2.0
// Runs the tests in a sandbox: they use the daemon's true paths and mount what they like.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

int main(int count, char** arguments) {
  if (std::getenv("KELVANE_SANDBOX") == nullptr) {
    char sandbox[] = KELVANE_SANDBOX_SCRIPT;
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<char*> command = {sandbox, self.data()};
    // With the null pointer at their end.
    command.insert(command.end(), arguments + 1, arguments + count + 1);
    execv(sandbox, command.data());
    std::perror(sandbox);
    return EXIT_FAILURE;
  }
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
