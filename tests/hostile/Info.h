// SPDX-License-Identifier: Apache-2.0
// Info dictionaries, as a client of any kind may send them.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "tests/linux/testing/BusMessage.h"

namespace kelvane::test {

// A value in a variant.
Append variant(std::string text);
Append variant(const char* text);
Append variant(double number);
template <std::integral Number>
Append variant(Number number) {
  return [number](sd_bus_message* message) {
    if constexpr (std::same_as<Number, bool>) {
      return sd_bus_message_append(message, "v", "b", int{number});
    } else if constexpr (std::signed_integral<Number>) {
      return sd_bus_message_append(message, "v", "x", std::int64_t{number});
    } else {
      return sd_bus_message_append(message, "v", "t", std::uint64_t{number});
    }
  };
}
/// Bytes, all of them 0.
Append dataOf(std::size_t size);
/// So many dictionaries, or arrays, within each other.
Append nestedDictionaries(int depth);
Append nestedArrays(int depth);

/// One entry of a dictionary.
struct Entry {
  template <typename Plain>
  requires requires(Plain plain) { variant(plain); }
  Entry(std::string name, Plain plain) : key(std::move(name)), value(variant(plain)) {}
  Entry(std::string name, Append appendVariant) : key(std::move(name)), value(std::move(appendVariant)) {}

  std::string key;
  Append value;
};

/// A dictionary; of several entries under one key all are sent.
Append info(std::vector<Entry> entries);
/// A dictionary in a variant.
Append reply(std::vector<Entry> entries);

/// What asks for bytes of the test's volume at urgency 1, in a pass that takes a second at most; more entries
/// come after, and so instead of these.
Append purgeOf(std::uint64_t bytes, std::vector<Entry> more = {});
/// For a purge whose services all answer: its pass ends when they have, however long that takes on a busy machine.
Entry untilAnswered();

/// What the next arguments of a message come to; absent where there is no value.
Value nextValue(const Message& message);

}  // namespace kelvane::test
