// SPDX-License-Identifier: Apache-2.0
// Amounts of bytes as people write and read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

namespace kelvane::ctl {

struct SizeError {
  std::string text;
};

/// Reads "500", "64K", "1.5GiB", "2GB". K, M, G, T and P alone or followed by "iB" are powers of 1024, followed by
/// "B" powers of 1000; "B" alone is bytes; case does not matter. A fraction needs a unit, and what is left of a byte is
/// dropped. Refuses what is empty, signed, otherwise written or above 2^64 - 1.
[[nodiscard]] std::variant<std::uint64_t, SizeError> parseByteSize(std::string_view text);

/// "999 B", "1.5 MiB": one decimal, rounded to the nearest.
std::string formatByteSize(std::uint64_t bytes);

}  // namespace kelvane::ctl
