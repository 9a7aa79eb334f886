// SPDX-License-Identifier: Apache-2.0
// The bytes of an archive.
//
// An archive is the magic, a table of classes and one object. All numbers are little-endian; counts, lengths and
// versions take four bytes, texts are UTF-8 after their length. The table is a count of classes, each a name, a
// version, a count of fields and their names. An object is the number of its class in the table and its fields; a
// field, like every value within one, is a tag and what the tag says. Dictionaries and objects come by their
// keys in ascending order, so no key comes twice.
#pragma once

#include <cstdint>
#include <string_view>

namespace kelvane::archive {

inline constexpr std::string_view magic = "KLARCHV1";

enum class Tag : std::uint8_t {
  absent = 0,
  falseValue = 1,
  trueValue = 2,
  signedInteger = 3,    ///< eight bytes
  unsignedInteger = 4,  ///< eight bytes
  real = 5,             ///< eight bytes, IEEE 754
  date = 6,             ///< eight bytes, a real of seconds since 1970
  string = 7,           ///< a text
  data = 8,             ///< a length and bytes
  array = 9,            ///< a count and values
  dictionary = 10,      ///< a count, and as often a text and a value
  objects = 11,         ///< a count, and as often a text and an object
};

}  // namespace kelvane::archive
