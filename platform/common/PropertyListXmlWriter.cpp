// SPDX-License-Identifier: Apache-2.0
// Writes XML property lists, indented for people.
#include <array>
#include <charconv>
#include <cmath>

#include "platform/common/Base64.h"
#include "platform/common/CalendarDate.h"
#include "platform/common/PropertyListReaders.h"
#include "platform/common/Utf8.h"

namespace kelvane::propertyList {
namespace {

template <typename Number>
std::string decimal(Number number) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
  return {text.data(), end};
}

std::string realText(double number) {
  if (std::isnan(number)) {
    return "nan";
  }
  if (std::isinf(number)) {
    return number < 0 ? "-infinity" : "+infinity";
  }
  return decimal(number);
}

/// Whether XML 1.0 can carry the character at all, be it by a reference.
bool isXmlCharacter(char32_t c) {
  return c == '\t' || c == '\n' || c == '\r' || (c >= ' ' && c != 0xFFFE && c != 0xFFFF);
}

/// Writes one list. A function that returns false has noted the error.
class XmlWriter {
 public:
  std::variant<std::string, Error> write(const Value& value) {
    text_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    if (!appendValue(value, 0)) {
      return error_;
    }
    text_ += "</plist>\n";
    return std::move(text_);
  }

 private:
  bool fail(const char* why) {
    error_.text = why;
    return false;
  }

  void startLine(int depth) { text_.append(static_cast<std::size_t>(depth), '\t'); }

  bool appendElement(std::string_view name, std::string_view contents) {
    text_.append("<").append(name).append(">").append(contents).append("</").append(name).append(">\n");
    return true;
  }

  bool appendString(std::string_view name, const std::string& string) {
    std::string escaped;
    if (!budget_.addContent(string.size())) {
      return fail(Budget::tooMuchContent);
    }
    for (std::string_view rest = string; !rest.empty();) {
      const std::string_view before = rest;
      const auto codePoint = utf8::take(rest);
      if (!codePoint) {
        return fail(notUtf8);
      }
      if (!isXmlCharacter(*codePoint)) {
        return fail("a string with a character that XML cannot carry");
      }
      switch (*codePoint) {
        case '&':
          escaped += "&amp;";
          break;
        case '<':
          escaped += "&lt;";
          break;
        case '>':
          escaped += "&gt;";
          break;
        case '\r':  // as it stands it would be read as a line feed
          escaped += "&#13;";
          break;
        default:
          escaped += before.substr(0, before.size() - rest.size());
      }
    }
    return appendElement(name, escaped);
  }

  bool appendDate(Date date) {
    const auto text = calendarText(date, "T", "Z");
    return text ? appendElement("date", *text) : fail("a date outside the years 1 to 9999");
  }

  bool appendData(const Data& data) {
    return budget_.addContent(data.size()) ? appendElement("data", base64Text(data)) : fail(Budget::tooMuchContent);
  }

  bool appendNumber(const Value& value) {
    if (value.isBoolean()) {
      text_ += value.boolValue() ? "<true/>\n" : "<false/>\n";
      return true;
    }
    if (value.isDouble()) {
      return appendElement("real", realText(value.doubleValue()));
    }
    return appendElement("integer", value.isUnsigned() ? decimal(value.uint64Value()) : decimal(value.int64Value()));
  }

  /// depth: how many containers value is in.
  bool appendValue(const Value& value, int depth) {
    if (text_.size() > limits::propertyListBytes) {
      return fail(tooLarge);
    }
    startLine(depth);
    if (value.isAbsent()) {
      return fail(absentValue);
    }
    if (const std::string* string = value.string()) {
      return appendString("string", *string);
    }
    if (const Date* date = value.date()) {
      return appendDate(*date);
    }
    if (const Data* data = value.data()) {
      return appendData(*data);
    }
    if (value.isNumber()) {
      return appendNumber(value);
    }
    if (depth == limits::propertyListDepth) {
      return fail(tooDeep);
    }
    return value.isArray() ? appendArray(*value.array(), depth) : appendDictionary(*value.dictionary(), depth);
  }

  bool appendArray(const Value::Array& array, int depth) {
    if (array.empty()) {
      text_ += "<array/>\n";
      return true;
    }
    if (!budget_.addEntries(array.size())) {
      return fail(Budget::tooManyEntries);
    }
    text_ += "<array>\n";
    for (const Value& element : array) {
      if (!appendValue(element, depth + 1)) {
        return false;
      }
    }
    startLine(depth);
    text_ += "</array>\n";
    return true;
  }

  bool appendDictionary(const Value::Dictionary& dictionary, int depth) {
    if (dictionary.empty()) {
      text_ += "<dict/>\n";
      return true;
    }
    if (!budget_.addEntries(dictionary.size())) {
      return fail(Budget::tooManyEntries);
    }
    text_ += "<dict>\n";
    for (const auto& [key, element] : dictionary) {
      startLine(depth + 1);
      if (!appendString("key", key) || !appendValue(element, depth + 1)) {
        return false;
      }
    }
    startLine(depth);
    text_ += "</dict>\n";
    return true;
  }

  std::string text_;
  Budget budget_;
  Error error_;
};

}  // namespace

std::variant<std::string, Error> writeXml(const Value& value) {
  auto written = XmlWriter().write(value);
  const auto* text = std::get_if<std::string>(&written);
  if (text && text->size() > limits::propertyListBytes) {
    return Error{tooLarge};
  }
  return written;
}

}  // namespace kelvane::propertyList
