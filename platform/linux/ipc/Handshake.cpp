// SPDX-License-Identifier: Apache-2.0
// What clients say before their first message.
#include "platform/linux/ipc/Handshake.h"

namespace kelvane::ipc {

namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view hexDigits = "0123456789abcdef";

std::string hexOf(const std::string& text) {
  std::string hex;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    hex += hexDigits[byte >> 4];
    hex += hexDigits[byte & 15];
  }
  return hex;
}

}  // namespace

std::string vouchedLine(std::string_view line, uid_t user) {
  const std::size_t start = line.starts_with('\0') ? 1 : 0;
  const std::string_view text = line.substr(start, line.size() - start - lineEnd.size());
  const std::string hex = hexOf(std::to_string(user));
  const auto isWord = [text](std::string_view word) {
    return text.starts_with(word) && (text.size() == word.size() || text[word.size()] == ' ');
  };
  for (const std::string_view word : {"AUTH EXTERNAL", "DATA"}) {
    if (isWord(word) && text.size() > word.size() && text.substr(word.size() + 1) != hex) {
      return std::string(line.substr(0, start)) + (word == "DATA" ? "CANCEL\r\n" : "AUTH\r\n");
    }
  }
  return std::string(isWord("AUTH ANONYMOUS") ? std::string(line.substr(0, start)) + "AUTH\r\n" : line);
}

}  // namespace kelvane::ipc
