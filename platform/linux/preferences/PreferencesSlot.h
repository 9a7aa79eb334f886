// SPDX-License-Identifier: Apache-2.0
// One of the two files that a preferences store is written to in turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include "platform/Result.h"
#include "platform/Value.h"
#include "platform/linux/preferences/DiskCalls.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

/// The format of what this version writes.
inline constexpr int slotFormat = 1;

/// A whole record: the number of the write, and its contents.
struct SlotRecord {
  std::uint64_t generation = 0;
  Data contents;
};
/// No record was ever written.
struct BlankSlot {};
/// Half of a write, or damage.
struct TornSlot {};
/// A record in a format of a later version: whole, or longer than this version reads, and not known to be.
struct ForeignSlot {
  int format = 0;
};
using SlotContents = std::variant<BlankSlot, TornSlot, ForeignSlot, SlotRecord>;

/// A record in the form it has at the start of a slot: header, then contents.
[[nodiscard]] Data encodeSlotRecord(std::uint64_t generation, std::span<const std::uint8_t> contents,
                                    int format = slotFormat);
/// What a slot holds that begins with these bytes, which are all of a record if there is one.
[[nodiscard]] SlotContents decodeSlot(std::span<const std::uint8_t> bytes);

/// An open slot file. It keeps more room than its record needs, in blocks that have been written before, so
/// that a write neither allocates nor can fail for want of space. Not safe for concurrent use.
class PreferencesSlot {
 public:
  PreferencesSlot() = default;
  enum class Missing { Fails, IsMade };
  /// Opens the file, or makes an empty one when it is missing. Fails with EINVAL for what is no file.
  static Result<PreferencesSlot> open(int directory, const char* name, Missing missing, const DiskCalls& calls);

  /// Whether there is a file.
  explicit operator bool() const { return static_cast<bool>(file_); }
  const FileDescriptor& file() const { return file_; }

  /// What the file holds; a failure when the disk does not say, which is not the same as holding nothing.
  Result<SlotContents> read();
  /// Writes an encoded record over what the slot held. Not yet durable. When it fails the slot holds anything.
  Result<> write(std::span<const std::uint8_t> record);
  /// When it fails, the room that the slot was given since the last flush is none, as it may have no blocks.
  Result<> flush();
  /// Gives the slot room for contents of so many bytes, in written blocks. The record in it stays as it is.
  Result<> reserve(std::size_t contentBytes);
  /// How many bytes of contents there is room for.
  std::size_t room() const;

 private:
  Result<> fill(std::size_t from, std::size_t to);
  Result<std::size_t> readUpTo(std::span<std::uint8_t> bytes) const;

  FileDescriptor file_;
  const char* name_ = "";
  DiskCalls calls_;
  /// Up to here the file's blocks have been written, or hold the record that was read.
  std::size_t written_ = 0;
  /// The same as of the last flush.
  std::size_t flushed_ = 0;
};

}  // namespace kelvane
