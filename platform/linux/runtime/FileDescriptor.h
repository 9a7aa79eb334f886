// SPDX-License-Identifier: Apache-2.0
// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace kelvane {

/// Owns one descriptor, or none (-1), and closes it. Moves, but does not copy.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    FileDescriptor previous(std::exchange(descriptor_, other.release()));
    return *this;
  }
  ~FileDescriptor() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }

  int get() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }
  explicit operator bool() const { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
};

}  // namespace kelvane
