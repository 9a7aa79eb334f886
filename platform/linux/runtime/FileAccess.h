// SPDX-License-Identifier: Apache-2.0
// Whole writes, and directories with those above them.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

#include "platform/Result.h"

namespace kelvane {

using WriteCall = ssize_t (*)(int file, const void* bytes, std::size_t count, off_t offset);
/// Makes a file, or a directory's entries, durable: 0, or -1 with errno set.
using FlushCall = int (*)(int file);

/// Writes all of the bytes, from that place in the file on. After a failure any part of them may be there. The name is
/// for the failure's text.
Result<> writeAll(int file, std::string_view name, std::span<const std::uint8_t> bytes, off_t offset,
                  WriteCall write = pwrite);

/// Makes what is missing of a path of directories. The last one gets this mode, those above it 0755, whatever the
/// process's mask; one that is there stays as it is.
Result<> makeDirectories(const std::filesystem::path& path, mode_t mode = 0755);
/// Makes the directories of an absolute path durable, each as an entry of the one above it, as far as their file system
/// goes; whoever made them need not have lived to do so.
Result<> flushDirectoriesAbove(std::filesystem::path path, FlushCall flush);

}  // namespace kelvane
