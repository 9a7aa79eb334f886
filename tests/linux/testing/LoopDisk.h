// SPDX-License-Identifier: Apache-2.0
// A disk of a test's own.
#pragma once

#include <cstddef>
#include <string>

namespace kelvane::test {

/// Makes an ext4 in a file.
[[nodiscard]] bool makeDisk(const std::string& image, std::size_t bytes);
/// Mounts it, by way of a loop device that goes with the mount; false where the system has none, or has them for others
/// only.
[[nodiscard]] bool mountDisk(const std::string& image, const std::string& directory);

/// Takes every block of the directory's file system, also those that are kept for root, with a file of this name.
void fillDisk(const std::string& directory, const std::string& file);
/// What a mounted ext4 has not been told to flush is lost, as when the power fails, and nothing can be written to it
/// any more. It is as it was then when it is mounted again.
[[nodiscard]] bool losePower(const std::string& directory);

}  // namespace kelvane::test
