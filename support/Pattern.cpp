// SPDX-License-Identifier: Apache-2.0
// Patterns for names.
#include "support/Pattern.h"

#include <cstddef>
#include <optional>

namespace kelvane {

bool matchesPattern(std::string_view text, std::string_view pattern) {
  std::size_t at = 0;
  std::size_t next = 0;
  // Behind the last "*", and where in the text what follows it is tried. An earlier one never needs to stand for more.
  std::optional<std::size_t> afterStar;
  std::size_t tried = 0;
  while (at < text.size()) {
    if (next < pattern.size() && pattern[next] == '*') {
      afterStar = ++next;
      tried = at;
    } else if (next < pattern.size() && (pattern[next] == '?' || pattern[next] == text[at])) {
      ++next;
      ++at;
    } else if (afterStar) {
      next = *afterStar;
      at = ++tried;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', next) == std::string_view::npos;
}

}  // namespace kelvane
