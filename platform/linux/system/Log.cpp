// SPDX-License-Identifier: Apache-2.0
// The log: the journal with structured fields when it is there, else standard error.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include "platform/Reporting.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/system/LogText.h"
#include "platform/linux/system/Paths.h"

namespace kelvane::reporting {

namespace {

int priority(std::int32_t level) {
  if (level <= 3) {
    return LOG_WARNING;
  }
  return level == 4 ? LOG_INFO : LOG_DEBUG;
}

/// Somebody who runs the program by hand wants to see its messages in the terminal; a service manager that
/// reads standard error into the journal says so in the environment.
bool isWatchedInTerminal() {
  return std::getenv("JOURNAL_STREAM") == nullptr && isatty(STDERR_FILENO) == 1;
}

/// False when the journal did not take the message.
bool writeToJournal(std::int32_t level, std::string_view category, std::string_view function,
                    const std::string& message) {
  // The library takes a missing socket for success, as if nobody needed the message.
  if (isWatchedInTerminal() || access(paths::journalSocket, F_OK) != 0) {
    return false;
  }
  const std::array<std::string, 6> fields = {
      "MESSAGE=" + message,
      "PRIORITY=" + std::to_string(priority(level)),
      std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name,
      "KELVANE_CATEGORY=" + singleLine(category),
      "KELVANE_LEVEL=" + std::to_string(level),
      "CODE_FUNC=" + singleLine(function),
  };
  std::array<iovec, fields.size()> parts;
  for (std::size_t index = 0; index < fields.size(); ++index) {
    parts[index] = {const_cast<char*>(fields[index].data()), fields[index].size()};
  }
  return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0;
}

/// While it lives, this thread's writes to a pipe that nobody reads fail and do not end the process.
class PipeSignalHeldOff {
 public:
  PipeSignalHeldOff() {
    sigemptyset(&pipeSignal_);
    sigaddset(&pipeSignal_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal_, &before_);
  }
  ~PipeSignalHeldOff() {
    if (sigismember(&before_, SIGPIPE) == 0) {
      const timespec atOnce = {};
      sigtimedwait(&pipeSignal_, nullptr, &atOnce);
      pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
  }
  PipeSignalHeldOff(const PipeSignalHeldOff&) = delete;
  PipeSignalHeldOff& operator=(const PipeSignalHeldOff&) = delete;

 private:
  sigset_t pipeSignal_;
  sigset_t before_;
};

void writeToStandardError(const std::string& message) {
  const PipeSignalHeldOff heldOff;
  const std::string line =
      std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "]: " + message + "\n";
  // One write keeps the lines of several threads apart; only a pipe that is nearly full splits it.
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t count = write(STDERR_FILENO, rest.data(), rest.size());
    if (count < 0 && errno != EINTR) {
      return;
    }
    rest.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  }
}

}  // namespace

void writeLog(std::int32_t level, std::string_view category, std::string_view function, std::string_view message) {
  const runtime::BlockedScope blocked;
  const std::string line = singleLine(message);
  if (!writeToJournal(level, category, function, line)) {
    writeToStandardError(line);
  }
}

}  // namespace kelvane::reporting
