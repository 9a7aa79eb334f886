// SPDX-License-Identifier: Apache-2.0
// A dictionary on disk that survives crashes, power loss and a full disk.
#include "platform/linux/preferences/PreferencesStore.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <utility>
#include <variant>

#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "platform/Reporting.h"
#include "platform/common/PropertyListReaders.h"
#include "platform/linux/preferences/StoreDirectory.h"

namespace kelvane {

namespace {

constexpr propertyList::Bounds bounds = {limits::preferencesBytes, limits::preferencesEntries,
                                         limits::preferencesBytes};

void report(const std::string& text) {
  reporting::reportFailure("PreferencesStore::open", text);
}

/// The newer whole record.
struct Newest {
  std::size_t slot = 0;
  std::uint64_t generation = 0;
  Data record;
  Value::Dictionary contents;
};

/// What the slots hold together.
struct Survey {
  std::optional<Newest> newest;
  /// Something was written to a slot that is no whole record.
  bool hasTorn = false;
};

Result<Survey> survey(std::array<PreferencesSlot, 2>& slots) {
  Survey found;
  for (std::size_t index = 0; index < slots.size(); ++index) {
    const auto contents = slots[index] ? slots[index].read() : SlotContents(TornSlot());
    if (!contents) {
      return contents.failure();
    }
    if (const auto* foreign = std::get_if<ForeignSlot>(&*contents)) {
      return Failure{.tried = std::string(slotNames[index]) + " has format " + std::to_string(foreign->format) +
                              ", and this version knows " + std::to_string(slotFormat)};
    }
    const auto* record = std::get_if<SlotRecord>(&*contents);
    const propertyList::Result parsed =
        record != nullptr ? propertyList::readBinary(record->contents, bounds) : propertyList::Result();
    const Value* value = std::get_if<Value>(&parsed);
    if (value == nullptr || !value->isDictionary()) {
      found.hasTorn = found.hasTorn || !std::holds_alternative<BlankSlot>(*contents);
    } else if (!found.newest || found.newest->generation <= record->generation) {
      found.newest = Newest{index, record->generation, encodeSlotRecord(record->generation, record->contents),
                            *value->dictionary()};
    }
  }
  return found;
}

bool isNoFile(int error) {
  return error == ELOOP || error == EISDIR || error == ENXIO || error == EINVAL;
}

/// What a slot's failure to open says about the store, the graver the later.
enum class Obstacle { Missing, NoFile, Unreadable };
Obstacle obstacle(const Failure& failure) {
  return failure.number == ENOENT   ? Obstacle::Missing
         : isNoFile(failure.number) ? Obstacle::NoFile
                                    : Obstacle::Unreadable;
}

}  // namespace

PreferencesStore::PreferencesStore(std::string directory, std::string name, const DiskCalls& calls)
    : directory_(std::move(directory)), name_(std::move(name)), calls_(calls) {}

Result<std::unique_ptr<PreferencesStore>> PreferencesStore::open(const std::string& directory, const std::string& name,
                                                                 const DiskCalls& calls, const IsGivenUp& isGivenUp) {
  auto parent = openStores(directory);
  if (!parent) {
    return parent.failure();
  }
  std::unique_ptr<PreferencesStore> store(new PreferencesStore(directory, name, calls));
  store->isGivenUp_ = isGivenUp;
  store->parent_ = *std::move(parent);
  auto found = store->find();
  if (const auto awaited = store->whetherAwaited(); !awaited) {
    return awaited.failure();
  }
  if (found && *found == Finding::Damage) {
    const auto kept = keepAside(store->parent_.get(), directory, name, name);
    if (!kept) {
      return kept.failure();
    }
    report("The preferences " + directory + "/" + name + " are damaged; kept as " + *kept +
           " and replaced by empty ones");
  }
  if (!found || *found == Finding::Store) {
    store->isGivenUp_ = {};
    return found ? Result(std::move(store)) : found.failure();
  }
  const auto empty = propertyList::writeBinary(Value::Dictionary());
  if (const auto created = store->create(encodeSlotRecord(1, std::get<Data>(empty)), limits::preferencesRoom);
      !created) {
    return created.failure();
  }
  store->isGivenUp_ = {};
  return store;
}

/// To be asked before anything is changed.
Result<> PreferencesStore::whetherAwaited() const {
  return isGivenUp_ && isGivenUp_() ? Failure{.number = ECANCELED, .tried = "opening the store"} : Result<>();
}

Result<PreferencesStore::Finding> PreferencesStore::find() {
  place_ = openDirectory(parent_.get(), name_.c_str());
  if (place_) {
    return load();
  }
  if (errno == ENOENT) {
    return Finding::Nothing;
  }
  return errno == ENOTDIR || errno == ELOOP ? Result(Finding::Damage) : systemFailure("opening", name_);
}

Result<PreferencesStore::Finding> PreferencesStore::load() {
  slots_ = {};
  // Nothing is made before it is known that all there is can be relied on.
  const auto opened = openSlots(PreferencesSlot::Missing::Fails);
  if (!opened && obstacle(opened.failure()) == Obstacle::Unreadable) {
    return opened.failure();
  }
  auto found = survey(slots_);
  if (!found) {
    return found.failure();
  }
  if (!found->newest || (!opened && obstacle(opened.failure()) == Obstacle::NoFile)) {
    return Finding::Damage;
  }
  if (const auto awaited = whetherAwaited(); !awaited) {
    return awaited.failure();
  }
  if (auto made = openSlots(PreferencesSlot::Missing::IsMade); !made) {
    return made.failure();
  }
  Newest& newest = *found->newest;
  if (found->hasTorn) {
    report("The preferences " + name_ + ": " + slotNames[1 - newest.slot] +
           " holds no whole record, as after a write that was cut off; " + slotNames[newest.slot] + " is used");
  }
  generation_ = newest.generation;
  contents_ = std::move(newest.contents);
  next_ = 1 - newest.slot;
  unsettled_ = std::move(newest.record);
  // What cannot be had now may be had before the first write, or may not be needed.
  static_cast<void>(settle());
  for (PreferencesSlot& slot : slots_) {
    if (const auto awaited = whetherAwaited(); !awaited) {
      return awaited.failure();
    }
    static_cast<void>(slot.reserve(limits::preferencesRoom));
  }
  return Finding::Store;
}

/// Those that are not open yet. When one is missing and not to be made the others are open all the same, and it fails
/// with ENOENT; a failure that says more goes before it.
Result<> PreferencesStore::openSlots(PreferencesSlot::Missing missing) {
  Result<> outcome;
  for (std::size_t index = 0; index < slots_.size(); ++index) {
    if (slots_[index]) {
      continue;
    }
    auto slot = PreferencesSlot::open(place_.get(), slotNames[index], missing, calls_);
    if (slot) {
      slots_[index] = *std::move(slot);
      if (missing == PreferencesSlot::Missing::IsMade && calls_.flushDirectory(place_.get()) != 0) {
        return systemFailure("flushing the directory of", slotNames[index]);
      }
    } else if (outcome || obstacle(slot.failure()) > obstacle(outcome.failure())) {
      outcome = slot.failure();
    }
  }
  return outcome;
}

/// The newest record may have been written by a process that did not live to flush it, or whose flush failed, after
/// which the kernel counts as written what is in memory only. So it is written again, the same bytes over themselves,
/// and flushed. Until then neither slot may be changed: this one may be the newest on disk, the other the only one.
Result<> PreferencesStore::settle() {
  if (unsettled_.empty()) {
    return {};
  }
  PreferencesSlot& newest = slots_[1 - next_];
  auto settled = newest.write(unsettled_);
  if (settled) {
    settled = newest.flush();
  }
  if (settled) {
    unsettled_ = {};
  }
  return settled;
}

/// Makes a complete, durable store of a record and so much room under a temporary name, then gives it its own, so that
/// a store is never found half made, and opens it. What had its name is kept aside. Of one that fails nothing is left.
Result<> PreferencesStore::create(const Data& record, std::size_t room) {
  const std::string temporary = "." + name_ + ".new";
  // A process that was killed may have left one.
  auto made = removeStore(parent_.get(), directory_, temporary);
  if (!made) {
    return made;
  }
  made = makeWhole(temporary, record, room);
  made = made ? putInPlace(temporary) : made;
  if (!made) {
    static_cast<void>(removeStore(parent_.get(), directory_, temporary));
  }
  return made;
}

Result<> PreferencesStore::makeWhole(const std::string& temporary, const Data& record, std::size_t room) const {
  if (mkdirat(parent_.get(), temporary.c_str(), 0700) != 0) {
    return systemFailure("making", temporary);
  }
  const FileDescriptor made = openDirectory(parent_.get(), temporary.c_str());
  if (!made) {
    return systemFailure("opening", temporary);
  }
  for (std::size_t index = 0; index < slotNames.size(); ++index) {
    if (auto awaited = whetherAwaited(); !awaited) {
      return awaited;
    }
    auto slot = PreferencesSlot::open(made.get(), slotNames[index], PreferencesSlot::Missing::IsMade, calls_);
    if (!slot) {
      return slot.failure();
    }
    Result<> done = index == 0 ? slot->write(record) : Result<>();
    done = done ? slot->reserve(room) : done;
    done = done ? slot->flush() : done;
    if (!done) {
      return done;
    }
  }
  if (auto awaited = whetherAwaited(); !awaited) {
    return awaited;
  }
  return calls_.flushDirectory(made.get()) == 0 ? Result<>() : systemFailure("making", name_);
}

/// At no moment is there no store, nor has what is displaced a name that anything else may get: it takes the new
/// store's, which has one to be kept aside by until then. When it fails all is where it was, but for the new store.
Result<> PreferencesStore::putInPlace(const std::string& temporary) {
  if (auto flushed = flushDirectoriesAbove(directory_, calls_.flushDirectory); !flushed) {
    return flushed;
  }
  const int parent = parent_.get();
  struct stat status;
  const bool isReplacing = fstatat(parent, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  std::string other = temporary;
  if (isReplacing) {
    const auto aside = keepAside(parent, directory_, temporary, name_);
    if (!aside) {
      return aside.failure();
    }
    other = *aside;
  }
  auto placed = isReplacing ? renameEntry(parent, directory_, name_, other, RENAME_EXCHANGE)
                            : renameEntry(parent, directory_, other, name_);
  bool isBack = !placed;
  if (placed) {
    placed = openPlaced();
    isBack = !placed && renameEntry(parent, directory_, name_, other, isReplacing ? RENAME_EXCHANGE : 0);
  }
  if (isBack) {
    static_cast<void>(removeStore(parent, directory_, other));
  } else if (isReplacing) {
    report("What was in the place of the preferences " + name_ + " is kept as " + other);
  }
  return placed;
}

Result<> PreferencesStore::openPlaced() {
  if (calls_.flushDirectory(parent_.get()) != 0) {
    return systemFailure("making", name_);
  }
  const auto found = find();
  if (!found) {
    return found.failure();
  }
  return *found == Finding::Store ? Result<>() : Failure{.tried = "finding the new " + directory_ + "/" + name_};
}

/// Whether a later opening will find the files that are open.
bool PreferencesStore::isInPlace() const {
  bool isInPlace = leadsTo(AT_FDCWD, directory_.c_str(), FinalLink::IsFollowed, parent_) &&
                   leadsTo(parent_.get(), name_.c_str(), FinalLink::IsNot, place_);
  for (std::size_t index = 0; index < slots_.size() && isInPlace; ++index) {
    isInPlace = leadsTo(place_.get(), slotNames[index], FinalLink::IsNot, slots_[index].file());
  }
  return isInPlace;
}

/// Somebody has removed the store, or put something in its place.
Result<> PreferencesStore::createAgain(std::span<const std::uint8_t> contents) {
  if (!leadsTo(AT_FDCWD, directory_.c_str(), FinalLink::IsFollowed, parent_)) {
    auto parent = openStores(directory_);
    if (!parent) {
      return parent.failure();
    }
    parent_ = *std::move(parent);
  }
  auto created = create(encodeSlotRecord(++generation_, contents), std::max(room(), limits::preferencesRoom));
  if (created) {
    contents_ = {};
    report("The preferences " + directory_ + "/" + name_ + " were removed or replaced while they were open; made anew");
  }
  return created;
}

std::size_t PreferencesStore::room() const {
  return std::min(slots_[0].room(), slots_[1].room());
}

Result<> PreferencesStore::makeRoom(std::size_t bytes) {
  // In steps, so that not every little more has to be flushed.
  constexpr std::size_t step = 256 * 1024;
  const std::size_t rounded = (bytes + step - 1) / step * step;
  for (PreferencesSlot& slot : slots_) {
    if (slot.room() >= bytes) {
      continue;
    }
    auto made = slot.reserve(rounded);
    made = made || slot.room() >= bytes ? slot.flush() : made;
    if (!made) {
      // A failed flush of what was handed over may have lost it, and a later one would not say so.
      isHandedOver_ = false;
      return made;
    }
  }
  return {};
}

Result<> PreferencesStore::handOver(const Value& contents) {
  const auto encoded = propertyList::writeBinary(contents, bounds);
  if (const auto* error = std::get_if<propertyList::Error>(&encoded)) {
    return Failure{.tried = error->text};
  }
  const auto& bytes = std::get<Data>(encoded);
  if (auto ready = isInPlace() ? settle() : createAgain(bytes); !ready) {
    return ready;
  }
  // Even a failed write uses its number up, as its record may be found later.
  ++generation_;
  auto written = slots_[next_].write(encodeSlotRecord(generation_, bytes));
  isHandedOver_ = static_cast<bool>(written);
  return written;
}

Result<> PreferencesStore::flush() {
  if (!isHandedOver_) {
    return Failure{.tried = "nothing was handed over since the last flush"};
  }
  // Whatever comes of it: what a failed flush has not written is no longer known to be in memory either.
  isHandedOver_ = false;
  auto flushed = slots_[next_].flush();
  if (flushed && !isInPlace()) {
    return Failure{.tried = "flushing the preferences " + name_ + ": they were removed or replaced"};
  }
  if (flushed) {
    next_ = 1 - next_;
  }
  return flushed;
}

}  // namespace kelvane
