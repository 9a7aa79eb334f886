// SPDX-License-Identifier: Apache-2.0
// What the message library reads in place of the peers' sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// The library reads as much as there is, more than it should be given yet. So it is given one line or message at a
/// time, over a pair of sockets.
///
/// One pair for all links: what is put in is read, or drained, before another link has its turn. Owned by the hub; for
/// the event loop's thread.
class LibraryInput {
 public:
  LibraryInput();
  LibraryInput(const LibraryInput&) = delete;
  LibraryInput& operator=(const LibraryInput&) = delete;

  /// Another descriptor of the library's end; none when the system refuses.
  FileDescriptor end() const;
  /// Puts in as many of the bytes as fit. How many.
  std::size_t put(std::span<const std::uint8_t> bytes);
  /// Whether the library has read everything.
  bool isEmpty() const;
  void drain();

 private:
  FileDescriptor near_;
  FileDescriptor far_;
};

}  // namespace kelvane::ipc
