// SPDX-License-Identifier: Apache-2.0
// Decoding, checking and making UTF-8.
#include "platform/common/Utf8.h"

namespace kelvane::utf8 {
namespace {

/// The length of the sequence that lead begins, and the least code point that needs so many bytes; length 0
/// when lead begins none.
struct Form {
  std::size_t length;
  char32_t leadBits;
  char32_t least;
};

Form formOf(unsigned char lead) {
  if (lead < 0x80) {
    return {1, 0x7F, 0};
  }
  if ((lead & 0xE0) == 0xC0) {
    return {2, 0x1F, 0x80};
  }
  if ((lead & 0xF0) == 0xE0) {
    return {3, 0x0F, 0x800};
  }
  if ((lead & 0xF8) == 0xF0) {
    return {4, 0x07, 0x10000};
  }
  return {0, 0, 0};
}

}  // namespace

std::optional<char32_t> take(std::string_view& text) {
  const auto lead = static_cast<unsigned char>(text.front());
  const Form form = formOf(lead);
  if (form.length == 0 || text.size() < form.length) {
    text.remove_prefix(1);
    return std::nullopt;
  }
  char32_t codePoint = lead & form.leadBits;
  bool valid = true;
  for (const char c : text.substr(1, form.length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    valid = valid && (byte & 0xC0) == 0x80;
    codePoint = codePoint << 6 | (byte & 0x3Fu);
  }
  const bool surrogate = isHighSurrogate(codePoint) || isLowSurrogate(codePoint);
  if (!valid || surrogate || codePoint < form.least || codePoint > 0x10FFFF) {
    text.remove_prefix(1);
    return std::nullopt;
  }
  text.remove_prefix(form.length);
  return codePoint;
}

std::size_t validPrefix(std::string_view text) {
  const std::size_t size = text.size();
  while (!text.empty()) {
    if (static_cast<unsigned char>(text.front()) < 0x80) {
      text.remove_prefix(1);
      continue;
    }
    const std::size_t position = size - text.size();
    if (!take(text)) {
      return position;
    }
  }
  return size;
}

void append(std::string& text, char32_t codePoint) {
  const auto continuation = [&](int shift) { text += static_cast<char>(0x80 | (codePoint >> shift & 0x3F)); };
  if (codePoint < 0x80) {
    text += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    text += static_cast<char>(0xC0 | codePoint >> 6);
    continuation(0);
  } else if (codePoint < 0x10000) {
    text += static_cast<char>(0xE0 | codePoint >> 12);
    continuation(6);
    continuation(0);
  } else {
    text += static_cast<char>(0xF0 | codePoint >> 18);
    continuation(12);
    continuation(6);
    continuation(0);
  }
}

}  // namespace kelvane::utf8
