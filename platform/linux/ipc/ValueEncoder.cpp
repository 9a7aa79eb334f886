// SPDX-License-Identifier: Apache-2.0
// Writes property-list values into D-Bus messages.
#include "platform/linux/ipc/ValueEncoder.h"

#include "platform/common/Utf8.h"
#include "platform/linux/ipc/ValueDecoder.h"

namespace kelvane::ipc {

namespace {

bool canTravel(const std::string& string) {
  return string.find('\0') == std::string::npos && utf8::isValid(string);
}

struct Written {
  const char* signature;
  /// How many containers it is, its variant and that of an element included.
  int depth;
};

Written writtenAs(const Value& value) {
  if (value.isString()) {
    return {"s", 1};
  }
  if (value.isBoolean()) {
    return {"b", 1};
  }
  if (value.isSigned()) {
    return {"x", 1};
  }
  if (value.isUnsigned()) {
    return {"t", 1};
  }
  if (value.isDouble()) {
    return {"d", 1};
  }
  if (value.isDate()) {
    return {"(d)", 2};
  }
  if (value.isData()) {
    return {"ay", 2};
  }
  if (value.isArray()) {
    return {"av", 3};
  }
  return value.isDictionary() ? Written{"a{sv}", 4} : Written{"o", 1};
}

}  // namespace

std::string wireText(std::string_view rest) {
  std::string text;
  while (!rest.empty()) {
    const std::optional<char32_t> codePoint = utf8::take(rest);
    utf8::append(text, codePoint.value_or(0) == 0 ? U'\uFFFD' : *codePoint);
  }
  return text;
}

bool ValueEncoder::appendVariant(const Value& value) {
  const Written written = writtenAs(value);
  if (depth_ + written.depth > wireContainerDepth) {
    return appendVariant(Value());
  }
  bytes_ += 8;
  return open(SD_BUS_TYPE_VARIANT, written.signature) && appendContents(value) && close();
}

bool ValueEncoder::appendContents(const Value& value) {
  if (const std::string* string = value.string()) {
    return appendString(*string);
  }
  if (value.isNumber()) {
    return appendNumber(value);
  }
  if (const Date* date = value.date()) {
    return open(SD_BUS_TYPE_STRUCT, "d") && appendBasic(SD_BUS_TYPE_DOUBLE, &date->secondsSince1970, 8) && close();
  }
  if (const Data* data = value.data()) {
    bytes_ += 8 + data->size();
    return sd_bus_message_append_array(message_, SD_BUS_TYPE_BYTE, data->data(), data->size()) >= 0;
  }
  if (const Value::Array* array = value.array()) {
    bytes_ += 8;
    if (!open(SD_BUS_TYPE_ARRAY, "v")) {
      return false;
    }
    for (const Value& element : *array) {
      if (!appendVariant(element)) {
        return false;
      }
    }
    return close();
  }
  if (value.isDictionary()) {
    return appendDictionary(value);
  }
  return appendBasic(SD_BUS_TYPE_OBJECT_PATH, "/", 8);
}

bool ValueEncoder::appendNumber(const Value& value) {
  if (value.isBoolean()) {
    const int boolean = value.boolValue() ? 1 : 0;
    return appendBasic(SD_BUS_TYPE_BOOLEAN, &boolean, 4);
  }
  if (value.isSigned()) {
    const std::int64_t number = value.int64Value();
    return appendBasic(SD_BUS_TYPE_INT64, &number, 8);
  }
  if (value.isUnsigned()) {
    const std::uint64_t number = value.uint64Value();
    return appendBasic(SD_BUS_TYPE_UINT64, &number, 8);
  }
  const double number = value.doubleValue();
  return appendBasic(SD_BUS_TYPE_DOUBLE, &number, 8);
}

bool ValueEncoder::appendDictionary(const Value& value) {
  const auto entries = value.dictionary();
  bytes_ += 8;
  if (!open(SD_BUS_TYPE_ARRAY, "{sv}")) {
    return false;
  }
  if (entries != nullptr && !appendEntries(*entries)) {
    return false;
  }
  return close();
}

bool ValueEncoder::appendEntries(const Value::Dictionary& entries) {
  for (const auto& [key, value] : entries) {
    bytes_ += 8;
    if (!open(SD_BUS_TYPE_DICT_ENTRY, "sv") || !appendString(key) || !appendVariant(value) || !close()) {
      return false;
    }
  }
  return true;
}

bool ValueEncoder::appendString(const std::string& string) {
  if (canTravel(string)) {
    return appendBasic(SD_BUS_TYPE_STRING, string.c_str(), 8 + string.size());
  }
  const std::string text = wireText(string);
  return appendBasic(SD_BUS_TYPE_STRING, text.c_str(), 8 + text.size());
}

bool ValueEncoder::appendBasic(char type, const void* value, std::size_t size) {
  bytes_ += size;
  return sd_bus_message_append_basic(message_, type, value) >= 0;
}

bool ValueEncoder::open(char type, const char* contents) {
  ++depth_;
  return sd_bus_message_open_container(message_, type, contents) >= 0;
}

bool ValueEncoder::close() {
  --depth_;
  return sd_bus_message_close_container(message_) >= 0;
}

}  // namespace kelvane::ipc
