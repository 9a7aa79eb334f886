// SPDX-License-Identifier: Apache-2.0
// One of the two files that a preferences store is written to in turn.
#include "platform/linux/preferences/PreferencesSlot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/Limits.h"

namespace kelvane {

namespace {

// The header, integers little-endian: "KLVPREF" and a digit, the format; generation (8 bytes), length of the contents
// (8), checksum of all else in header and contents (4). It is the same in all formats, or a version could not tell a
// later one's record from damage.
constexpr std::array<std::uint8_t, 7> magic = {'K', 'L', 'V', 'P', 'R', 'E', 'F'};
constexpr std::size_t formatOffset = 7;
constexpr std::size_t generationOffset = 8;
constexpr std::size_t lengthOffset = 16;
constexpr std::size_t checksumOffset = 24;
constexpr std::size_t headerBytes = 28;

void putInteger(std::uint8_t* bytes, std::uint64_t value, std::size_t count) {
  for (std::size_t index = 0; index < count; ++index) {
    bytes[index] = static_cast<std::uint8_t>(value >> (8 * index));
  }
}

std::uint64_t integerAt(const std::uint8_t* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t index = count; index > 0; --index) {
    value = value << 8 | bytes[index - 1];
  }
  return value;
}

int formatIn(std::span<const std::uint8_t> header) {
  return header[formatOffset] - '0';
}

std::uint32_t checksum(std::span<const std::uint8_t> record) {
  uLong sum = crc32_z(0, record.data(), checksumOffset);
  sum = crc32_z(sum, record.data() + headerBytes, record.size() - headerBytes);
  return static_cast<std::uint32_t>(sum);
}

}  // namespace

Data encodeSlotRecord(std::uint64_t generation, std::span<const std::uint8_t> contents, int format) {
  Data record(headerBytes + contents.size());
  std::copy(magic.begin(), magic.end(), record.begin());
  record[formatOffset] = static_cast<std::uint8_t>('0' + format);
  putInteger(record.data() + generationOffset, generation, 8);
  putInteger(record.data() + lengthOffset, contents.size(), 8);
  std::copy(contents.begin(), contents.end(), record.begin() + headerBytes);
  putInteger(record.data() + checksumOffset, checksum(record), 4);
  return record;
}

SlotContents decodeSlot(std::span<const std::uint8_t> bytes) {
  if (bytes.size() >= headerBytes &&
      std::all_of(bytes.begin(), bytes.begin() + headerBytes, [](std::uint8_t byte) { return byte == 0; })) {
    return BlankSlot();
  }
  if (bytes.size() < headerBytes || !std::equal(magic.begin(), magic.end(), bytes.begin())) {
    return TornSlot();
  }
  const std::uint64_t length = integerAt(bytes.data() + lengthOffset, 8);
  if (length > bytes.size() - headerBytes) {
    return TornSlot();
  }
  const auto record = bytes.first(headerBytes + static_cast<std::size_t>(length));
  if (integerAt(bytes.data() + checksumOffset, 4) != checksum(record)) {
    return TornSlot();
  }
  if (formatIn(bytes) != slotFormat) {
    return ForeignSlot{formatIn(bytes)};
  }
  return SlotRecord{.generation = integerAt(bytes.data() + generationOffset, 8),
                    .contents = Data(record.begin() + headerBytes, record.end())};
}

Result<PreferencesSlot> PreferencesSlot::open(int directory, const char* name, Missing missing,
                                              const DiskCalls& calls) {
  PreferencesSlot slot;
  slot.name_ = name;
  slot.calls_ = calls;
  const int making = missing == Missing::IsMade ? O_CREAT : 0;
  slot.file_ =
      FileDescriptor(openat(directory, name, O_RDWR | making | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
  struct stat status;
  if (!slot.file_ || fstat(slot.file_.get(), &status) != 0) {
    return systemFailure("opening", name);
  }
  if (!S_ISREG(status.st_mode)) {
    return Failure{.number = EINVAL, .tried = std::string("opening ") + name};
  }
  // A store that was copied or restored can have holes where blocks should be.
  off_t hole = status.st_size == 0 ? 0 : lseek(slot.file_.get(), 0, SEEK_HOLE);
  if (hole < 0 && errno == EINVAL) {
    // This file system tells of none.
    hole = status.st_size;
  }
  if (hole < 0) {
    return systemFailure("opening", name);
  }
  slot.written_ = slot.flushed_ = static_cast<std::size_t>(hole);
  return slot;
}

Result<SlotContents> PreferencesSlot::read() {
  Data bytes(headerBytes);
  auto count = readUpTo(bytes);
  if (!count) {
    return count.failure();
  }
  const std::uint64_t length = integerAt(bytes.data() + lengthOffset, 8);
  const bool isForeign = std::equal(magic.begin(), magic.end(), bytes.begin()) && formatIn(bytes) != slotFormat;
  if (isForeign && length > limits::preferencesBytes) {
    // As long as a later version's may be; too long to be held against its checksum.
    return SlotContents(ForeignSlot{formatIn(bytes)});
  }
  if (*count == headerBytes && length <= limits::preferencesBytes) {
    bytes.resize(headerBytes + static_cast<std::size_t>(length));
    count = readUpTo(bytes);
    if (!count) {
      return count.failure();
    }
  }
  bytes.resize(*count);
  SlotContents contents = decodeSlot(bytes);
  if (std::holds_alternative<SlotRecord>(contents)) {
    written_ = flushed_ = std::max(written_, bytes.size());
  }
  return contents;
}

/// From the start of the file; how many bytes it has, at most so many.
Result<std::size_t> PreferencesSlot::readUpTo(std::span<std::uint8_t> bytes) const {
  std::size_t length = 0;
  for (;;) {
    const auto left = bytes.subspan(length);
    const ssize_t count =
        left.empty() ? 0 : calls_.read(file_.get(), left.data(), left.size(), static_cast<off_t>(length));
    if (count == 0) {
      return length;
    }
    if (count < 0 && errno != EINTR) {
      return systemFailure("reading", name_);
    }
    length += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
}

Result<> PreferencesSlot::write(std::span<const std::uint8_t> record) {
  auto written = writeAll(file_.get(), name_, record, 0, calls_.write);
  if (written) {
    written_ = std::max(written_, record.size());
  }
  return written;
}

Result<> PreferencesSlot::flush() {
  if (calls_.flush(file_.get()) != 0) {
    written_ = flushed_;
    return systemFailure("flushing", name_);
  }
  flushed_ = written_;
  return {};
}

std::size_t PreferencesSlot::room() const {
  return std::max(written_, headerBytes) - headerBytes;
}

Result<> PreferencesSlot::reserve(std::size_t contentBytes) {
  constexpr std::size_t step = 4096;
  return room() >= contentBytes ? Result<>() : fill(written_, (headerBytes + contentBytes + step - 1) / step * step);
}

Result<> PreferencesSlot::fill(std::size_t from, std::size_t to) {
  static constexpr std::array<std::uint8_t, 4096> zeros = {};
  while (from < to) {
    const std::size_t count = std::min(zeros.size(), to - from);
    if (auto filled =
            writeAll(file_.get(), name_, std::span(zeros).first(count), static_cast<off_t>(from), calls_.write);
        !filled) {
      return filled;
    }
    from += count;
    written_ = from;
  }
  return {};
}

}  // namespace kelvane
