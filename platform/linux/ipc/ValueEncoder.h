// SPDX-License-Identifier: Apache-2.0
// Writes property-list values into D-Bus messages.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace kelvane::ipc {

/// The string as D-Bus can carry it: bytes that are no valid UTF-8, and NULs, become U+FFFD.
std::string wireText(std::string_view text);

/// Appends values to a message that is being made. Lives on the event loop's thread.
///
/// Whatever was decoded from a message can be written. What lies deeper than D-Bus allows is written as
/// absent; strings are written as wireText() has them.
class ValueEncoder {
 public:
  explicit ValueEncoder(sd_bus_message* message) : message_(message) {}

  /// As a variant. False when the library refuses, for want of memory or because the message is too long.
  [[nodiscard]] bool appendVariant(const Value& value);
  /// As a{sv}; empty when the value is no dictionary.
  [[nodiscard]] bool appendDictionary(const Value& value);
  [[nodiscard]] bool appendString(const std::string& string);

  /// About how many bytes what was appended takes on the wire.
  std::size_t bytes() const { return bytes_; }

 private:
  bool appendContents(const Value& value);
  bool appendNumber(const Value& value);
  bool appendEntries(const Value::Dictionary& entries);
  bool appendBasic(char type, const void* value, std::size_t size);
  bool open(char type, const char* contents);
  bool close();

  sd_bus_message* const message_;
  std::size_t bytes_ = 0;
  int depth_ = 0;
};

}  // namespace kelvane::ipc
