// SPDX-License-Identifier: Apache-2.0
// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace kelvane::directoryCache {

/// Closes its descriptor at its end. Not valid when the system gave none, with the reason in errno.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() {
    if (isValid()) {
      ::close(number_);
    }
  }

  bool isValid() const { return number_ >= 0; }
  int number() const { return number_; }
  int release() { return std::exchange(number_, -1); }

 private:
  int number_ = -1;
};

}  // namespace kelvane::directoryCache
