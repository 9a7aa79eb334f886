// SPDX-License-Identifier: Apache-2.0
// The textual form of a value, in the old-style property-list format.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "platform/Limits.h"
#include "platform/Value.h"
#include "platform/common/CalendarDate.h"
#include "platform/common/Utf8.h"

namespace kelvane {
namespace {

template <typename Number>
std::string decimal(Number number) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
  return {text.data(), end};
}

std::string numberText(const Value& value) {
  if (value.isDouble()) {
    return decimal(value.doubleValue());
  }
  return value.isUnsigned() ? decimal(value.uint64Value()) : decimal(value.int64Value());
}

std::string dateText(Date date) {
  const auto text = calendarText(date, " ", " +0000");
  return text ? *text : decimal(date.secondsSince1970) + " seconds since 1970";
}

void appendData(std::string& text, const Data& data) {
  text += '<';
  for (const std::uint8_t byte : data) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  text += '>';
}

// Fewer characters than the format could do without quotes: what may be taken for a sign or a comment has them.
bool needsNoQuotes(std::string_view string) {
  return !string.empty() && std::ranges::all_of(string, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.';
  });
}

void appendEscaped(std::string& text, char32_t codePoint) {
  switch (codePoint) {
    case '\n':
      text += "\\n";
      return;
    case '\t':
      text += "\\t";
      return;
    case '"':
    case '\\':
      text += '\\';
      text += static_cast<char>(codePoint);
      return;
    default:
      break;
  }
  if (codePoint < ' ' || codePoint == 0x7F) {
    std::array<char, 8> octal{};
    std::snprintf(octal.data(), octal.size(), "\\%03o", static_cast<unsigned>(codePoint));
    text += octal.data();
  } else {
    utf8::append(text, codePoint);
  }
}

// What is not UTF-8 shows as the replacement character, so that the result always is.
void appendQuoted(std::string& text, std::string_view string) {
  if (needsNoQuotes(string)) {
    text += string;
    return;
  }
  text += '"';
  while (!string.empty()) {
    appendEscaped(text, utf8::take(string).value_or(0xFFFD));
  }
  text += '"';
}

/// depth: how many containers value is in.
void appendElement(std::string& text, const Value& value, int depth);

void appendArray(std::string& text, const Value::Array& array, int depth) {
  text += '(';
  for (const Value& element : array) {
    text += &element == array.data() ? " " : ", ";
    appendElement(text, element, depth + 1);
  }
  text += " )";
}

void appendDictionary(std::string& text, const Value::Dictionary& dictionary, int depth) {
  text += '{';
  for (const auto& [key, element] : dictionary) {
    text += ' ';
    appendQuoted(text, key);
    text += " = ";
    appendElement(text, element, depth + 1);
    text += ';';
  }
  text += " }";
}

void appendElement(std::string& text, const Value& value, int depth) {
  if (value.isArray() || value.isDictionary()) {
    if (depth >= limits::descriptionDepth) {
      text += "...";
    } else if (value.isArray()) {
      appendArray(text, *value.array(), depth);
    } else {
      appendDictionary(text, *value.dictionary(), depth);
    }
  } else if (value.isData()) {
    appendData(text, *value.data());
  } else {
    appendQuoted(text, value.description());
  }
}

}  // namespace

std::string Value::description() const {
  if (const std::string* contents = string()) {
    return *contents;
  }
  if (isNumber()) {
    return numberText(*this);
  }
  if (isDate()) {
    return dateText(*date());
  }
  if (isAbsent()) {
    return "(null)";
  }
  std::string text;
  appendElement(text, *this, 0);
  return text;
}

}  // namespace kelvane
