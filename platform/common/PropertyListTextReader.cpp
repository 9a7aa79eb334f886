// SPDX-License-Identifier: Apache-2.0
// Reads property lists in the old-style text format: { key = value; }, ( a, b ), <0fbd77>, "a string", word.
//
// A file of "key = value;" lines without the braces is not read.
#include <algorithm>
#include <utility>

#include "platform/common/PropertyListReaders.h"
#include "platform/common/PropertyListTextScanner.h"
#include "platform/common/Utf8.h"

namespace kelvane::propertyList {
namespace {

/// Reads one list. A function that returns none has noted the error in the scanner.
class TextReader {
 public:
  explicit TextReader(std::string_view text) : scanner_(text) {}

  Result read() {
    std::optional<Value> value = readValue(0);
    if (!value || !scanner_.skipSpace()) {
      return scanner_.error();
    }
    if (!scanner_.atEnd()) {
      scanner_.fail("more text after the value");
      return scanner_.error();
    }
    return *std::move(value);
  }

 private:
  /// depth: how many containers the value is in.
  std::optional<Value> readValue(int depth) {
    if (!scanner_.skipSpace()) {
      return std::nullopt;
    }
    if (scanner_.at('{') || scanner_.at('(')) {
      if (depth == limits::propertyListDepth) {
        return scanner_.fail(tooDeep);
      }
      const bool isDictionary = scanner_.at('{');
      scanner_.skipCharacter();
      return isDictionary ? readDictionary(depth + 1) : readArray(depth + 1);
    }
    if (scanner_.at('<')) {
      return counted(scanner_.readData());
    }
    return counted(scanner_.readString("a value"));
  }

  std::optional<Value> readDictionary(int depth) {
    Value::Dictionary dictionary;
    while (scanner_.skipSpace()) {
      if (scanner_.at('}')) {
        scanner_.skipCharacter();
        return Value(std::move(dictionary));
      }
      std::optional<Value> key = counted(scanner_.readString("a key or '}'"));
      if (!key) {
        return std::nullopt;
      }
      if (dictionary.contains(*key->string())) {
        return scanner_.fail("a key comes twice");
      }
      if (!scanner_.expect('=')) {
        return std::nullopt;
      }
      std::optional<Value> value = readValue(depth);
      if (!value || !scanner_.expect(';')) {
        return std::nullopt;
      }
      if (!budget_.addEntries(1)) {
        return scanner_.fail(Budget::tooManyEntries);
      }
      dictionary.emplace(*key->string(), *std::move(value));
    }
    return std::nullopt;
  }

  std::optional<Value> readArray(int depth) {
    Value::Array array;
    while (scanner_.skipSpace()) {
      if (scanner_.at(')')) {
        scanner_.skipCharacter();
        return Value(std::move(array));
      }
      std::optional<Value> value = readValue(depth);
      if (!value || !scanner_.skipSpace()) {
        return std::nullopt;
      }
      if (!budget_.addEntries(1)) {
        return scanner_.fail(Budget::tooManyEntries);
      }
      array.push_back(*std::move(value));
      if (!scanner_.at(')') && !scanner_.expect(',')) {
        return std::nullopt;
      }
    }
    return std::nullopt;
  }

  /// A string or data as a value, taken account of; passes none on.
  template <typename Contents>
  std::optional<Value> counted(std::optional<Contents> contents) {
    if (!contents) {
      return std::nullopt;
    }
    if (!budget_.addContent(contents->size())) {
      return scanner_.fail(Budget::tooMuchContent);
    }
    return Value(*std::move(contents));
  }

  TextScanner scanner_;
  Budget budget_;
};

}  // namespace

Result readText(std::string_view text) {
  const std::string_view valid = text.substr(0, utf8::validPrefix(text));
  if (valid.size() != text.size()) {
    return Error{"line " + std::to_string(1 + std::ranges::count(valid, '\n')) + ": not UTF-8"};
  }
  return TextReader(text).read();
}

}  // namespace kelvane::propertyList
