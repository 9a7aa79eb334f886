// SPDX-License-Identifier: Apache-2.0
// A dictionary on disk that survives crashes, power loss and a full disk.
#include "platform/linux/preferences/PreferencesStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>
#include <variant>

#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "platform/Reporting.h"
#include "platform/common/PropertyListReaders.h"

namespace kelvane {

namespace {

constexpr std::array<const char*, 2> slotNames = {"slot-a", "slot-b"};
constexpr propertyList::Bounds bounds = {limits::preferencesBytes, limits::preferencesEntries,
                                         limits::preferencesBytes};

void report(const std::string& text) {
  reporting::reportFailure("PreferencesStore::open", text);
}

FileDescriptor openDirectory(int parent, const char* name) {
  return FileDescriptor(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// The directory, made with those above it when they are missing; none with errno set.
FileDescriptor openParent(const std::string& directory) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(directory).parent_path(), error);
  if (error) {
    errno = error.value();
    return {};
  }
  if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return {};
  }
  return openDirectory(AT_FDCWD, directory.c_str());
}

/// The newer record that can be read, and which slot it is in.
struct Newest {
  std::size_t slot;
  std::uint64_t generation;
  Value::Dictionary contents;
  /// Something was written to the other slot, but it is no whole record.
  bool otherIsBroken;
};

std::optional<Newest> newestRecord(std::array<PreferencesSlot, 2>& slots) {
  std::optional<Newest> newest;
  bool oneIsBroken = false;
  for (std::size_t index = 0; index < slots.size(); ++index) {
    const std::optional<SlotRecord> record = slots[index].read();
    const propertyList::Result parsed =
        record ? propertyList::readBinary(record->contents, bounds) : propertyList::Result();
    const Value* value = std::get_if<Value>(&parsed);
    if (value == nullptr || !value->isDictionary()) {
      oneIsBroken = !slots[index].isBlank();
    } else if (!newest || newest->generation <= record->generation) {
      newest = Newest{index, record->generation, *value->dictionary(), false};
    }
  }
  if (newest) {
    newest->otherIsBroken = oneIsBroken;
  }
  return newest;
}

/// Makes a complete, durable store of an empty dictionary under a temporary name, then gives it its own, so
/// that a store is never found half made.
bool create(int parent, const std::string& directory, const std::string& name, PreferencesStore::Flush flush) {
  const std::string temporary = "." + name + ".new";
  std::error_code ignored;
  std::filesystem::remove_all(directory + "/" + temporary, ignored);
  if (mkdirat(parent, temporary.c_str(), 0700) != 0) {
    return false;
  }
  const FileDescriptor made = openDirectory(parent, temporary.c_str());
  auto first = made ? PreferencesSlot::open(made.get(), slotNames[0]) : std::nullopt;
  auto second = made ? PreferencesSlot::open(made.get(), slotNames[1]) : std::nullopt;
  const auto empty = propertyList::writeBinary(Value::Dictionary());
  return first && second && std::holds_alternative<Data>(empty) &&
         first->write(encodeSlotRecord(1, std::get<Data>(empty))) && first->reserve(limits::preferencesRoom) &&
         second->reserve(limits::preferencesRoom) && flush(first->descriptor()) == 0 &&
         flush(second->descriptor()) == 0 && fsync(made.get()) == 0 &&
         renameat(parent, temporary.c_str(), parent, name.c_str()) == 0 && fsync(parent) == 0;
}

/// Renames the store to the first free NAME.damaged-N, or the last.
bool keepAside(int parent, const std::string& directory, const std::string& name) {
  for (int number = 1; number <= limits::damagedPreferences; ++number) {
    const std::string aside = name + ".damaged-" + std::to_string(number);
    if (number == limits::damagedPreferences) {
      std::error_code ignored;
      std::filesystem::remove_all(directory + "/" + aside, ignored);
    }
    if (renameat2(parent, name.c_str(), parent, aside.c_str(), RENAME_NOREPLACE) == 0) {
      report("The preferences " + directory + "/" + name + " are damaged; kept as " + aside +
             " and replaced by empty ones");
      return true;
    }
    if (errno != EEXIST) {
      return false;
    }
  }
  return false;
}

}  // namespace

