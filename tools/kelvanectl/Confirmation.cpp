// SPDX-License-Identifier: Apache-2.0
// A question to whoever sits at the terminal.
#include "tools/kelvanectl/Confirmation.h"

#include <fmt/core.h>
#include <poll.h>
#include <unistd.h>

#include <array>

#include "tools/kelvanectl/Interruption.h"

namespace kelvane::ctl {

bool isSomebodyThere() {
  return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

Consent askFor(const std::string& question, const Interruption& interruption) {
  fmt::print(stderr, "{} [y/N] ", question);
  std::array<pollfd, 2> events = {pollfd{STDIN_FILENO, POLLIN, 0}, pollfd{interruption.descriptor(), POLLIN, 0}};
  poll(events.data(), events.size(), -1);
  if (events[1].revents != 0) {
    fmt::print(stderr, "\n");
    return Consent::Interrupted;
  }
  // A terminal hands out lines.
  std::array<char, 256> line{};
  const ssize_t count = read(STDIN_FILENO, line.data(), line.size());
  std::string answer(line.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
  if (!answer.ends_with('\n')) {
    fmt::print(stderr, "\n");
  }
  answer.erase(answer.find_last_not_of(" \r\n") + 1);
  return answer == "y" || answer == "Y" || answer == "yes" ? Consent::Given : Consent::Withheld;
}

}  // namespace kelvane::ctl
