// SPDX-License-Identifier: Apache-2.0
// Reading and writing property lists.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <variant>

#include "platform/Limits.h"
#include "platform/Value.h"

namespace kelvane::propertyList {

/// Why a text or data is no property list, in words for a log line ("line 3: unexpected '}'").
struct Error {
  std::string text;
};
using Result = std::variant<Value, Error>;

/// Reads a property list in any of the three formats, told apart by its first bytes: binary, XML (any
/// DOCTYPE is ignored, only the five predefined entities and character references are known, nothing is
/// fetched) or the old-style text format. Refuses input over limits::propertyListBytes, nesting over
/// limits::propertyListDepth, contents over the other limits of property lists, a key that comes twice and
/// strings that are not valid Unicode.
[[nodiscard]] Result parse(std::span<const std::uint8_t> bytes);

/// The binary format, for stores and archives. Fails when the value is absent or holds an absent one, holds a
/// string that is not UTF-8, or passes a limit that parse() keeps: what is written can be read.
[[nodiscard]] std::variant<Data, Error> writeBinary(const Value& value);
/// The XML format, for files that a person edits; fails as writeBinary does, and for control characters and
/// dates outside the years 1 to 9999, which XML cannot carry. Dates lose their fractions of a second.
[[nodiscard]] std::variant<std::string, Error> writeXml(const Value& value);

}  // namespace kelvane::propertyList
