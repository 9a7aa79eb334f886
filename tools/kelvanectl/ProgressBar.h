// SPDX-License-Identifier: Apache-2.0
// One line of a terminal that shows how far a purge is.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kelvane::ctl {

/// "[#####-----]  50 %  10.0 MiB of 20.0 MiB, 3 s", of width columns at most; a narrow terminal gets no bar.
std::string progressLine(std::uint64_t freed, std::uint64_t asked, std::chrono::seconds elapsed, int width);

}  // namespace kelvane::ctl
