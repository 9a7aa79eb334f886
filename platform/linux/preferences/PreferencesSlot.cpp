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

// The header, integers little-endian: "KLVPREF1", generation (8 bytes), length of the contents (8), checksum
// of all else in header and contents (4).
constexpr std::array<std::uint8_t, 8> magic = {'K', 'L', 'V', 'P', 'R', 'E', 'F', '1'};
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

std::uint32_t checksum(std::span<const std::uint8_t> record) {
  uLong sum = crc32_z(0, record.data(), checksumOffset);
  sum = crc32_z(sum, record.data() + headerBytes, record.size() - headerBytes);
  return static_cast<std::uint32_t>(sum);
}

bool writeAll(int file, const std::uint8_t* bytes, std::size_t length, std::size_t offset) {
  while (length > 0) {
    const ssize_t count = pwrite(file, bytes, length, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    bytes += count;
    length -= static_cast<std::size_t>(count);
    offset += static_cast<std::size_t>(count);
  }
  return true;
}

/// Fills bytes from the start of the file; false when it is shorter or cannot be read.
bool readAll(int file, std::span<std::uint8_t> bytes) {
  std::size_t length = 0;
  while (length < bytes.size()) {
    const ssize_t count = pread(file, bytes.data() + length, bytes.size() - length, static_cast<off_t>(length));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    length += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

Data encodeSlotRecord(std::uint64_t generation, std::span<const std::uint8_t> contents) {
  Data record(headerBytes + contents.size());
  std::copy(magic.begin(), magic.end(), record.begin());
  putInteger(record.data() + generationOffset, generation, 8);
  putInteger(record.data() + lengthOffset, contents.size(), 8);
  std::copy(contents.begin(), contents.end(), record.begin() + headerBytes);
  putInteger(record.data() + checksumOffset, checksum(record), 4);
  return record;
}

std::optional<SlotRecord> decodeSlotRecord(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < headerBytes || !std::equal(magic.begin(), magic.end(), bytes.begin())) {
    return std::nullopt;
  }
  const std::uint64_t length = integerAt(bytes.data() + lengthOffset, 8);
  if (length > bytes.size() - headerBytes) {
    return std::nullopt;
  }
  const auto record = bytes.first(headerBytes + static_cast<std::size_t>(length));
  if (integerAt(bytes.data() + checksumOffset, 4) != checksum(record)) {
    return std::nullopt;
  }
  return SlotRecord{.generation = integerAt(bytes.data() + generationOffset, 8),
                    .contents = Data(record.begin() + headerBytes, record.end())};
}

std::optional<PreferencesSlot> PreferencesSlot::open(int directory, const char* name) {
  PreferencesSlot slot;
  slot.file_ =
      FileDescriptor(openat(directory, name, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
  struct stat status;
  if (!slot.file_ || fstat(slot.file_.get(), &status) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return std::nullopt;
  }
  // A store that was copied or restored can have holes where blocks should be.
  const off_t hole = lseek(slot.file_.get(), 0, SEEK_HOLE);
  slot.written_ = static_cast<std::size_t>(std::max<off_t>(hole, 0));
  return slot;
}

std::optional<SlotRecord> PreferencesSlot::read() {
  Data record(headerBytes);
  if (!readAll(file_.get(), record)) {
    return std::nullopt;
  }
  const std::uint64_t length = integerAt(record.data() + lengthOffset, 8);
  if (length > limits::preferencesBytes) {
    return std::nullopt;
  }
  record.resize(headerBytes + static_cast<std::size_t>(length));
  if (!readAll(file_.get(), record)) {
    return std::nullopt;
  }
  std::optional<SlotRecord> decoded = decodeSlotRecord(record);
  if (decoded) {
    written_ = std::max(written_, record.size());
  }
  return decoded;
}

bool PreferencesSlot::isBlank() const {
  std::array<std::uint8_t, headerBytes> header;
  return readAll(file_.get(), header) &&
         std::all_of(header.begin(), header.end(), [](std::uint8_t byte) { return byte == 0; });
}

bool PreferencesSlot::write(std::span<const std::uint8_t> record) {
  if (!writeAll(file_.get(), record.data(), record.size(), 0)) {
    return false;
  }
  written_ = std::max(written_, record.size());
  return true;
}

std::size_t PreferencesSlot::room() const {
  return std::max(written_, headerBytes) - headerBytes;
}

bool PreferencesSlot::reserve(std::size_t contentBytes) {
  constexpr std::size_t step = 4096;
  return room() >= contentBytes || fill(written_, (headerBytes + contentBytes + step - 1) / step * step);
}

bool PreferencesSlot::fill(std::size_t from, std::size_t to) {
  static constexpr std::array<std::uint8_t, 4096> zeros = {};
  while (from < to) {
    const std::size_t count = std::min(zeros.size(), to - from);
    if (!writeAll(file_.get(), zeros.data(), count, from)) {
      return false;
    }
    from += count;
    written_ = from;
  }
  return true;
}

}  // namespace kelvane
