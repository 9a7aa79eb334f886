// SPDX-License-Identifier: Apache-2.0
// A state value as a person writes it.
#include "tools/kelvanectl/StateValue.h"

#include <fmt/core.h>

#include <charconv>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/PropertyList.h"

namespace kelvane::ctl {
namespace {

template <typename Number>
std::optional<Value> numberOf(std::string_view text) {
  Number number{};
  const char* end = text.data() + text.size();
  const auto [parsed, status] = std::from_chars(text.data(), end, number);
  return status == std::errc() && parsed == end ? std::optional(Value(number)) : std::nullopt;
}

std::optional<Value> scalarOf(std::string_view text) {
  if (text == "true" || text == "false") {
    return Value(text == "true");
  }
  // Not "inf" and "nan".
  const std::size_t first = text.starts_with('-') ? 1 : 0;
  if (first >= text.size() || text[first] < '0' || text[first] > '9') {
    return std::nullopt;
  }
  if (auto value = numberOf<std::int64_t>(text)) {
    return value;
  }
  if (auto value = numberOf<std::uint64_t>(text)) {
    return value;
  }
  // An integer that fits neither is not silently rounded.
  return text.find_first_of(".eE") == std::string_view::npos ? std::nullopt : numberOf<double>(text);
}

std::string_view withoutSpaceAround(std::string_view text) {
  constexpr std::string_view space = " \t\r\n";
  const std::size_t first = std::min(text.find_first_not_of(space), text.size());
  text.remove_prefix(first);
  return text.substr(0, text.find_last_not_of(space) + 1);
}

}  // namespace

std::variant<Value, ValueError> parseStateValue(std::string_view text) {
  if (auto scalar = scalarOf(withoutSpaceAround(text))) {
    return *std::move(scalar);
  }
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  auto result = propertyList::parse(std::span(bytes, text.size()));
  if (const auto* error = std::get_if<propertyList::Error>(&result)) {
    return ValueError{fmt::format("the value is no property list: {} (--string takes it as it stands)", error->text)};
  }
  return std::get<Value>(std::move(result));
}

}  // namespace kelvane::ctl
