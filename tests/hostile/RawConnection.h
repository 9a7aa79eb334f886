// SPDX-License-Identifier: Apache-2.0
// A connection on which any bytes can be sent.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::test {

class RawConnection {
 public:
  /// Only connects.
  RawConnection();
  /// Of another socket.
  explicit RawConnection(FileDescriptor socket) : socket_(std::move(socket)) {}

  /// Whether the daemon has taken it; from then on that expects messages.
  [[nodiscard]] bool shakeHands();
  /// Sends all of it, however long the daemon takes; false when the connection has ended.
  bool send(std::string_view bytes);
  /// Sends what can be sent at once, and gives how much that was; none when the connection has ended.
  [[nodiscard]] std::optional<std::size_t> trySend(std::string_view bytes);
  /// What has arrived; waits for some of it. Empty when the connection has ended.
  std::string receive();
  /// Reads until the other end hangs up; false when it does not in time.
  [[nodiscard]] bool ends();
  int socket() const { return socket_.get(); }
  int release() { return socket_.release(); }
  void close() { socket_ = FileDescriptor(); }

 private:
  [[nodiscard]] bool waitFor(short events) const;

  FileDescriptor socket_;
};

/// Counts the messages in a stream of bytes, which may come in pieces.
class MessageCounter {
 public:
  void take(std::string_view bytes);
  int count() const { return count_; }

 private:
  std::string incomplete_;
  int count_ = 0;
};

}  // namespace kelvane::test
