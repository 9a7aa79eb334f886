// SPDX-License-Identifier: Apache-2.0
// What the message library reads in place of the peers' sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/linux/system/FileDescriptor.h"

namespace kelvane::ipc {

/// The library reads as much as there is, and loses descriptors for good that come with a message it drops. So it is
/// given one line or message at a time, with the descriptors that belong to it, over a pair of sockets.
///
/// One pair for all links: what is put in is read, or drained, before another link has its turn. One per process,
/// for the event loop's thread.
class LibraryInput {
 public:
  static LibraryInput& shared();
  LibraryInput(const LibraryInput&) = delete;
  LibraryInput& operator=(const LibraryInput&) = delete;

  /// Another descriptor of the library's end; none when the system refuses.
  FileDescriptor end() const;
  /// Puts in as many of the bytes as fit, the first with the descriptor unless that is negative. How many.
  std::size_t put(std::span<const std::uint8_t> bytes, int descriptor);
  /// Whether the library has read everything.
  bool isEmpty() const;
  void drain();

 private:
  LibraryInput();

  FileDescriptor near_;
  FileDescriptor far_;
};

}  // namespace kelvane::ipc
