// SPDX-License-Identifier: Apache-2.0
// What commands say, and whether it got out.
#include "tools/kelvanectl/CommandOutput.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/Printable.h"
#include "tools/kelvanectl/TableRow.h"

namespace kelvane::ctl {
namespace {

/// Of the first write that failed; 0 while none has.
int writeError = 0;

void note(bool isWritten) {
  if (!isWritten && writeError == 0) {
    writeError = errno;
  }
}

}  // namespace

int outputWidth() {
  winsize size{};
  const bool isTerminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return isTerminal ? size.ws_col : unlimitedWidth;
}

void print(const std::string& text) {
  note(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void printNow(const std::string& text) {
  print(text);
  note(std::fflush(stdout) == 0);
}

void printError(const std::string& text, std::string_view spared) {
  if (!text.empty()) {
    const std::string line = "kelvanectl: " + printable(text, spared) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
}

ExitStatus reportFailure(const RequestFailure& failure) {
  printError(failureText(failure));
  return exitStatusOf(failure.ending);
}

ExitStatus finishOutput(ExitStatus status) {
  note(std::fflush(stdout) == 0);
  if (writeError == 0) {
    return status;
  }
  printError(std::string("cannot write to standard output: ") + std::strerror(writeError));
  return status == ExitStatus::Done ? ExitStatus::Unwritten : status;
}

}  // namespace kelvane::ctl
