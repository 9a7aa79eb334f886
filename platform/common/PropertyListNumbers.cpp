// SPDX-License-Identifier: Apache-2.0
// Numbers as XML property lists write them.
#include <charconv>
#include <limits>

#include "platform/common/PropertyListReaders.h"

namespace kelvane::propertyList {
namespace {

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isSpace(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

/// Removes the sign at the start of text, if there is one; true for a minus.
bool takeSign(std::string_view& text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) {
    text.remove_prefix(1);
  }
  return negative;
}

}  // namespace

std::optional<Value> parseInteger(std::string_view text) {
  text = trimmed(text);
  const bool negative = takeSign(text);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) {
    text.remove_prefix(2);
  }
  std::uint64_t magnitude = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, magnitude, hexadecimal ? 16 : 10);
  if (result.ec != std::errc() || result.ptr != end) {
    return std::nullopt;
  }
  constexpr std::uint64_t largestSigned = std::numeric_limits<std::int64_t>::max();
  if (negative) {
    if (magnitude > largestSigned + 1) {
      return std::nullopt;
    }
    return Value(static_cast<std::int64_t>(0 - magnitude));
  }
  return magnitude > largestSigned ? Value(magnitude) : Value(static_cast<std::int64_t>(magnitude));
}

std::optional<double> parseReal(std::string_view text) {
  text = trimmed(text);
  const bool negative = takeSign(text);
  // A second sign would be taken by the conversion.
  if (text.starts_with('-')) {
    return std::nullopt;
  }
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) {
    return std::nullopt;
  }
  return negative ? -number : number;
}

}  // namespace kelvane::propertyList
