// SPDX-License-Identifier: Apache-2.0
// What has arrived on a connection and was not made a message yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// Reads a peer's socket and keeps what is not complete. Of descriptors it takes one at a time, and none unless told
/// to. Owned by a link; lives on the event loop's thread.
class PeerInput {
 public:
  enum class Arrival {
    Bytes,
    Nothing,   ///< nothing is there now
    End,       ///< the peer has hung up, or reading failed
    Forbidden  ///< descriptors that are not taken
  };

  void start(int socket, bool takesDescriptors);
  /// Reads once: up to this many bytes.
  Arrival read(std::size_t most);
  /// Whether the last read took all there was, as far as can be told.
  bool isExhausted() const { return isExhausted_; }

  /// What was read and not dropped since.
  std::span<const std::uint8_t> waiting() const { return std::span(bytes_).subspan(start_); }
  std::span<std::uint8_t> waiting() { return std::span(bytes_).subspan(start_); }
  /// The descriptor that came with the first so many waiting bytes, if any did.
  FileDescriptor takeDescriptor(std::size_t bytes);
  void drop(std::size_t bytes);

 private:
  int socket_ = -1;
  bool takesDescriptors_ = false;
  bool isExhausted_ = false;
  std::vector<std::uint8_t> bytes_;
  std::size_t start_ = 0;
  FileDescriptor descriptor_;
  /// Which of bytes_ arrived last with the descriptor. The kernel ends a read there, so it lies in the message that
  /// the descriptor belongs to.
  std::size_t descriptorIndex_ = 0;
};

}  // namespace kelvane::ipc
