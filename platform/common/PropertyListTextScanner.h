// SPDX-License-Identifier: Apache-2.0
// The words, strings, data and comments of the old-style text format.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/PropertyList.h"
#include "platform/Value.h"

namespace kelvane::propertyList {

/// Goes once through one text. A function that returns none, or false, has noted the error.
class TextScanner {
 public:
  /// text must outlive the scanner and be UTF-8.
  explicit TextScanner(std::string_view text) : text_(text) {}

  const Error& error() const { return error_; }
  bool atEnd() const { return position_ == text_.size(); }
  bool at(char c) const { return !atEnd() && text_[position_] == c; }
  /// Goes on behind the character that it is at.
  void skipCharacter() { ++position_; }

  /// Passes over white space and comments; false for a comment without an end.
  [[nodiscard]] bool skipSpace();
  /// Passes over white space, comments and then c; false when something else comes.
  [[nodiscard]] bool expect(char c);
  /// A quoted string or a word. expected: what is missing when neither is here.
  [[nodiscard]] std::optional<std::string> readString(std::string_view expected);
  /// Data, of which the scanner is at the '<'.
  [[nodiscard]] std::optional<Data> readData();

  /// Notes an error at this place.
  std::nullopt_t fail(std::string_view why);

 private:
  std::nullopt_t failExpecting(std::string_view expected);
  std::optional<std::string> readQuoted();
  std::optional<char32_t> readEscape();
  std::optional<char32_t> readOctal();
  std::optional<char32_t> readUtf16();
  std::optional<char32_t> readUtf16Unit();

  std::string_view text_;
  std::size_t position_ = 0;
  Error error_;
};

}  // namespace kelvane::propertyList
