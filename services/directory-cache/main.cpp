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
#include "platform/Process.h"
#include "services/directory-cache/Check.h"
#include "services/directory-cache/Configuration.h"
#include "services/directory-cache/DirectoryCache.h"
#include "services/directory-cache/Ending.h"
#include "services/directory-cache/ProcessUser.h"

namespace {

int fail(const std::string& text, int status) {
  std::cerr << "kelvane-directory-cache: " << text << '\n';
  return status;
}

void endProcess(int) {
  kelvane::directoryCache::ending::request();
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kelvane::directoryCache;
  CLI::App app("Gives files that have not been used for a while back when a volume runs out of space.",
               "kelvane-directory-cache");
  std::string path;
  bool checks = false;
  app.add_option("configuration", path, "The property list that says which files")->required();
  app.add_flag("--check", checks, "Say what the configuration comes to on this machine, and end");
  CLI11_PARSE(app, argc, argv);

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
    return checkDirectories(good, now, std::cout) ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  kelvane::installTerminationHandler(&endProcess);
  DirectoryCache cache(std::move(good));
  if (const auto error = cache.run()) {
    return fail(*error, EXIT_FAILURE);
  }
  return EXIT_SUCCESS;
}
