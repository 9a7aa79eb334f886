// SPDX-License-Identifier: Apache-2.0
// Lines of a name and a figure, as wide as there is room for.
#include "tools/kelvanectl/TableRow.h"

#include <fmt/format.h>

#include <algorithm>

namespace kelvane::ctl {
namespace {

constexpr int figureColumn = 12;
/// Two blanks at the start, one between name and figure, and a column that stays free, so that no terminal wraps.
constexpr int blanks = 4;
constexpr int blanksBeforeBar = 2;
constexpr int narrowestNames = 12;
constexpr int shortestBar = 4;

}  // namespace

int nameColumn(int width, int widest) {
  return std::clamp(width - figureColumn - blanks, narrowestNames, widest);
}

int barColumn(int width, int names, int widest) {
  const int room = width - names - figureColumn - blanks - blanksBeforeBar;
  return room < shortestBar ? 0 : std::min(room, widest);
}

std::string tableRow(std::string_view name, std::string_view figure, int names) {
  const bool isLong = name.size() > static_cast<std::size_t>(names);
  return (isLong ? fmt::format("  {}\n", name) : std::string()) +
         fmt::format("  {:<{}} {:>{}}", isLong ? "" : name, names, figure, figureColumn);
}

}  // namespace kelvane::ctl
