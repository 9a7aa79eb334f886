// SPDX-License-Identifier: Apache-2.0
// The file system that these tests see: their own, wherever they write.
#pragma once

#include <string>
#include <string_view>

namespace kelvane::test {

/// The test program runs in a mount namespace of its own with an empty tmpfs of a few hundred megabytes on
/// /run, /var/lib, /etc/kelvane's parent and /mnt, so tests use the true paths and may mount at will.

/// Whether the program has the rights of root outside its namespace too, which loop devices need.
[[nodiscard]] bool isTrulyRoot();
/// Makes the directory, with those above it, and mounts a tmpfs of this size on it.
void mountTmpfs(const std::string& directory, const std::string& options);
void writeFile(const std::string& path, std::string_view contents);
[[nodiscard]] std::string readFile(const std::string& path);

}  // namespace kelvane::test
