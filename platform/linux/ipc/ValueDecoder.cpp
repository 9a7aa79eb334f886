// SPDX-License-Identifier: Apache-2.0
// Reads property-list values out of D-Bus messages.
#include "platform/linux/ipc/ValueDecoder.h"

#include <cstring>
#include <utility>

namespace kelvane::ipc {

namespace {

// What each kind of value takes besides its Value, reference counts and allocation included.
constexpr std::size_t stringCost = 64;
constexpr std::size_t arrayCost = 64;
constexpr std::size_t dictionaryCost = 96;
constexpr std::size_t entryCost = 112;

// How many containers a value of each kind is written as, its variant included.
constexpr int dataDepth = 2;
constexpr int dateDepth = 2;
constexpr int arrayDepth = 2;
constexpr int dictionaryDepth = 3;
/// What a container needs besides for the least that can be in it.
constexpr int elementDepth = 1;

/// Longer keys are left out of error texts.
constexpr std::size_t shownKeyBytes = 64;

template <typename Number>
int readNumber(sd_bus_message* message, char type, Value& value) {
  Number number{};
  const int result = sd_bus_message_read_basic(message, type, &number);
  value = Value(number);
  return result;
}

}  // namespace

std::optional<Value> ValueDecoder::next() {
  Value value;
  if (!read(value)) {
    return std::nullopt;
  }
  return value;
}

bool ValueDecoder::read(Value& value) {
  char type = 0;
  const char* peeked = nullptr;
  if (sd_bus_message_peek_type(message_, &type, &peeked) <= 0) {
    return failAsMalformed();
  }
  // The library reuses what it points to while containers are entered.
  const std::string contents = peeked == nullptr ? "" : peeked;
  switch (type) {
    case SD_BUS_TYPE_VARIANT:
      return readVariant(contents, value);
    case SD_BUS_TYPE_ARRAY:
      if (contents == "y") {
        return readData(value);
      }
      return contents.starts_with('{') ? readDictionary(contents, value) : readArray(contents, value);
    case SD_BUS_TYPE_STRUCT:
      return readDate(contents, value);
    default:
      return readBasic(type, value);
  }
}

bool ValueDecoder::readBasic(char type, Value& value) {
  int result = 0;
  const char* text = nullptr;
  switch (type) {
    case SD_BUS_TYPE_STRING:
      result = sd_bus_message_read_basic(message_, type, &text);
      if (result > 0) {
        if (!charge(stringCost + std::strlen(text))) {
          return false;
        }
        value = Value(text);
      }
      break;
    case SD_BUS_TYPE_BOOLEAN: {
      int boolean = 0;
      result = sd_bus_message_read_basic(message_, type, &boolean);
      value = Value(boolean != 0);
      break;
    }
    case SD_BUS_TYPE_BYTE:
      result = readNumber<std::uint8_t>(message_, type, value);
      break;
    case SD_BUS_TYPE_INT16:
      result = readNumber<std::int16_t>(message_, type, value);
      break;
    case SD_BUS_TYPE_UINT16:
      result = readNumber<std::uint16_t>(message_, type, value);
      break;
    case SD_BUS_TYPE_INT32:
      result = readNumber<std::int32_t>(message_, type, value);
      break;
    case SD_BUS_TYPE_UINT32:
      result = readNumber<std::uint32_t>(message_, type, value);
      break;
    case SD_BUS_TYPE_INT64:
      result = readNumber<std::int64_t>(message_, type, value);
      break;
    case SD_BUS_TYPE_UINT64:
      result = readNumber<std::uint64_t>(message_, type, value);
      break;
    case SD_BUS_TYPE_DOUBLE:
      result = readNumber<double>(message_, type, value);
      break;
    case SD_BUS_TYPE_OBJECT_PATH:
      result = sd_bus_message_read_basic(message_, type, &text);
      if (result > 0 && std::strcmp(text, "/") != 0) {
        return fail("an object path other than \"/\" stands for no value");
      }
      value = Value();
      break;
    case SD_BUS_TYPE_SIGNATURE:
      return fail("a signature stands for no value");
    case SD_BUS_TYPE_UNIX_FD:
      return fail("a file descriptor stands for no value");
    default:
      return fail("a type of D-Bus that stands for no value");
  }
  return result > 0 || failAsMalformed();
}

bool ValueDecoder::readData(Value& value) {
  const void* bytes = nullptr;
  std::size_t size = 0;
  if (sd_bus_message_read_array(message_, SD_BUS_TYPE_BYTE, &bytes, &size) < 0) {
    return failAsMalformed();
  }
  if (!reserveDepth(dataDepth) || !charge(arrayCost + size)) {
    return false;
  }
  const auto* begin = static_cast<const std::uint8_t*>(bytes);
  value = size == 0 ? Value(Data()) : Value(Data(begin, begin + size));
  return true;
}

bool ValueDecoder::readArray(const std::string& contents, Value& value) {
  if (!reserveDepth(arrayDepth + elementDepth) || !charge(arrayCost) || !enter(SD_BUS_TYPE_ARRAY, contents)) {
    return false;
  }
  depth_ += arrayDepth;
  Value::Array elements;
  while (sd_bus_message_at_end(message_, 0) == 0) {
    if (!charge(sizeof(Value)) || !read(elements.emplace_back())) {
      return false;
    }
  }
  depth_ -= arrayDepth;
  value = Value(std::move(elements));
  return leave();
}

bool ValueDecoder::readDictionary(const std::string& contents, Value& value) {
  const std::string entry = contents.substr(1, contents.size() - 2);
  if (!entry.starts_with(SD_BUS_TYPE_STRING)) {
    return fail("the keys of a dictionary are no strings");
  }
  if (dictionaries_ >= maximumDictionaries_) {
    return fail("more than " + std::to_string(maximumDictionaries_) + " dictionaries lie within each other");
  }
  if (!reserveDepth(dictionaryDepth + elementDepth) || !charge(dictionaryCost) || !enter(SD_BUS_TYPE_ARRAY, contents)) {
    return false;
  }
  ++dictionaries_;
  depth_ += dictionaryDepth;
  Value::Dictionary entries;
  if (!readEntries(entry, entries)) {
    return false;
  }
  depth_ -= dictionaryDepth;
  --dictionaries_;
  value = Value(std::move(entries));
  return leave();
}

bool ValueDecoder::readEntries(const std::string& entry, Value::Dictionary& entries) {
  const char* const outerKey = key_;
  while (sd_bus_message_at_end(message_, 0) == 0) {
    const char* key = nullptr;
    if (!enter(SD_BUS_TYPE_DICT_ENTRY, entry)) {
      return false;
    }
    if (sd_bus_message_read_basic(message_, SD_BUS_TYPE_STRING, &key) <= 0) {
      return failAsMalformed();
    }
    key_ = key;
    Value value;
    if (!charge(entryCost + std::strlen(key)) || !read(value) || !leave()) {
      return false;
    }
    // Of several entries under one key, the last counts.
    entries.insert_or_assign(key, std::move(value));
  }
  key_ = outerKey;
  return true;
}

bool ValueDecoder::readVariant(const std::string& contents, Value& value) {
  if (!enter(SD_BUS_TYPE_VARIANT, contents)) {
    return false;
  }
  // One letter names a basic type, or a variant; asking for the former once more is a tenth of the reading.
  const bool isBasic = contents.size() == 1 && contents.front() != SD_BUS_TYPE_VARIANT;
  return (isBasic ? readBasic(contents.front(), value) : read(value)) && leave();
}

bool ValueDecoder::readDate(const std::string& contents, Value& value) {
  if (contents != "d") {
    return fail("a structure other than (d) stands for no value");
  }
  Date date;
  if (!reserveDepth(dateDepth) || !enter(SD_BUS_TYPE_STRUCT, contents)) {
    return false;
  }
  if (sd_bus_message_read_basic(message_, SD_BUS_TYPE_DOUBLE, &date.secondsSince1970) <= 0) {
    return failAsMalformed();
  }
  value = Value(date);
  return leave();
}

bool ValueDecoder::enter(char type, const std::string& contents) {
  return sd_bus_message_enter_container(message_, type, contents.c_str()) > 0 || failAsMalformed();
}

bool ValueDecoder::leave() {
  return sd_bus_message_exit_container(message_) >= 0 || failAsMalformed();
}

/// Whether as many containers more can lie within each other here.
bool ValueDecoder::reserveDepth(int containers) {
  return depth_ + containers <= wireContainerDepth || fail("arrays and dictionaries lie too deep within each other");
}

bool ValueDecoder::charge(std::size_t bytes) {
  cost_ += bytes;
  return !isOverBudget() || fail("the values take too much memory");
}

bool ValueDecoder::fail(std::string text) {
  if (error_.empty()) {
    error_ = std::move(text) + place();
  }
  return false;
}

bool ValueDecoder::failAsMalformed() {
  return fail("the message is malformed");
}

std::string ValueDecoder::place() const {
  if (key_ == nullptr || std::strlen(key_) > shownKeyBytes) {
    return "";
  }
  return std::string(" (under \"") + key_ + "\")";
}

}  // namespace kelvane::ipc
