// SPDX-License-Identifier: Apache-2.0
// What clients may leave with the daemon, and how much of it.
#include "client/StateLimits.h"

#include <algorithm>
#include <string>

#include "platform/Limits.h"
#include "protocols/Keys.h"

namespace kelvane {

namespace {

using StateError = KelvaneExportedObject::StateError;

/// Adds up what values come to.
class Measure {
 public:
  void addKey(const std::string& key) {
    bytes += limits::stateElementBytes + key.size();
    room += limits::stateElementBytes + 2 * key.size();
  }

  /// The value is in so many dictionaries and D-Bus containers.
  void add(const Value& value, int dictionaries, int containers) {
    isTooDeep = isTooDeep || dictionaries > limits::stateDictionaryDepth || containers > limits::stateContainerDepth;
    if (isTooDeep) {
      return;
    }
    if (const Value::Array* array = value.array()) {
      reach(containers + 3);
      for (const Value& element : *array) {
        bytes += limits::stateElementBytes;
        room += limits::stateElementBytes;
        add(element, dictionaries, containers + 2);
      }
    } else if (const auto dictionary = value.dictionary()) {
      reach(containers + 4);
      isTooDeep = isTooDeep || dictionaries == limits::stateDictionaryDepth;
      for (const auto& [key, entry] : *dictionary) {
        addKey(key);
        add(entry, dictionaries + 1, containers + 3);
      }
    } else {
      addPlain(value, containers);
    }
  }

  std::size_t bytes = 0;
  /// What they take at most in a binary property list, which may write a string with two bytes for each of its own;
  /// an element's share has what surrounds it there.
  std::size_t room = 0;
  bool isTooDeep = false;
  bool holdsNone = false;

 private:
  void addPlain(const Value& value, int containers) {
    reach(containers + (value.isData() || value.isDate() ? 2 : 1));
    holdsNone = holdsNone || value.isAbsent();
    if (const std::string* string = value.string()) {
      bytes += string->size();
      room += 2 * string->size();
    } else if (const Data* data = value.data()) {
      bytes += data->size();
      room += data->size();
    }
  }

  void reach(int containers) { isTooDeep = isTooDeep || containers > limits::stateContainerDepth; }
};

Measure measureOfOne(const Value& value) {
  Measure measure;
  measure.add(value, 0, 0);
  return measure;
}

std::optional<StateError> whyOfAnotherShape(const Measure& measure) {
  if (measure.isTooDeep) {
    return StateError{StateError::Cause::TooMuch, "The value has more than " +
                                                      std::to_string(limits::stateDictionaryDepth) +
                                                      " dictionaries, or too many arrays, within each other"};
  }
  if (measure.holdsNone) {
    return StateError{StateError::Cause::Unstorable, "The value holds none, which cannot be stored"};
  }
  return std::nullopt;
}

/// An entry of the state.
Measure measureOf(const std::string& key, const Value& value) {
  Measure measure;
  if (key != keys::recentServiceStats && !value.isAbsent()) {
    measure.addKey(key);
    measure.add(value, 0, 0);
  }
  return measure;
}

}  // namespace

std::optional<StateError> whyUnstorable(const Value& value) {
  const Measure measure = measureOfOne(value);
  if (measure.bytes > limits::stateValueBytes) {
    return StateError{StateError::Cause::TooMuch,
                      "The value takes more than " + std::to_string(limits::stateValueBytes) + " bytes"};
  }
  return whyOfAnotherShape(measure);
}

std::optional<StateError> whyNoRecord(const Value& value) {
  const Measure measure = measureOfOne(value);
  if (measure.room > limits::archiveBytes) {
    return StateError{StateError::Cause::TooMuch, "The value takes more than the " +
                                                      std::to_string(limits::archiveBytes) +
                                                      " bytes that are kept for the record of recent answers"};
  }
  return whyOfAnotherShape(measure);
}

StateTotals::StateTotals(const Value::Dictionary& state) {
  for (const auto& [key, value] : state) {
    *this = with(key, Value(), value);
  }
}

StateTotals StateTotals::with(const std::string& key, const Value& before, const Value& after) const {
  const Measure gone = measureOf(key, before);
  const Measure come = measureOf(key, after);
  StateTotals totals = *this;
  totals.keys_ += come.bytes > 0 ? 1U : 0U;
  totals.keys_ -= gone.bytes > 0 ? 1U : 0U;
  totals.bytes_ += come.bytes - gone.bytes;
  totals.room_ += come.room - gone.room;
  return totals;
}

std::variant<std::size_t, StateError> StateTotals::room() const {
  if (keys_ > limits::stateKeys) {
    return StateError{StateError::Cause::TooMuch,
                      "The state has more than " + std::to_string(limits::stateKeys) + " keys"};
  }
  if (bytes_ > limits::stateBytes) {
    return StateError{StateError::Cause::TooMuch,
                      "All state takes more than " + std::to_string(limits::stateBytes) + " bytes"};
  }
  // The record, and what is around it all.
  return room_ + limits::archiveBytes + 1024;
}

std::optional<std::string> whyTooMuchToKeep(const std::string& identifier, const Value& notifications) {
  if (identifier.size() > limits::serviceIdentifierBytes) {
    return "The identifier has more than " + std::to_string(limits::serviceIdentifierBytes) + " bytes";
  }
  const Measure measure = measureOfOne(notifications);
  if (measure.isTooDeep || measure.bytes > limits::notificationNamesBytes) {
    return "The names of notifications take more than " + std::to_string(limits::notificationNamesBytes) + " bytes";
  }
  return std::nullopt;
}

}  // namespace kelvane
