// SPDX-License-Identifier: Apache-2.0
// One value of every kind, and files of each format that other programs' writers and people make of it.
#pragma once

#include <string_view>

#include "platform/Value.h"

namespace kelvane::samples {

Value everyKind();
/// Files that hold everyKind().
std::string_view binary();
std::string_view xml();

/// A file in the old-style text format, which knows fewer kinds, and its value.
std::string_view text();
Value textContents();

}  // namespace kelvane::samples
