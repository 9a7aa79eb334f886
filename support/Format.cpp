// SPDX-License-Identifier: Apache-2.0
// Filling a printf-like format with typed arguments.
#include "support/Format.h"

#include <charconv>

namespace kelvane {

namespace {

/// Six decimals, as "%f" writes them.
std::string fixedText(double number) {
  std::array<char, 400> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed, 6);
  return {digits.data(), end.ptr};
}

struct Text {
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(std::uint64_t number) const { return std::to_string(number); }
  std::string operator()(double number) const { return fixedText(number); }
  std::string operator()(std::string_view text) const { return std::string(text); }
  std::string operator()(const Value* value) const { return value->description(); }
};

}  // namespace

std::string FormatArgument::text() const {
  return std::visit(Text(), content_);
}

std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments) {
  std::string result;
  std::size_t next = 0;
  for (std::size_t position = 0; position < format.size(); ++position) {
    if (format[position] != '%' || position + 1 == format.size()) {
      result += format[position];
      continue;
    }
    ++position;
    while (format[position] == 'l' && position + 1 < format.size()) {
      ++position;
    }
    if (format[position] == '%') {
      result += '%';
    } else {
      result += next < arguments.size() ? arguments[next].text() : "(missing)";
      ++next;
    }
  }
  return result;
}

}  // namespace kelvane
