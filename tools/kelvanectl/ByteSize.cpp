// SPDX-License-Identifier: Apache-2.0
// Amounts of bytes as people write and read them.
#include "tools/kelvanectl/ByteSize.h"

#include <fmt/core.h>

#include <array>
#include <charconv>
#include <limits>
#include <optional>

namespace kelvane::ctl {
namespace {

constexpr std::string_view prefixes = "KMGTP";
constexpr std::string_view digits = "0123456789";

char upper(char character) {
  return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
}

bool equalIgnoringCase(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) {
    return false;
  }
  for (std::size_t i = 0; i < left.size(); ++i) {
    if (upper(left[i]) != upper(right[i])) {
      return false;
    }
  }
  return true;
}

/// Bytes in one of the unit; none when there is no such unit.
std::optional<std::uint64_t> unitBytes(std::string_view unit) {
  if (unit.empty() || equalIgnoringCase(unit, "B")) {
    return 1;
  }
  const std::size_t power = prefixes.find(upper(unit[0]));
  if (power == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view rest = unit.substr(1);
  const bool decimal = equalIgnoringCase(rest, "B");
  if (!decimal && !rest.empty() && !equalIgnoringCase(rest, "iB")) {
    return std::nullopt;
  }
  std::uint64_t bytes = 1;
  for (std::size_t i = 0; i <= power; ++i) {
    bytes *= decimal ? 1000 : 1024;
  }
  return bytes;
}

/// The whole bytes in 0.DIGITS units. Exact: each step's remainder is too small to matter to the ones before it.
std::uint64_t fractionBytes(std::string_view fraction, std::uint64_t unit) {
  std::uint64_t bytes = 0;
  for (auto digit = fraction.rbegin(); digit != fraction.rend(); ++digit) {
    bytes = (static_cast<std::uint64_t>(*digit - '0') * unit + bytes) / 10;
  }
  return bytes;
}

}  // namespace

std::variant<std::uint64_t, SizeError> parseByteSize(std::string_view text) {
  const auto error = [text](std::string_view why) { return SizeError{fmt::format("\"{}\" {}", text, why)}; };

  const std::size_t wholeEnd = std::min(text.find_first_not_of(digits), text.size());
  std::string_view rest = text.substr(wholeEnd);
  std::string_view fraction;
  if (rest.starts_with('.')) {
    fraction = rest.substr(1, rest.find_first_not_of(digits, 1) - 1);
    rest.remove_prefix(1 + fraction.size());
    if (fraction.empty()) {
      return error("has no digits after the point");
    }
  }
  if (wholeEnd == 0) {
    return error("is no size: it begins with a digit, as in 500M");
  }
  const std::optional<std::uint64_t> unit = unitBytes(rest);
  if (!unit) {
    return error("has no known unit: B, K, M, G, T, P, KiB, MiB, ..., kB, MB, ...");
  }
  if (!fraction.empty() && *unit == 1) {
    return error("is no whole number of bytes");
  }

  constexpr std::uint64_t maximum = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t whole = 0;
  const auto [end, status] = std::from_chars(text.data(), text.data() + wholeEnd, whole);
  const std::uint64_t part = fractionBytes(fraction, *unit);
  if (status != std::errc() || whole > (maximum - part) / *unit) {
    return error("is too large");
  }
  return whole * *unit + part;
}

std::string formatByteSize(std::uint64_t bytes) {
  if (bytes < 1024) {
    return fmt::format("{} B", bytes);
  }
  // A unit is used up to where rounding would show 1024.0 of it.
  constexpr double roundsUp = 1023.95;
  constexpr std::string_view larger = "KMGTPE";
  double amount = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (amount >= roundsUp && unit + 1 < larger.size()) {
    amount /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f} {}iB", amount, larger[unit]);
}

}  // namespace kelvane::ctl
