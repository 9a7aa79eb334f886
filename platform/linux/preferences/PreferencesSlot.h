// SPDX-License-Identifier: Apache-2.0
// One of the two files that a preferences store is written to in turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/Value.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

/// What a slot holds: the number of the write, and its contents.
struct SlotRecord {
  std::uint64_t generation = 0;
  Data contents;
};

/// A record in the form it has at the start of a slot: header, then contents.
[[nodiscard]] Data encodeSlotRecord(std::uint64_t generation, std::span<const std::uint8_t> contents);
/// The record at the start of bytes; none unless all of it is there and unharmed.
[[nodiscard]] std::optional<SlotRecord> decodeSlotRecord(std::span<const std::uint8_t> bytes);

/// An open slot file. It keeps more room than its record needs, in blocks that have been written before, so
/// that a write neither allocates nor can fail for want of space. Not safe for concurrent use.
class PreferencesSlot {
 public:
  PreferencesSlot() = default;
  /// Opens the file, making an empty one when it is missing; none, with errno set, when that fails.
  [[nodiscard]] static std::optional<PreferencesSlot> open(int directory, const char* name);

  /// None when the file holds no whole record, or cannot be read.
  [[nodiscard]] std::optional<SlotRecord> read();
  /// Whether no record was ever written to it.
  [[nodiscard]] bool isBlank() const;
  /// Writes an encoded record over what the slot held. Not yet durable. False when not all of the record could be
  /// written; the slot then holds anything.
  [[nodiscard]] bool write(std::span<const std::uint8_t> record);
  /// Gives the slot room for contents of so many bytes, in written blocks; false when there is not the space for
  /// it. The record in it stays as it is.
  [[nodiscard]] bool reserve(std::size_t contentBytes);
  /// How many bytes of contents there is room for.
  std::size_t room() const;

  int descriptor() const { return file_.get(); }

 private:
  [[nodiscard]] bool fill(std::size_t from, std::size_t to);

  FileDescriptor file_;
  /// Up to here the file's blocks have been written, or hold the record that was read.
  std::size_t written_ = 0;
};

}  // namespace kelvane
