// SPDX-License-Identifier: Apache-2.0
// Which names may become names of files.
#pragma once

#include <string_view>

#include "platform/Limits.h"

namespace kelvane {

/// Not empty, at most limits::fileNameBytes, not beginning with '.', without '/' and NUL. Names that begin
/// with '.' are left for temporary files.
[[nodiscard]] constexpr bool isFileName(std::string_view name) {
  return !name.empty() && name.size() <= limits::fileNameBytes && name.front() != '.' &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace kelvane
