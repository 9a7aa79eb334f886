// SPDX-License-Identifier: Apache-2.0
// A state value as a person writes it.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "platform/Value.h"

namespace kelvane::ctl {

struct ValueError {
  std::string text;
};

/// Reads "true" and "false", decimal numbers, and whatever else is a property list, in any format. A word without
/// quotes is one, too: a string.
[[nodiscard]] std::variant<Value, ValueError> parseStateValue(std::string_view text);

}  // namespace kelvane::ctl
