// SPDX-License-Identifier: Apache-2.0
// The volume that a person named on the command line.
#include "tools/kelvanectl/VolumeArgument.h"

#include <fmt/core.h>

#include <filesystem>
#include <system_error>

#include "platform/Volumes.h"

namespace kelvane::ctl {

std::variant<std::string, VolumeError> resolveVolume(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  if (error) {
    return VolumeError{fmt::format("no such volume: {}: {}", path, error.message())};
  }
  if (volumes::isUsable(real.string())) {
    return real.string();
  }
  for (fs::path above = real; above != above.root_path();) {
    above = above.parent_path();
    if (volumes::isUsable(above.string())) {
      return VolumeError{fmt::format(
          "no such volume: {} is not a mount point of a writable, local file system; the one above it is {}",
          real.string(), above.string())};
    }
  }
  return VolumeError{
      fmt::format("no such volume: {} is not a mount point of a writable, local file system", real.string())};
}

}  // namespace kelvane::ctl
