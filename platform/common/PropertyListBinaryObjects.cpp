// SPDX-License-Identifier: Apache-2.0
// The objects of a binary property list, each by itself.
#include "platform/common/PropertyListBinaryObjects.h"

#include <bit>
#include <limits>

#include "platform/common/Utf8.h"

namespace kelvane::propertyList::binary {
namespace {

/// The contents of a string object of UTF-16 code units; none when a surrogate stands alone.
std::optional<std::string> fromUtf16(Bytes bytes) {
  std::string string;
  string.reserve(bytes.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    auto codePoint = static_cast<char32_t>(bigEndian(bytes.subspan(i, 2)));
    if (utf8::isLowSurrogate(codePoint)) {
      return std::nullopt;
    }
    if (utf8::isHighSurrogate(codePoint)) {
      i += 2;
      const auto low = i < bytes.size() ? static_cast<char32_t>(bigEndian(bytes.subspan(i, 2))) : 0;
      if (!utf8::isLowSurrogate(low)) {
        return std::nullopt;
      }
      codePoint = utf8::joinSurrogates(codePoint, low);
    }
    utf8::append(string, codePoint);
  }
  return string;
}

}  // namespace

std::uint64_t bigEndian(Bytes bytes) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : bytes) {
    number = number << 8 | byte;
  }
  return number;
}

std::nullopt_t BinaryObjects::fail(const char* why) {
  error_.text = why;
  return std::nullopt;
}

std::optional<std::uint64_t> BinaryObjects::readTrailer() {
  const std::string_view start(reinterpret_cast<const char*>(bytes_.data()), bytes_.size());
  if (!start.starts_with(magic)) {
    return fail("unknown version of the binary format");
  }
  if (bytes_.size() < magic.size() + trailerSize) {
    return fail("too short for the binary format");
  }
  const Bytes trailer = bytes_.last(trailerSize);
  offsetSize_ = trailer[trailerOffsetSize];
  referenceSize_ = trailer[trailerReferenceSize];
  objectCount_ = bigEndian(trailer.subspan(trailerObjectCount, 8));
  const std::uint64_t top = bigEndian(trailer.subspan(trailerTopObject, 8));
  const std::uint64_t table = bigEndian(trailer.subspan(trailerTableOffset, 8));
  const std::size_t tableEnd = bytes_.size() - trailerSize;
  if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) {
    return fail("bad sizes in the trailer");
  }
  // The table ends where the trailer begins. That also tells a truncated file.
  if (table < magic.size() || table > tableEnd || objectCount_ > (tableEnd - table) / offsetSize_ ||
      objectCount_ * offsetSize_ != tableEnd - table) {
    return fail("the table of offsets does not fit");
  }
  table_ = bytes_.subspan(table, tableEnd - table);
  objects_ = bytes_.first(table);
  return top;
}

// count bytes at position; none when the objects end before.
std::optional<Bytes> BinaryObjects::bytesAt(std::size_t position, std::uint64_t count) {
  if (position > objects_.size() || count > objects_.size() - position) {
    return fail("an object goes past the end");
  }
  return objects_.subspan(position, count);
}

std::optional<BinaryObjects::Head> BinaryObjects::readHead(std::uint64_t object) {
  if (object >= objectCount_) {
    return fail("a reference to no object");
  }
  const std::uint64_t offset = bigEndian(table_.subspan(object * offsetSize_, offsetSize_));
  if (offset < magic.size() || offset >= objects_.size()) {
    return fail("an offset to no object");
  }
  const std::uint8_t marker = objects_[offset];
  return Head{static_cast<Kind>(marker >> 4), marker & 0xFu, static_cast<std::size_t>(offset) + 1};
}

// The count of a head's elements; moves the head's contents behind it.
std::optional<std::uint64_t> BinaryObjects::readCount(Head& head) {
  if (head.low != countFollows) {
    return head.low;
  }
  const auto marker = bytesAt(head.contents, 1);
  if (!marker) {
    return std::nullopt;
  }
  const unsigned power = marker->front() & 0xFu;
  if (static_cast<Kind>(marker->front() >> 4) != Kind::integer || power > eightBytes) {
    return fail("a count that is no integer");
  }
  const auto number = bytesAt(head.contents + 1, 1u << power);
  if (!number) {
    return std::nullopt;
  }
  head.contents += 1 + number->size();
  return bigEndian(*number);
}

std::optional<Bytes> BinaryObjects::readElements(Head head, std::size_t elementSize) {
  const auto count = readCount(head);
  if (!count) {
    return std::nullopt;
  }
  if (*count > objects_.size()) {
    return fail("an object goes past the end");
  }
  return bytesAt(head.contents, *count * elementSize);
}

std::optional<Value> BinaryObjects::readInteger(Head head) {
  if (head.low > sixteenBytes) {
    return fail("an integer of a bad size");
  }
  const auto bytes = bytesAt(head.contents, 1u << head.low);
  if (!bytes) {
    return std::nullopt;
  }
  const std::uint64_t low = bigEndian(*bytes);
  const bool fitsSigned = low <= std::numeric_limits<std::int64_t>::max();
  if (head.low < sixteenBytes) {
    return Value(static_cast<std::int64_t>(low));
  }
  const std::uint64_t high = bigEndian(bytes->first(8));
  if (high == 0) {
    return fitsSigned ? Value(static_cast<std::int64_t>(low)) : Value(low);
  }
  if (high == std::numeric_limits<std::uint64_t>::max() && !fitsSigned) {
    return Value(static_cast<std::int64_t>(low));
  }
  return fail("an integer out of range");
}

std::optional<double> BinaryObjects::readReal(Head head) {
  if (head.low != fourBytes && head.low != eightBytes) {
    return fail("a real of a bad size");
  }
  const auto bytes = bytesAt(head.contents, 1u << head.low);
  if (!bytes) {
    return std::nullopt;
  }
  const std::uint64_t bits = bigEndian(*bytes);
  return head.low == eightBytes ? std::bit_cast<double>(bits)
                                : static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
}

std::optional<std::string> BinaryObjects::readString(Head head) {
  const bool isAscii = head.kind == Kind::ascii;
  const auto bytes = readElements(head, isAscii ? 1 : 2);
  if (!bytes) {
    return std::nullopt;
  }
  if (!isAscii) {
    auto string = fromUtf16(*bytes);
    return string ? string : fail("a string with half a surrogate pair");
  }
  for (const std::uint8_t byte : *bytes) {
    if (byte > 0x7F) {
      return fail("an ASCII string that is not ASCII");
    }
  }
  return std::string(bytes->begin(), bytes->end());
}

}  // namespace kelvane::propertyList::binary
