// SPDX-License-Identifier: Apache-2.0
// Info dictionaries, as a client of any kind may send them.
#include "tests/hostile/Info.h"

#include <algorithm>

#include "platform/linux/ipc/ValueDecoder.h"
#include "protocols/Keys.h"
#include "tests/hostile/Places.h"

namespace kelvane::test {

namespace {

/// Appends what is in a container; negative when any of it failed.
template <typename Contents>
int within(sd_bus_message* message, char type, const char* contents, Contents append) {
  int result = sd_bus_message_open_container(message, type, contents);
  result = result < 0 ? result : append();
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendNestedDictionaries(sd_bus_message* message, int depth) {
  return within(message, 'a', "{sv}", [=] {
    return depth <= 1 ? 0 : within(message, 'e', "sv", [=] {
      const int result = sd_bus_message_append(message, "s", "deeper");
      return result < 0 ? result
                        : within(message, 'v', "a{sv}", [=] { return appendNestedDictionaries(message, depth - 1); });
    });
  });
}

int appendNestedArrays(sd_bus_message* message, int depth) {
  return within(message, 'a', "v", [=] {
    return depth <= 1 ? 0 : within(message, 'v', "av", [=] { return appendNestedArrays(message, depth - 1); });
  });
}

}  // namespace

Append variant(std::string text) {
  return [text = std::move(text)](sd_bus_message* message) {
    return sd_bus_message_append(message, "v", "s", text.c_str());
  };
}

Append variant(const char* text) {
  return variant(std::string(text));
}

Append variant(double number) {
  return [number](sd_bus_message* message) { return sd_bus_message_append(message, "v", "d", number); };
}

Append dataOf(std::size_t size) {
  return [size](sd_bus_message* message) {
    return within(message, 'v', "ay", [=] {
      const std::vector<std::uint8_t> bytes(size);
      return sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size());
    });
  };
}

Append nestedDictionaries(int depth) {
  return [depth](sd_bus_message* message) {
    return within(message, 'v', "a{sv}", [=] { return appendNestedDictionaries(message, depth); });
  };
}

Append nestedArrays(int depth) {
  return [depth](sd_bus_message* message) {
    return within(message, 'v', "av", [=] { return appendNestedArrays(message, depth); });
  };
}

Append info(std::vector<Entry> entries) {
  return [entries = std::move(entries)](sd_bus_message* message) {
    return within(message, 'a', "{sv}", [&] {
      int result = 0;
      for (const Entry& entry : entries) {
        const auto appendEntry = [&] {
          const int appended = sd_bus_message_append(message, "s", entry.key.c_str());
          return appended < 0 ? appended : entry.value(message);
        };
        result = result < 0 ? result : within(message, 'e', "sv", appendEntry);
      }
      return result;
    });
  };
}

Append reply(std::vector<Entry> entries) {
  return [contents = info(std::move(entries))](sd_bus_message* message) {
    return within(message, 'v', "a{sv}", [&] { return contents(message); });
  };
}

Append purgeOf(std::uint64_t bytes, std::vector<Entry> more) {
  std::vector<Entry> entries = {
      {keys::volume, volume}, {keys::amount, bytes}, {keys::urgencyLimit, 1}, {keys::purgeTimeout, 1}};
  std::move(more.begin(), more.end(), std::back_inserter(entries));
  return info(std::move(entries));
}

Entry untilAnswered() {
  return {keys::purgeTimeout, 60};
}

Value nextValue(const Message& message) {
  ipc::ValueDecoder decoder(message.get(), 64, SIZE_MAX);
  return decoder.next().value_or(Value());
}

}  // namespace kelvane::test
