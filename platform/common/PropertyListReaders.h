// SPDX-License-Identifier: Apache-2.0
// The readers of the single formats, and what they and the writers share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"

namespace kelvane::propertyList {

/// What a list may come to.
struct Bounds {
  /// Of a binary list's file.
  std::size_t bytes = limits::propertyListBytes;
  std::size_t entries = limits::propertyListEntries;
  std::size_t contentBytes = limits::propertyListContentBytes;
};

/// What a list may still come to. The readers keep to it so that a small file cannot fill the memory (a
/// binary list may refer to one array many times over); the writers, so that what they write can be read.
class Budget {
 public:
  explicit Budget(const Bounds& bounds = {}) : entries_(bounds.entries), contentBytes_(bounds.contentBytes) {}

  /// Takes account of so many more entries of arrays and dictionaries; false when they are too many.
  [[nodiscard]] bool addEntries(std::size_t count) { return take(entries_, count); }
  /// Takes account of so many more bytes of a key, string or data; false when they are too many.
  [[nodiscard]] bool addContent(std::size_t bytes) { return take(contentBytes_, bytes); }

  static constexpr const char* tooManyEntries = "too many entries";
  static constexpr const char* tooMuchContent = "too much content";

 private:
  static bool take(std::size_t& left, std::size_t amount) {
    if (amount > left) {
      return false;
    }
    left -= amount;
    return true;
  }

  std::size_t entries_;
  std::size_t contentBytes_;
};

inline constexpr const char* tooDeep = "nested too deeply";
// What the writers fail with.
inline constexpr const char* tooLarge = "too large";
inline constexpr const char* absentValue = "an absent value";
inline constexpr const char* notUtf8 = "a string that is not UTF-8";

/// bytes may be in any encoding that expat knows, begin with a byte order mark and with white space.
[[nodiscard]] Result readXml(std::string_view bytes);
/// bytes begin with "bplist", else they are refused. The caller has seen to their number.
[[nodiscard]] Result readBinary(std::span<const std::uint8_t> bytes, const Bounds& bounds = {});
/// As writeBinary() does within the bounds of every list.
[[nodiscard]] std::variant<Data, Error> writeBinary(const Value& value, const Bounds& bounds);
/// Text is UTF-8 without a byte order mark.
[[nodiscard]] Result readText(std::string_view text);

/// A decimal or 0x-hexadecimal number with an optional sign, from -2^63 to 2^64-1; white space around it is
/// passed over. Signed unless it is 2^63 or more.
[[nodiscard]] std::optional<Value> parseInteger(std::string_view text);
/// A decimal fraction with an optional exponent, or an infinity or NaN by name; white space around it is
/// passed over. None also when a double cannot come near it.
[[nodiscard]] std::optional<double> parseReal(std::string_view text);

[[nodiscard]] inline bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

}  // namespace kelvane::propertyList
