// SPDX-License-Identifier: Apache-2.0
// Lines of a name and a figure, as wide as there is room for.
#pragma once

#include <string>
#include <string_view>

namespace kelvane::ctl {

/// In columns. What no terminal shows is as wide as it likes to be.
inline constexpr int unlimitedWidth = 120;

/// How wide the column of names is, of widest columns at most, in an output of width columns.
int nameColumn(int width, int widest);
/// How long a bar beside the figures may be, of widest columns at most; 0 where there is no room for one.
int barColumn(int width, int names, int widest);
/// "  name        figure", without the end of the line. A name that is too long for its column has a line of its own.
std::string tableRow(std::string_view name, std::string_view figure, int names);

}  // namespace kelvane::ctl
