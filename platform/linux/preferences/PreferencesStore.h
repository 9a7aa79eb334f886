// SPDX-License-Identifier: Apache-2.0
// A dictionary on disk that survives crashes, power loss and a full disk.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/Result.h"
#include "platform/Value.h"
#include "platform/linux/preferences/DiskCalls.h"
#include "platform/linux/preferences/PreferencesSlot.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

/// A directory with two slot files, written in turn. At every moment one of them holds, on disk, the last
/// contents that flush() reported as written, and the other is the one that may be changed. One whose files are removed
/// or replaced while it is open is made anew by the next write, and what is in its place kept aside. Not safe for
/// concurrent use; locked against other processes while it is open, with all stores of its directory.
class PreferencesStore {
 public:
  using IsGivenUp = std::function<bool()>;

  /// Opens the store of this name beneath the directory, or makes both. A damaged one is renamed to NAME.damaged-N,
  /// logged and replaced by an empty one; one that cannot be read, or that a later version has written, stays as it
  /// is. Of one that cannot be made nothing is left. Fails with EBUSY while another process has a store of the
  /// directory open. Once nobody waits for it any more it fails with ECANCELED, and nothing more is changed, but that
  /// what it was making is removed; without the function somebody always does.
  static Result<std::unique_ptr<PreferencesStore>> open(const std::string& directory, const std::string& name,
                                                        const DiskCalls& calls = {}, const IsGivenUp& isGivenUp = {});

  /// What the store held when it was opened, until it is taken.
  const Value::Dictionary& contents() const { return contents_; }
  Value::Dictionary takeContents() { return std::move(contents_); }
  /// How many bytes the binary property list of contents may take that can be written without any more space.
  std::size_t room() const;
  /// Brings the room to at least so many bytes. The contents are as they were in any case.
  Result<> makeRoom(std::size_t bytes);

  /// The two halves of a write, which replaces the contents. What was handed over outlives this process, but not the
  /// system; what was handed over and then flushed outlives both. When either fails, for instance because the contents
  /// do not fit into limits::preferencesBytes, the old ones are what a later opening finds, unless the new got through
  /// all the same, and nothing of the failed write is relied on again.
  Result<> handOver(const Value& contents);
  Result<> flush();
  /// Whether flush() has something that it may rely on.
  bool isHandedOver() const { return isHandedOver_ && isInPlace(); }

 private:
  /// What there is under a store's name.
  enum class Finding { Store, Nothing, Damage };

  PreferencesStore(std::string directory, std::string name, const DiskCalls& calls);
  Result<Finding> find();
  Result<> openSlots(PreferencesSlot::Missing missing);
  Result<Finding> load();
  Result<> create(const Data& record, std::size_t room);
  Result<> makeWhole(const std::string& temporary, const Data& record, std::size_t room) const;
  Result<> createAgain(std::span<const std::uint8_t> contents);
  Result<> putInPlace(const std::string& temporary);
  Result<> openPlaced();
  Result<> whetherAwaited() const;
  bool isInPlace() const;
  Result<> settle();

  std::string directory_;
  std::string name_;
  DiskCalls calls_;
  /// Only while it is being opened.
  IsGivenUp isGivenUp_;
  /// Of all stores; holds the lock.
  FileDescriptor parent_;
  /// Of this one.
  FileDescriptor place_;
  std::array<PreferencesSlot, 2> slots_;
  /// The slot whose record is not needed.
  std::size_t next_ = 0;
  std::uint64_t generation_ = 0;
  /// The record found at opening, while it is not known to be on disk.
  Data unsettled_;
  /// Whether the next slot holds a whole record that waits for its flush.
  bool isHandedOver_ = false;
  Value::Dictionary contents_;
};

}  // namespace kelvane
