// SPDX-License-Identifier: Apache-2.0
// The volume that a person named on the command line.
#include "tools/kelvanectl/VolumeArgument.h"

#include <fmt/core.h>

#include <filesystem>
#include <system_error>

#include "platform/Files.h"
#include "platform/Volumes.h"

namespace kelvane::ctl {

std::variant<std::string, VolumeError> resolveVolume(const std::string& path) {
  const auto real = files::realPath(path);
  if (!real) {
    return VolumeError{
        fmt::format("no such volume: {}: {}", path, std::generic_category().message(real.failure().number))};
  }
  if (volumes::isUsable(*real)) {
    return *real;
  }
  for (std::filesystem::path above = *real; above != above.root_path();) {
    above = above.parent_path();
    if (volumes::isUsable(above.string())) {
      return VolumeError{fmt::format(
          "no such volume: {} is not a mount point of a writable, local file system; the one above it is {}", *real,
          above.string())};
    }
  }
  return VolumeError{fmt::format("no such volume: {} is not a mount point of a writable, local file system", *real)};
}

}  // namespace kelvane::ctl
