// SPDX-License-Identifier: Apache-2.0
// Text of others' making, for a terminal.
#include "tools/kelvanectl/Printable.h"

#include <algorithm>

namespace kelvane::ctl {

std::string printable(std::string_view text, std::string_view spared) {
  std::string result(text);
  std::replace_if(
      result.begin(), result.end(),
      [spared](char c) {
        const auto code = static_cast<unsigned char>(c);
        return (code < 0x20 || code == 0x7f) && spared.find(c) == std::string_view::npos;
      },
      '?');
  return result;
}

}  // namespace kelvane::ctl
