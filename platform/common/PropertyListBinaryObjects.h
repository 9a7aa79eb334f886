// SPDX-License-Identifier: Apache-2.0
// The objects of a binary property list, each by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/PropertyList.h"
#include "platform/Value.h"
#include "platform/common/PropertyListBinary.h"

namespace kelvane::propertyList::binary {

using Bytes = std::span<const std::uint8_t>;

/// The last eight bytes of a big-endian number; the callers see to the others.
[[nodiscard]] std::uint64_t bigEndian(Bytes bytes);

/// Gives the objects of one file, none of whose bytes it trusts. A function that returns none has noted the
/// error.
class BinaryObjects {
 public:
  /// One object's first byte, taken apart, and the place behind it.
  struct Head {
    Kind kind;
    unsigned low;
    std::size_t contents;
  };

  /// bytes must outlive the objects.
  explicit BinaryObjects(Bytes bytes) : bytes_(bytes) {}

  const Error& error() const { return error_; }
  /// The bytes of a reference to an object.
  std::size_t referenceSize() const { return referenceSize_; }

  /// Checks the file's frame, without which nothing else may be called; gives the number of the top object.
  [[nodiscard]] std::optional<std::uint64_t> readTrailer();
  [[nodiscard]] std::optional<Head> readHead(std::uint64_t object);
  /// The contents of an object that has a count, whose elements are of elementSize bytes each.
  [[nodiscard]] std::optional<Bytes> readElements(Head head, std::size_t elementSize);
  /// One, two and four bytes are unsigned, eight signed. Sixteen are signed and hold what eight cannot.
  [[nodiscard]] std::optional<Value> readInteger(Head head);
  [[nodiscard]] std::optional<double> readReal(Head head);
  [[nodiscard]] std::optional<std::string> readString(Head head);

  /// Notes an error.
  std::nullopt_t fail(const char* why);

 private:
  std::optional<Bytes> bytesAt(std::size_t position, std::uint64_t count);
  std::optional<std::uint64_t> readCount(Head& head);

  Bytes bytes_;
  /// What comes before the table of offsets, the magic included, so that offsets are indexes.
  Bytes objects_;
  Bytes table_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::uint64_t objectCount_ = 0;
  Error error_;
};

}  // namespace kelvane::propertyList::binary
