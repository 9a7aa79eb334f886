// SPDX-License-Identifier: Apache-2.0
// The word that somebody may have meant.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::ctl {

/// The word that is most like what was typed: by letters left out, put in, replaced or swapped, at most one for every
/// three of the longer one's; or that begins or ends with it. None when nothing is near.
[[nodiscard]] std::optional<std::string> suggestion(std::string_view typed, const std::vector<std::string>& words);

}  // namespace kelvane::ctl
