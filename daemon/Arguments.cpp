// SPDX-License-Identifier: Apache-2.0
// What the daemon was called with.
#include "daemon/Arguments.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/Printable.h"

namespace kelvane {

namespace {

constexpr int failed = 1;
constexpr int wrongArguments = 2;

constexpr char usage[] = "Usage: kelvaned [--help | --version]\n";
constexpr char help[] =
    "\n"
    "Brokers disk space: has services free what they can do without, when a client asks or a volume runs low.\n"
    "It takes no other arguments and runs until SIGTERM; systemd starts it, and kelvanectl speaks to it.\n"
    "\n"
    "Examples:\n"
    "  systemctl enable --now kelvaned.socket kelvaned-control.socket kelvaned.service\n"
    "      have systemd run it\n"
    "  kelvaned\n"
    "      run it by hand, as root, with the log in the terminal\n"
    "\n"
    "Exit status:\n"
    "  0  ended by SIGTERM; or help or version were shown\n"
    "  1  it cannot listen on its name, or another runs; or help or version could not be written\n"
    "  2  unknown arguments\n"
    "\n"
    "See kelvaned(8), kelvanectl(1), kelvaned.plist(5).\n";

int show(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    std::fprintf(stderr, "kelvaned: cannot write to standard output: %s\n", std::strerror(errno));
    return failed;
  }
  return 0;
}

}  // namespace

std::optional<int> answerArguments(int argc, const char* const* argv) {
  if (argc <= 1) {
    return std::nullopt;
  }
  const std::string_view first = argv[1];
  if (argc == 2 && (first == "--help" || first == "-h")) {
    return show(std::string(usage) + help);
  }
  if (argc == 2 && first == "--version") {
    return show("kelvaned " KELVANE_VERSION "\n");
  }
  const std::string_view unknown = first == "--help" || first == "-h" || first == "--version" ? argv[2] : first;
  std::fprintf(stderr, "kelvaned: unknown argument '%s'\n%s", printable(unknown).c_str(), usage);
  return wrongArguments;
}

}  // namespace kelvane
