// SPDX-License-Identifier: Apache-2.0
// Builds the value of an XML property list from its elements.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Value.h"
#include "platform/common/PropertyListReaders.h"

namespace kelvane::propertyList {

/// Takes the elements and texts of one well-formed document in their order. Functions give null, or why the
/// document is no property list; after that no other may be called but the destructor.
class XmlBuilder {
 public:
  [[nodiscard]] const char* startElement(std::string_view name);
  /// The end of the element started last and not yet ended.
  [[nodiscard]] const char* endElement();
  [[nodiscard]] const char* characters(std::string_view text);

  /// The list's value, after the end of the document's root element.
  [[nodiscard]] Value takeValue() { return *std::move(value_); }

 private:
  enum class Element { plist, dictionary, array, key, string, integer, real, date, data, booleanTrue, booleanFalse };

  /// A container that has not ended.
  struct Container {
    bool isDictionary;
    Value::Array array;
    Value::Dictionary dictionary;
    /// The key whose value comes next.
    std::optional<std::string> key;
  };

  static std::optional<Element> elementNamed(std::string_view name);
  const char* checkPlace(Element element) const;
  const char* endContainer();
  const char* endLeaf(Element element);
  const char* endKey();
  const char* add(Value value);

  bool started_ = false;
  /// From the outermost in.
  std::vector<Container> containers_;
  /// The element that has not ended and may hold nothing but text, and its text so far.
  std::optional<Element> leaf_;
  std::string text_;
  std::optional<Value> value_;
  Budget budget_;
};

}  // namespace kelvane::propertyList