PreferencesStore::Condition PreferencesStore::load(const std::string& name) {
  for (std::size_t index = 0; index < slots_.size(); ++index) {
    auto slot = PreferencesSlot::open(directory_.get(), slotNames[index]);
    if (!slot) {
      const bool isOther = errno == ELOOP || errno == EISDIR || errno == ENXIO || errno == EINVAL;
      return isOther ? Condition::Damaged : Condition::Inaccessible;
    }
    slots_[index] = std::move(*slot);
  }
  std::optional<Newest> newest = newestRecord(slots_);
  if (!newest) {
    return Condition::Damaged;
  }
  if (newest->otherIsBroken) {
    report("The preferences " + name + ": " + slotNames[1 - newest->slot] +
           " holds no whole record, as after a write that was cut off; " + slotNames[newest->slot] + " is used");
  }
  generation_ = newest->generation;
  contents_ = std::move(newest->contents);
  // The newest record may have been written by a process that did not live to flush it. Until it is on disk
  // the other slot, which was flushed, must stay as it is.
  if (flush_(slots_[newest->slot].descriptor()) != 0) {
    next_ = newest->slot;
    return Condition::Good;
  }
  next_ = 1 - newest->slot;
  // As a copying program may have left them without. What cannot be had now may not be needed.
  for (PreferencesSlot& slot : slots_) {
    static_cast<void>(slot.reserve(limits::preferencesRoom));
  }
  return Condition::Good;
}

std::unique_ptr<PreferencesStore> PreferencesStore::openExisting(int parent, const std::string& name, Flush flush,
                                                                 Condition& condition) {
  FileDescriptor directory = openDirectory(parent, name.c_str());
  if (!directory) {
    condition = errno == ENOTDIR || errno == ELOOP ? Condition::Damaged : Condition::Inaccessible;
    return nullptr;
  }
  if (flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
    condition = Condition::Inaccessible;
    return nullptr;
  }
  auto store = std::unique_ptr<PreferencesStore>(new PreferencesStore(std::move(directory), flush));
  condition = store->load(name);
  return condition == Condition::Good ? std::move(store) : nullptr;
}

std::unique_ptr<PreferencesStore> PreferencesStore::open(const std::string& directory, const std::string& name,
                                                         Flush flush) {
  const FileDescriptor parent = openParent(directory);
  Condition condition = Condition::Inaccessible;
  std::unique_ptr<PreferencesStore> store;
  if (parent) {
    store = openExisting(parent.get(), name, flush, condition);
    const bool isMissing = !store && condition == Condition::Inaccessible && errno == ENOENT;
    const bool isReplaced = condition == Condition::Damaged && keepAside(parent.get(), directory, name);
    if ((isMissing || isReplaced) && create(parent.get(), directory, name, flush)) {
      store = openExisting(parent.get(), name, flush, condition);
    }
  }
  if (!store) {
    report("Unable to open the preferences " + directory + "/" + name + ": " + std::strerror(errno));
  }
  return store;
}

std::size_t PreferencesStore::room() const {
  return std::min(slots_[0].room(), slots_[1].room());
}

std::optional<std::string> PreferencesStore::makeRoom(std::size_t bytes) {
  // In steps, so that not every little more has to be flushed.
  constexpr std::size_t step = 256 * 1024;
  const std::size_t rounded = (bytes + step - 1) / step * step;
  for (PreferencesSlot& slot : slots_) {
    if (slot.room() >= bytes) {
      continue;
    }
    const bool isThere = slot.reserve(rounded) || slot.room() >= bytes;
    if (!isThere || flush_(slot.descriptor()) != 0) {
      return std::strerror(errno);
    }
  }
  return std::nullopt;
}

std::optional<std::string> PreferencesStore::write(const Value::Dictionary& contents) {
  const auto encoded = propertyList::writeBinary(contents, bounds);
  if (const auto* error = std::get_if<propertyList::Error>(&encoded)) {
    return error->text;
  }
  // Even a failed write uses its number up, as its record may be found later.
  ++generation_;
  if (!slots_[next_].write(encodeSlotRecord(generation_, std::get<Data>(encoded))) ||
      flush_(slots_[next_].descriptor()) != 0) {
    return std::strerror(errno);
  }
  next_ = 1 - next_;
  return std::nullopt;
}

}  // namespace kelvane
