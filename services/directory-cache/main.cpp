// SPDX-License-Identifier: Apache-2.0
// kelvane-directory-cache: lets the daemon delete old files of some directories.
#include <sysexits.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <utility>
#include <variant>

#include "platform/Clock.h"
#include "platform/Printable.h"
#include "platform/Process.h"
#include "services/directory-cache/Check.h"
#include "services/directory-cache/Configuration.h"
#include "services/directory-cache/DirectoryCache.h"
#include "services/directory-cache/Ending.h"
#include "services/directory-cache/ProcessUser.h"

namespace {

constexpr int wrongCommandLine = 2;

constexpr char footer[] =
    "Examples:\n"
    "  kelvane-directory-cache --check /etc/kelvane/directory-cache/com.example.thumbnails.plist\n"
    "      what a configuration comes to, without deleting anything\n"
    "  systemctl enable --now kelvane-directory-cache@com.example.thumbnails.service\n"
    "      serve by that configuration\n"
    "\n"
    "Exit status:\n"
    "  0   ended by SIGTERM; with --check, all directories are looked after or just locked\n"
    "  1   it cannot serve; with --check, a directory is left, or what there was to say could not be written\n"
    "  2   the command line is wrong\n"
    "  78  the configuration is wrong\n"
    "\n"
    "See kelvane-directory-cache(8).";

int fail(const std::string& text, int status) {
  std::cerr << "kelvane-directory-cache: " << kelvane::printable(text, "\n") << '\n';
  return status;
}

/// Whether standard output took what there was to say.
int finish(int status) {
  std::cout.flush();
  return std::cout ? status : fail("cannot write to standard output", EXIT_FAILURE);
}

void endProcess(int) {
  kelvane::directoryCache::ending::request();
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kelvane::directoryCache;
  kelvane::holdStandardDescriptors();
  kelvane::outliveFileSizeLimit();
  CLI::App app("Gives files that have not been used for a while back when a volume runs out of space.",
               "kelvane-directory-cache");
  std::string path;
  bool checks = false;
  app.set_version_flag("--version", "kelvane-directory-cache " KELVANE_VERSION);
  app.footer(footer);
  app.add_option("CONFIGURATION", path, "The property list that says which files")->required();
  app.add_flag("--check", checks, "Say what the configuration comes to on this machine, and end");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return finish(app.exit(error));
    }
    return fail(error.what() + std::string("\nSee kelvane-directory-cache --help."), wrongCommandLine);
  }

  auto configuration = readConfigurationFile(path);
  if (const auto* error = std::get_if<ConfigurationError>(&configuration)) {
    return fail(error->text, EX_CONFIG);
  }
  auto& good = std::get<Configuration>(configuration);
  if (const auto error = runAsUser(good.user)) {
    return fail(path + ": " + *error, EX_CONFIG);
  }
  if (checks) {
    const auto now = static_cast<std::int64_t>(kelvane::clock::now().secondsSince1970);
    return finish(checkDirectories(good, now, std::cout) ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  kelvane::installTerminationHandler(&endProcess);
  DirectoryCache cache(std::move(good));
  if (const auto error = cache.run()) {
    return fail(*error, EXIT_FAILURE);
  }
  return EXIT_SUCCESS;
}
