// SPDX-License-Identifier: Apache-2.0
// A volume that hangs on command.
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>

#include "tests/hanging-volume/Commands.h"
#include "tests/hanging-volume/FuseMount.h"
#include "tests/hanging-volume/HangingFileSystem.h"

namespace kelvane::test {

namespace {

void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

/// Runs the whole lines of what has been read so far, up to one that has to wait.
void runLines(std::string& input, Commands& commands) {
  for (std::size_t end = input.find('\n'); end != std::string::npos && !commands.isLate(); end = input.find('\n')) {
    const std::optional<std::string> answer = commands.run(input.substr(0, end));
    input.erase(0, end + 1);
    if (answer) {
      say(*answer);
    }
  }
}

/// Until the end of input, or until it has been unmounted.
void serve(FuseMount& mount) {
  HangingFileSystem files(mount);
  Commands commands(files);
  std::string input;
  std::array<pollfd, 2> descriptors = {pollfd{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                                       pollfd{.fd = mount.descriptor(), .events = POLLIN, .revents = 0}};
  while (mount.isMounted() && poll(descriptors.data(), descriptors.size(), -1) > 0) {
    if (descriptors[1].revents != 0) {
      if (const auto request = mount.receive()) {
        files.handle(*request);
      }
      if (const auto answer = commands.late()) {
        say(*answer);
      }
    }
    if (descriptors[0].revents != 0) {
      std::array<char, 4096> text;
      const ssize_t length = read(STDIN_FILENO, text.data(), text.size());
      if (length <= 0) {
        return;
      }
      input.append(text.data(), static_cast<std::size_t>(length));
    }
    runLines(input, commands);
  }
}

/// The process that answers. It ends with its parent at the latest.
int answer(const std::string& directory) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  FuseMount mount;
  if (const std::string error = mount.mount(directory); !error.empty()) {
    say("error: " + error);
    return 1;
  }
  say("ok");
  serve(mount);
  return 0;
}

/// The process that unmounts when nobody answers any more.
int run(const std::string& directory) {
  const pid_t answering = fork();
  if (answering == 0) {
    _exit(answer(directory));
  }
  int status = -1;
  waitpid(answering, &status, 0);
  if (status == 0) {
    // Somebody else may have done so.
    umount2(directory.c_str(), MNT_DETACH);
  }
  return status == 0 ? 0 : 1;
}

}  // namespace

}  // namespace kelvane::test

int main(int count, char** arguments) {
  if (count != 2 || arguments[1][0] == '-') {
    std::fputs(kelvane::test::commandHelp, stderr);
    return 2;
  }
  return kelvane::test::run(arguments[1]);
}
