// SPDX-License-Identifier: Apache-2.0
// Reading property lists in tests, and making binary ones that no writer would.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PropertyList.h"
#include "platform/Value.h"

namespace kelvane::testing {

/// The value of a list; none when it was refused.
std::optional<Value> parsed(std::string_view bytes);
/// Why a list was refused; "" when it was not.
std::string refusal(std::string_view bytes);

/// The value written; none when that was refused.
std::optional<std::string> writtenBinary(const Value& value);
std::optional<std::string> writtenXml(const Value& value);

std::string binaryRefusal(const Value& value);
std::string xmlRefusal(const Value& value);

/// An array in an array and so on, so many in all.
Value nestedArrays(int count);
std::string repeated(std::string_view text, std::size_t count);

/// A big-endian number of so many bytes.
std::string bigEndian(std::uint64_t number, int size);

/// Puts a binary list together from its objects. What the trailer says can be set apart from what is there.
struct BinaryFile {
  std::vector<std::string> objects;
  int offsetSize = 1;
  int referenceSize = 1;
  std::uint64_t top = 0;
  /// Instead of the true ones.
  std::optional<std::uint64_t> objectCount = std::nullopt;
  std::optional<std::uint64_t> tableOffset = std::nullopt;
  std::vector<std::uint64_t> offsets = {};

  std::string bytes() const;
};

/// The bytes of a list that is one object.
std::string binaryOf(const std::string& object);

}  // namespace kelvane::testing
