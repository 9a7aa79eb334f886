// SPDX-License-Identifier: Apache-2.0
// The form of texts in the log.
#include "platform/linux/system/LogText.h"

#include "platform/Limits.h"
#include "platform/Printable.h"

namespace kelvane::reporting {

namespace {

bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

}  // namespace

std::string singleLine(std::string_view text) {
  constexpr std::string_view leftOut = "...";
  // Nothing gets shorter, so what lies beyond is never shown. A character that this cuts is within what is left out.
  std::string line = printable(text.substr(0, limits::logMessageBytes + 1));
  if (line.size() > limits::logMessageBytes) {
    std::size_t end = limits::logMessageBytes - leftOut.size();
    while (end > 0 && isContinuation(line[end])) {
      --end;
    }
    line.resize(end);
    line += leftOut;
  }
  return line;
}

}  // namespace kelvane::reporting
