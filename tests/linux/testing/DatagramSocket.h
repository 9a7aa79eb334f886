// SPDX-License-Identifier: Apache-2.0
// The receiving end of what the process sends its service manager and the journal.
#pragma once

#include <string>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::test {

/// A datagram socket at a path, whose directories it makes.
class DatagramSocket {
 public:
  explicit DatagramSocket(std::string path);
  ~DatagramSocket();

  /// The next datagram; empty when none came within the time.
  [[nodiscard]] std::string receive(int milliseconds = 30'000) const;
  /// As receive(), but of those that begin so.
  [[nodiscard]] std::string receiveBeginningWith(const std::string& prefix) const;

 private:
  std::string path_;
  FileDescriptor socket_;
};

}  // namespace kelvane::test
