// SPDX-License-Identifier: Apache-2.0
// Decoding, checking and making UTF-8.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kelvane::utf8 {

/// Removes the first code point of a text that is not empty and returns it; where no valid UTF-8 begins,
/// removes one byte and returns none. Surrogates, over-long forms and what lies past U+10FFFF are invalid.
[[nodiscard]] std::optional<char32_t> take(std::string_view& text);

/// How many bytes at the start of text are valid UTF-8: all of it when that is text.size().
[[nodiscard]] std::size_t validPrefix(std::string_view text);
[[nodiscard]] inline bool isValid(std::string_view text) {
  return validPrefix(text) == text.size();
}

/// codePoint must be a valid one, no surrogate.
void append(std::string& text, char32_t codePoint);

[[nodiscard]] inline bool isHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
[[nodiscard]] inline bool isLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}
[[nodiscard]] inline char32_t joinSurrogates(char32_t high, char32_t low) {
  return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

}  // namespace kelvane::utf8
