// SPDX-License-Identifier: Apache-2.0
// The calls that the durability of preferences hangs on.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

#include "platform/linux/runtime/FileAccess.h"

namespace kelvane {

/// What a store asks of the system about its slots' contents. Each call behaves as the one that it is by itself;
/// tests put others in their place.
struct DiskCalls {
  ssize_t (*read)(int file, void* bytes, std::size_t count, off_t offset) = pread;
  WriteCall write = pwrite;
  FlushCall flush = fdatasync;
  FlushCall flushDirectory = fsync;
};

}  // namespace kelvane
