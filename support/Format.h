// SPDX-License-Identifier: Apache-2.0
// Filling a printf-like format with typed arguments.
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "platform/Value.h"

namespace kelvane {

/// One argument of a format: an integer, a floating-point number, a text or a property-list value.
/// It refers to what it was made from, so it lives no longer than the call it is made for.
class FormatArgument {
 public:
  FormatArgument(std::signed_integral auto number) : content_(static_cast<std::int64_t>(number)) {}
  FormatArgument(std::unsigned_integral auto number) : content_(static_cast<std::uint64_t>(number)) {}
  FormatArgument(double number) : content_(number) {}
  FormatArgument(const char* text) : content_(std::string_view(text)) {}
  FormatArgument(const std::string& text) : content_(std::string_view(text)) {}
  FormatArgument(std::string_view text) : content_(text) {}
  FormatArgument(const Value& value) : content_(&value) {}

  std::string text() const;

 private:
  std::variant<std::int64_t, std::uint64_t, double, std::string_view, const Value*> content_;
};

/// Replaces each conversion of the format ("%s", "%@", "%d", "%u", "%llu", "%lld", "%f") by the next
/// argument in its own type's form; "%%" is a percent sign. Missing arguments show as "(missing)".
std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments);

template <typename... Arguments>
std::string formatted(std::string_view format, const Arguments&... arguments) {
  const std::array<FormatArgument, sizeof...(arguments)> list = {FormatArgument(arguments)...};
  return formatArguments(format, list);
}

}  // namespace kelvane
