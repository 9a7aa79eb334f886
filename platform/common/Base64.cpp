// SPDX-License-Identifier: Apache-2.0
// Base64, as XML property lists carry data.
#include "platform/common/Base64.h"

#include <cstddef>

namespace kelvane {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Text(const Data& data) {
  std::string text;
  text.reserve((data.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < data.size(); i += 3) {
    const std::size_t present = data.size() - i < 3 ? data.size() - i : 3;
    std::uint32_t group = 0;
    for (std::size_t byte = 0; byte < 3; ++byte) {
      group = group << 8 | (byte < present ? data[i + byte] : 0u);
    }
    for (std::size_t digit = 0; digit < 4; ++digit) {
      text += digit <= present ? alphabet[group >> (18 - 6 * digit) & 63] : '=';
    }
  }
  return text;
}

std::optional<Data> dataFromBase64(std::string_view text) {
  Data data;
  data.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  int bitCount = 0;
  std::size_t characters = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      continue;
    }
    ++characters;
    if (c == '=') {
      ++padding;
      continue;
    }
    const std::size_t digit = alphabet.find(c);
    if (digit == std::string_view::npos || padding > 0) {
      return std::nullopt;
    }
    bits = bits << 6 | static_cast<std::uint32_t>(digit);
    bitCount += 6;
    if (bitCount >= 8) {
      bitCount -= 8;
      data.push_back(static_cast<std::uint8_t>(bits >> bitCount));
      bits &= (1u << bitCount) - 1;
    }
  }
  // One character of padding stands for each two bits left over, and those bits are 0.
  if (characters % 4 != 0 || padding > 2 || padding * 2 != static_cast<std::size_t>(bitCount) || bits != 0) {
    return std::nullopt;
  }
  return data;
}

}  // namespace kelvane
