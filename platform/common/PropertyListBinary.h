// SPDX-License-Identifier: Apache-2.0
// The binary format's constants.
//
// A file is the magic, the objects, a table of the objects' offsets and a trailer. An object begins with a
// byte of kind and count; a count of 15 means that an integer object with the count follows. Arrays and
// dictionaries hold numbers of objects. All numbers are big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kelvane::propertyList::binary {

inline constexpr std::string_view magic = "bplist00";
inline constexpr std::size_t trailerSize = 32;
// Where the trailer holds what; it begins with bytes of no meaning here.
inline constexpr std::size_t trailerOffsetSize = 6;
inline constexpr std::size_t trailerReferenceSize = 7;
inline constexpr std::size_t trailerObjectCount = 8;
inline constexpr std::size_t trailerTopObject = 16;
inline constexpr std::size_t trailerTableOffset = 24;

/// The high half of an object's first byte.
enum class Kind : std::uint8_t {
  simple = 0x0,
  integer = 0x1,
  real = 0x2,
  date = 0x3,
  data = 0x4,
  ascii = 0x5,
  utf16 = 0x6,
  uid = 0x8,
  array = 0xA,
  set = 0xC,
  dictionary = 0xD,
};

// The low half, for simple objects.
inline constexpr unsigned simpleFalse = 0x8;
inline constexpr unsigned simpleTrue = 0x9;
// The low half of a real and a date: the power of two of its bytes.
inline constexpr unsigned fourBytes = 2;
inline constexpr unsigned eightBytes = 3;
inline constexpr unsigned sixteenBytes = 4;
/// The low half when the count follows as an integer object.
inline constexpr unsigned countFollows = 0xF;

/// Dates count from 2001-01-01 00:00 UTC: that time, in seconds since 1970.
inline constexpr double epoch = 978307200;

}  // namespace kelvane::propertyList::binary
