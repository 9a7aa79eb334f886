// SPDX-License-Identifier: Apache-2.0
// One line of a terminal that shows how far a purge is.
#include "tools/kelvanectl/ProgressBar.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/kelvanectl/ByteSize.h"

namespace kelvane::ctl {

std::string progressLine(std::uint64_t freed, std::uint64_t asked, std::chrono::seconds elapsed, int width) {
  const double share = asked == 0 ? 1.0 : std::min(1.0, static_cast<double>(freed) / static_cast<double>(asked));
  const std::string text = fmt::format("{:3d} %  {} of {}, {} s", static_cast<int>(share * 100), formatByteSize(freed),
                                       formatByteSize(asked), elapsed.count());
  constexpr int widest = 40;
  constexpr int narrowest = 8;
  // Two brackets, two blanks and a column that stays free, so that no terminal wraps the line.
  const int bar = std::min(width - static_cast<int>(text.size()) - 5, widest);
  if (bar < narrowest) {
    return text.substr(0, static_cast<std::size_t>(std::max(width - 1, 0)));
  }
  const int full = static_cast<int>(share * bar);
  return fmt::format("[{:#<{}}{:-<{}}]  {}", "", full, "", bar - full, text);
}

}  // namespace kelvane::ctl
