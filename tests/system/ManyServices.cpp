// SPDX-License-Identifier: Apache-2.0
// Many services in one process, each with a file to give.
//
//   system_many_services DIRECTORY
//
// Every file in DIRECTORY is a service's, which has its name, offers its space and deletes it when asked for that.
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/KelvaneService.h"

namespace {

/// Gives its file, and nothing more once that is gone.
class OneFile : public kelvane::KelvaneService {
 public:
  explicit OneFile(std::string path)
      : KelvaneService({.identifier = std::filesystem::path(path).filename()}), path_(std::move(path)) {}

 protected:
  std::optional<std::uint64_t> purgeable(const kelvane::SpaceRequest&, const kelvane::Cancellation&) override {
    return size();
  }
  std::uint64_t purge(const kelvane::SpaceRequest&, const kelvane::Cancellation&) override {
    const std::uint64_t bytes = size();
    return std::remove(path_.c_str()) == 0 ? bytes : 0;
  }

 private:
  std::uint64_t size() const {
    struct stat status = {};
    return stat(path_.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_blocks) * 512 : 0;
  }

  const std::string path_;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::jthread> services;
  for (const auto& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : ".")) {
    services.emplace_back([path = entry.path().string()] {
      OneFile service(path);
      if (const auto error = service.run()) {
        std::fprintf(stderr, "%s: %s\n", path.c_str(), error->c_str());
      }
    });
  }
}
