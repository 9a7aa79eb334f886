// SPDX-License-Identifier: Apache-2.0
// Messages made by hand, and so free to be wrong.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tests/linux/testing/BusMessage.h"

namespace kelvane::test {

/// Lays out a message's bytes in little-endian order.
class WireBytes {
 public:
  void align(std::size_t boundary) { bytes_.resize((bytes_.size() + boundary - 1) / boundary * boundary); }
  void byte(std::uint8_t value) { bytes_.push_back(static_cast<char>(value)); }
  void number(std::uint32_t value);
  void string(std::string_view text);
  void signature(std::string_view text);
  void append(std::string_view bytes) { bytes_ += bytes; }
  const std::string& bytes() const { return bytes_; }
  std::size_t size() const { return bytes_.size(); }

 private:
  std::string bytes_;
};

/// A call of the daemon.
struct WireCall {
  std::string member = "clientCancelPurge";
  std::string signature = "a{sv}";
  /// An empty dictionary.
  std::string body = std::string(8, '\0');
  std::uint32_t serial = 1;
  bool expectsReply = true;
  /// How many descriptors the message says come with it.
  std::uint32_t descriptors = 0;
  /// How long it says the body is, where that is not the truth.
  std::optional<std::uint32_t> declaredBodyBytes = {};

  std::string bytes() const;
};

/// A service's answer to the call with this serial: that it freed one byte.
std::string answerTo(std::uint32_t serial);
std::string answerTo(const Message& call);

}  // namespace kelvane::test
