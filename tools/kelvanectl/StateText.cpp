// SPDX-License-Identifier: Apache-2.0
// What is in the state store, for people and for programs.
#include "tools/kelvanectl/StateText.h"

#include <fmt/format.h>

#include <iterator>
#include <nlohmann/json.hpp>

#include "platform/Printable.h"
#include "tools/kelvanectl/JsonLine.h"

namespace kelvane::ctl {
namespace {

using Json = nlohmann::json;
using Output = std::back_insert_iterator<std::string>;

constexpr std::size_t shownData = 32;
constexpr std::size_t shownText = 60;

std::string plainText(const Value& value) {
  if (const std::string* string = value.string()) {
    return fmt::format("{:?}", *string);
  }
  if (const Data* data = value.data(); data != nullptr && data->size() > shownData) {
    return fmt::format("<{} bytes of data>", data->size());
  }
  return value.isBoolean() ? (value.boolValue() ? "true" : "false") : value.description();
}

void addValue(Output out, const Value& value, std::size_t indent) {
  const std::size_t inner = indent + 2;
  if (const Value::Array* array = value.array()) {
    fmt::format_to(out, "(\n");
    for (const Value& element : *array) {
      fmt::format_to(out, "{:{}}", "", inner);
      addValue(out, element, inner);
      fmt::format_to(out, ",\n");
    }
    fmt::format_to(out, "{:{}})", "", indent);
  } else if (const auto dictionary = value.dictionary()) {
    fmt::format_to(out, "{{\n");
    for (const auto& [key, entry] : *dictionary) {
      fmt::format_to(out, "{:{}}{:?} = ", "", inner, key);
      addValue(out, entry, inner);
      fmt::format_to(out, ";\n");
    }
    fmt::format_to(out, "{:{}}}}", "", indent);
  } else {
    fmt::format_to(out, "{}", plainText(value));
  }
}

std::string summary(const Value& value) {
  if (const Value::Array* array = value.array()) {
    return fmt::format("an array of {}", array->size());
  }
  if (const auto dictionary = value.dictionary()) {
    return fmt::format("a dictionary of {}", dictionary->size());
  }
  const std::string text = plainText(value);
  return text.size() <= shownText || !value.isString() ? text
                                                       : fmt::format("a string of {} bytes", value.string()->size());
}

Json json(const Value& value) {
  if (const Value::Array* array = value.array()) {
    Json result = Json::array();
    for (const Value& element : *array) {
      result.push_back(json(element));
    }
    return result;
  }
  if (const auto dictionary = value.dictionary()) {
    Json result = Json::object();
    for (const auto& [key, entry] : *dictionary) {
      result.emplace(key, json(entry));
    }
    return result;
  }
  if (value.isNumber()) {
    return value.isBoolean()    ? Json(value.boolValue())
           : value.isDouble()   ? Json(value.doubleValue())
           : value.isUnsigned() ? Json(value.uint64Value())
                                : Json(value.int64Value());
  }
  if (const Data* data = value.data()) {
    return fmt::format("{:02x}", fmt::join(*data, ""));
  }
  return value.isAbsent() ? Json(nullptr) : Json(value.description());
}

}  // namespace

std::string stateText(const Value& value) {
  if (const std::string* string = value.string()) {
    return printable(*string, "\n\t") + "\n";
  }
  std::string text;
  addValue(std::back_inserter(text), value, 0);
  return text + "\n";
}

std::string stateListText(const Value::Dictionary& state) {
  std::string text;
  for (const auto& [key, value] : state) {
    fmt::format_to(std::back_inserter(text), "{:<36} {}\n", printable(key), summary(value));
  }
  return text;
}

std::string stateJson(const Value& value) {
  return jsonLine(json(value));
}

}  // namespace kelvane::ctl
