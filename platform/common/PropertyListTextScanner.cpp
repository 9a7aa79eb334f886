// SPDX-License-Identifier: Apache-2.0
// The words, strings, data and comments of the old-style text format.
#include "platform/common/PropertyListTextScanner.h"

#include <algorithm>

#include "platform/common/PropertyListReaders.h"
#include "platform/common/Utf8.h"

namespace kelvane::propertyList {
namespace {

int hexadecimalDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool isOctalDigit(char c) {
  return c >= '0' && c <= '7';
}

bool isWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("_$/:.-").find(c) != std::string_view::npos;
}

}  // namespace

bool TextScanner::skipSpace() {
  while (!atEnd()) {
    const std::string_view rest = text_.substr(position_);
    if (isSpace(rest.front())) {
      ++position_;
    } else if (rest.starts_with("//")) {
      position_ += std::min(rest.find('\n'), rest.size());
    } else if (rest.starts_with("/*")) {
      const std::size_t end = rest.find("*/", 2);
      if (end == std::string_view::npos) {
        fail("a comment has no end");
        return false;
      }
      position_ += end + 2;
    } else {
      break;
    }
  }
  return true;
}

bool TextScanner::expect(char c) {
  if (!skipSpace()) {
    return false;
  }
  if (!at(c)) {
    failExpecting(std::string("'") + c + "'");
    return false;
  }
  ++position_;
  return true;
}

std::optional<std::string> TextScanner::readString(std::string_view expected) {
  if (at('"')) {
    ++position_;
    return readQuoted();
  }
  const std::size_t start = position_;
  while (!atEnd() && isWordCharacter(text_[position_]) && !text_.substr(position_).starts_with("/*")) {
    ++position_;
  }
  if (position_ == start) {
    return failExpecting(expected);
  }
  return std::string(text_.substr(start, position_ - start));
}

std::optional<Data> TextScanner::readData() {
  ++position_;
  Data data;
  int high = -1;
  for (; !at('>'); ++position_) {
    if (atEnd()) {
      return fail("data has no end");
    }
    const char c = text_[position_];
    const int digit = hexadecimalDigit(c);
    if (digit < 0) {
      if (!isSpace(c)) {
        return failExpecting("a hexadecimal digit");
      }
    } else if (high < 0) {
      high = digit;
    } else {
      data.push_back(static_cast<std::uint8_t>(high << 4 | digit));
      high = -1;
    }
  }
  if (high >= 0) {
    return fail("data has half a byte");
  }
  ++position_;
  return data;
}

std::nullopt_t TextScanner::fail(std::string_view why) {
  const auto line = 1 + std::ranges::count(text_.substr(0, position_), '\n');
  error_.text = "line " + std::to_string(line) + ": " + std::string(why);
  return std::nullopt;
}

std::nullopt_t TextScanner::failExpecting(std::string_view expected) {
  return fail(std::string(atEnd() ? "the text ends" : "unexpected character") + " where " + std::string(expected) +
              " should be");
}

// The rest of a string whose opening quote was read.
std::optional<std::string> TextScanner::readQuoted() {
  std::string string;
  while (true) {
    const std::size_t end = text_.find_first_of("\"\\", position_);
    if (end == std::string_view::npos) {
      return fail("a string has no end");
    }
    string += text_.substr(position_, end - position_);
    position_ = end + 1;
    if (text_[end] == '"') {
      return string;
    }
    const std::optional<char32_t> codePoint = readEscape();
    if (!codePoint) {
      return std::nullopt;
    }
    utf8::append(string, *codePoint);
  }
}

// What follows a backslash.
std::optional<char32_t> TextScanner::readEscape() {
  if (atEnd()) {
    return fail("a string has no end");
  }
  if (isOctalDigit(text_[position_])) {
    return readOctal();
  }
  const std::string_view names = "abfnrtv\"\\'\n";
  const std::size_t name = names.find(text_[position_++]);
  if (name != std::string_view::npos) {
    return static_cast<char32_t>("\a\b\f\n\r\t\v\"\\'\n"[name]);
  }
  if (text_[position_ - 1] != 'U') {
    return fail("unknown escape in a string");
  }
  return readUtf16();
}

// One to three octal digits. Above 127 their meaning differs between programs, so they are refused.
std::optional<char32_t> TextScanner::readOctal() {
  char32_t number = 0;
  for (int digits = 0; digits < 3 && !atEnd() && isOctalDigit(text_[position_]); ++digits) {
    number = number * 8 + static_cast<char32_t>(text_[position_++] - '0');
  }
  if (number > 0x7F) {
    return fail("an octal escape above 177");
  }
  return number;
}

// One unit, or the two of a surrogate pair; the first \U is read.
std::optional<char32_t> TextScanner::readUtf16() {
  const std::optional<char32_t> unit = readUtf16Unit();
  if (!unit || (!utf8::isHighSurrogate(*unit) && !utf8::isLowSurrogate(*unit))) {
    return unit;
  }
  if (utf8::isHighSurrogate(*unit) && text_.substr(position_).starts_with("\\U")) {
    position_ += 2;
    const std::optional<char32_t> low = readUtf16Unit();
    if (!low || utf8::isLowSurrogate(*low)) {
      return low ? std::optional(utf8::joinSurrogates(*unit, *low)) : std::nullopt;
    }
  }
  return fail("half a surrogate pair in a string");
}

// Exactly four hexadecimal digits.
std::optional<char32_t> TextScanner::readUtf16Unit() {
  char32_t unit = 0;
  for (int digits = 0; digits < 4; ++digits) {
    const int digit = atEnd() ? -1 : hexadecimalDigit(text_[position_]);
    if (digit < 0) {
      return fail("\\U without four hexadecimal digits");
    }
    unit = unit << 4 | static_cast<char32_t>(digit);
    ++position_;
  }
  return unit;
}

}  // namespace kelvane::propertyList
