// SPDX-License-Identifier: Apache-2.0
// Texts of others' making, for a terminal or a log.
#include "platform/Printable.h"

#include <array>
#include <charconv>

#include "platform/common/Utf8.h"

namespace kelvane {
namespace {

bool isObeyed(char32_t codePoint) {
  const bool isControl = codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0);
  const bool isSeparator = codePoint == 0x2028 || codePoint == 0x2029;
  const bool isDirection = codePoint == 0x061c || codePoint == 0x200e || codePoint == 0x200f ||
                           (codePoint >= 0x202a && codePoint <= 0x202e) || (codePoint >= 0x2066 && codePoint <= 0x2069);
  return isControl || isSeparator || isDirection;
}

void appendByte(std::string& text, unsigned char byte) {
  constexpr char digits[] = "0123456789abcdef";
  text += {'\\', 'x', digits[byte >> 4], digits[byte & 0xf]};
}

void appendEscaped(std::string& text, char32_t codePoint) {
  if (codePoint == '\n') {
    text += "\\n";
  } else if (codePoint == '\t') {
    text += "\\t";
  } else if (codePoint < 0x80) {
    appendByte(text, static_cast<unsigned char>(codePoint));
  } else {
    std::array<char, 8> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), static_cast<unsigned>(codePoint), 16);
    text.append("\\u{").append(digits.data(), end.ptr).append("}");
  }
}

}  // namespace

std::string printable(std::string_view text, std::string_view spared) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const std::string_view before = text;
    const auto codePoint = utf8::take(text);
    if (!codePoint) {
      appendByte(result, static_cast<unsigned char>(before.front()));
    } else if (isObeyed(*codePoint) &&
               (*codePoint >= 0x80 || spared.find(static_cast<char>(*codePoint)) == std::string_view::npos)) {
      appendEscaped(result, *codePoint);
    } else {
      result += before.substr(0, before.size() - text.size());
    }
  }
  return result;
}

}  // namespace kelvane
