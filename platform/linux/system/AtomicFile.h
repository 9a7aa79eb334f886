// SPDX-License-Identifier: Apache-2.0
// Small files in /run that others read at any time.
#pragma once

#include <string>
#include <string_view>

namespace kelvane {

/// Gives the file this contents so that a reader sees the old or the new, whole, and a watcher of the
/// directory sees one move onto the name. Makes the directory, and the one above it, when
/// they are missing. World-readable. Not made durable. 0, or -1 with errno set and the file as it was.
[[nodiscard]] int replaceFile(const std::string& directory, const std::string& name, std::string_view contents);

}  // namespace kelvane
