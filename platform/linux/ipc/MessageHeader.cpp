// SPDX-License-Identifier: Apache-2.0
// The header of a message, before the library has seen it.
#include "platform/linux/ipc/MessageHeader.h"

#include <endian.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace kelvane::ipc {

namespace {

constexpr std::size_t bodyLengthAt = 4;
constexpr std::size_t fieldsLengthAt = 12;
constexpr std::uint8_t signatureField = 8;
constexpr std::uint8_t descriptorsField = 9;

/// The first byte of a message tells the order of its numbers' bytes.
std::uint32_t numberAt(std::span<const std::uint8_t> message, std::size_t at) {
  std::uint32_t number = 0;
  std::memcpy(&number, &message[at], sizeof number);
  return message[0] == 'B' ? be32toh(number) : le32toh(number);
}

/// The fields of a header, one after the other.
class Fields {
 public:
  explicit Fields(std::span<std::uint8_t> message) : message_(message), at_(messageHeaderBytes) {
    end_ = message.size() < messageHeaderBytes ? 0 : messageHeaderBytes + numberAt(message, fieldsLengthAt);
  }

  bool hideDescriptor() {
    if (end_ > message_.size()) {
      return false;
    }
    while (at_ < end_) {
      if (!readField()) {
        return false;
      }
    }
    return descriptors_ == 1;
  }

 private:
  /// A field is a structure of a code and a variant: the signature's length, one letter, its end, and the value.
  bool readField() {
    at_ = (at_ + 7) / 8 * 8;
    if (!has(4) || message_[at_ + 1] != 1) {
      return false;
    }
    const std::uint8_t code = message_[at_];
    const std::uint8_t type = message_[at_ + 2];
    at_ += 4;
    if (type == 'g') {
      return has(1) && readSignature(code, message_[at_]);
    }
    if (!has(4) || (type != 'u' && type != 's' && type != 'o')) {
      return false;
    }
    const std::uint32_t value = numberAt(message_, at_);
    if (type == 'u' && code == descriptorsField) {
      descriptors_ += value;
      std::memset(&message_[at_], 0, sizeof value);
    }
    at_ += 4;
    return type == 'u' || pass(std::size_t{value} + 1);
  }

  bool readSignature(std::uint8_t code, std::size_t length) {
    if (!has(length + 2)) {
      return false;
    }
    if (code == signatureField) {
      const auto text = message_.subspan(at_ + 1, length);
      std::replace(text.begin(), text.end(), std::uint8_t{'h'}, std::uint8_t{'u'});
    }
    return pass(length + 2);
  }

  bool has(std::size_t bytes) const { return at_ <= end_ && bytes <= end_ - at_; }
  bool pass(std::size_t bytes) {
    const bool can = has(bytes);
    at_ += can ? bytes : 0;
    return can;
  }

  const std::span<std::uint8_t> message_;
  std::size_t at_;
  std::size_t end_;
  std::uint64_t descriptors_ = 0;
};

}  // namespace

std::optional<std::size_t> messageLength(std::span<const std::uint8_t> bytes) {
  if (bytes[0] != 'l' && bytes[0] != 'B') {
    return std::nullopt;
  }
  const std::size_t fields = numberAt(bytes, fieldsLengthAt);
  return messageHeaderBytes + (fields + 7) / 8 * 8 + numberAt(bytes, bodyLengthAt);
}

bool hideDescriptor(std::span<std::uint8_t> message) {
  return Fields(message).hideDescriptor();
}

}  // namespace kelvane::ipc
