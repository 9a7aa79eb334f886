// SPDX-License-Identifier: Apache-2.0
// A dictionary on disk that survives crashes, power loss and a full disk.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Value.h"
#include "platform/linux/preferences/PreferencesSlot.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

/// A directory with two slot files, written in turn. At every moment one of them holds, on disk, the last
/// contents that write() reported as written, and the other is the one that may be changed. Not safe for
/// concurrent use; locked against other processes while it is open.
class PreferencesStore {
 public:
  /// Makes a descriptor's data durable: 0, or -1 with errno set.
  using Flush = int (*)(int descriptor);

  /// Opens the store of this name beneath the directory, or makes both. A damaged one is renamed to
  /// NAME.damaged-N, logged and replaced by an empty one. Null, and logged, when that cannot be done.
  [[nodiscard]] static std::unique_ptr<PreferencesStore> open(const std::string& directory, const std::string& name,
                                                              Flush flush);

  /// What the store held when it was opened.
  const Value::Dictionary& contents() const { return contents_; }
  /// How many bytes the binary property list of contents may take that can be written without any more space.
  std::size_t room() const;
  /// Brings the room to at least so many bytes. Otherwise says what went wrong; the contents are as they were in
  /// any case.
  [[nodiscard]] std::optional<std::string> makeRoom(std::size_t bytes);
  /// Replaces the contents, durably when it returns none. Otherwise says what went wrong, for instance that
  /// they do not fit into limits::preferencesBytes; the old contents then are what a later opening finds,
  /// unless the new got through all the same, and nothing of the failed write is relied on again.
  [[nodiscard]] std::optional<std::string> write(const Value::Dictionary& contents);

 private:
  enum class Condition { Good, Damaged, Inaccessible };

  PreferencesStore(FileDescriptor directory, Flush flush) : directory_(std::move(directory)), flush_(flush) {}
  [[nodiscard]] static std::unique_ptr<PreferencesStore> openExisting(int parent, const std::string& name, Flush flush,
                                                                      Condition& condition);
  [[nodiscard]] Condition load(const std::string& name);

  /// Holds the lock.
  FileDescriptor directory_;
  Flush flush_;
  std::array<PreferencesSlot, 2> slots_;
  /// The slot whose record is not needed.
  std::size_t next_ = 0;
  std::uint64_t generation_ = 0;
  Value::Dictionary contents_;
};

}  // namespace kelvane
