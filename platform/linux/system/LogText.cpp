// SPDX-License-Identifier: Apache-2.0
// The form of texts in the log.
#include "platform/linux/system/LogText.h"

#include "platform/Limits.h"

namespace kelvane::reporting {

namespace {

bool isControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}
bool isContinuation(unsigned char byte) {
  return (byte & 0xc0) == 0x80;
}

void appendEscaped(std::string& line, unsigned char byte) {
  constexpr char digits[] = "0123456789abcdef";
  if (byte == '\n') {
    line += "\\n";
  } else if (byte == '\t') {
    line += "\\t";
  } else {
    line += {'\\', 'x', digits[byte >> 4], digits[byte & 0xf]};
  }
}

}  // namespace

std::string singleLine(std::string_view text) {
  constexpr std::string_view leftOut = "...";
  std::string line;
  line.reserve(text.size() < limits::logMessageBytes ? text.size() : limits::logMessageBytes);
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (isControl(byte)) {
      appendEscaped(line, byte);
    } else {
      line += character;
    }
    if (line.size() > limits::logMessageBytes) {
      std::size_t end = limits::logMessageBytes - leftOut.size();
      while (end > 0 && isContinuation(static_cast<unsigned char>(line[end]))) {
        --end;
      }
      line.resize(end);
      return line.append(leftOut);
    }
  }
  return line;
}

}  // namespace kelvane::reporting
