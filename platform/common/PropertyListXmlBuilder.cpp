// SPDX-License-Identifier: Apache-2.0
// Builds the value of an XML property list from its elements.
#include "platform/common/PropertyListXmlBuilder.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/common/Base64.h"
#include "platform/common/CalendarDate.h"
#include "platform/common/Utf8.h"

namespace kelvane::propertyList {

std::optional<XmlBuilder::Element> XmlBuilder::elementNamed(std::string_view name) {
  constexpr std::array<std::pair<std::string_view, Element>, 11> elements{{
      {"plist", Element::plist},
      {"dict", Element::dictionary},
      {"array", Element::array},
      {"key", Element::key},
      {"string", Element::string},
      {"integer", Element::integer},
      {"real", Element::real},
      {"date", Element::date},
      {"data", Element::data},
      {"true", Element::booleanTrue},
      {"false", Element::booleanFalse},
  }};
  const auto* const found = std::ranges::find(elements, name, [](const auto& element) { return element.first; });
  return found == elements.end() ? std::nullopt : std::optional(found->second);
}

const char* XmlBuilder::startElement(std::string_view name) {
  const auto element = elementNamed(name);
  if (!element) {
    return "an element of an unknown name";
  }
  if (const char* misplaced = checkPlace(*element)) {
    return misplaced;
  }
  if (*element == Element::plist) {
    started_ = true;
  } else if (*element == Element::dictionary || *element == Element::array) {
    if (containers_.size() == static_cast<std::size_t>(limits::propertyListDepth)) {
      return tooDeep;
    }
    containers_.push_back({*element == Element::dictionary, {}, {}, {}});
  } else {
    leaf_ = *element;
    text_.clear();
  }
  return nullptr;
}

/// Null when element may start here.
const char* XmlBuilder::checkPlace(Element element) const {
  if (started_ == (element == Element::plist)) {
    return started_ ? "<plist> within <plist>" : "the outermost element is not <plist>";
  }
  if (leaf_) {
    return "an element where only text may be";
  }
  if (containers_.empty()) {
    if (element == Element::key) {
      return "<key> outside a <dict>";
    }
    return value_ ? "more than one value" : nullptr;
  }
  if (!containers_.back().isDictionary) {
    return element == Element::key ? "<key> outside a <dict>" : nullptr;
  }
  const bool wantsKey = !containers_.back().key;
  if (wantsKey == (element == Element::key)) {
    return nullptr;
  }
  return wantsKey ? "a value without a <key>" : "a <key> without a value";
}

const char* XmlBuilder::endElement() {
  if (leaf_) {
    const Element element = *leaf_;
    leaf_.reset();
    return endLeaf(element);
  }
  if (!containers_.empty()) {
    return endContainer();
  }
  return value_ ? nullptr : "no value";
}

const char* XmlBuilder::characters(std::string_view text) {
  if (leaf_ && *leaf_ != Element::booleanTrue && *leaf_ != Element::booleanFalse) {
    text_ += text;
    return nullptr;
  }
  return std::ranges::all_of(text, isSpace) ? nullptr : "text where none may be";
}

const char* XmlBuilder::endContainer() {
  Container container = std::move(containers_.back());
  containers_.pop_back();
  if (!container.isDictionary) {
    return add(Value(std::move(container.array)));
  }
  return container.key ? "a <key> without a value" : add(Value(std::move(container.dictionary)));
}

const char* XmlBuilder::endLeaf(Element element) {
  switch (element) {
    case Element::key:
      return endKey();
    case Element::string:
      // Of UTF-16, expat lets halves of surrogate pairs through.
      return utf8::isValid(text_) ? add(Value(std::move(text_))) : notUtf8;
    case Element::integer: {
      const auto number = parseInteger(text_);
      return number ? add(*number) : "no integer, or one out of range";
    }
    case Element::real: {
      const auto number = parseReal(text_);
      return number ? add(Value(*number)) : "no real, or one out of range";
    }
    case Element::date: {
      const auto date = dateFromIsoText(text_);
      return date ? add(Value(*date)) : "no date of the form 2001-02-03T04:05:06Z";
    }
    case Element::data: {
      auto data = dataFromBase64(text_);
      return data ? add(Value(*std::move(data))) : "no base64 data";
    }
    default:
      return add(Value(element == Element::booleanTrue));
  }
}

const char* XmlBuilder::endKey() {
  if (!utf8::isValid(text_)) {
    return notUtf8;
  }
  if (!budget_.addContent(text_.size())) {
    return Budget::tooMuchContent;
  }
  if (containers_.back().dictionary.contains(text_)) {
    return "a key comes twice";
  }
  containers_.back().key = std::move(text_);
  return nullptr;
}

const char* XmlBuilder::add(Value value) {
  const std::size_t content = value.isString() ? value.string()->size() : value.isData() ? value.data()->size() : 0;
  if (!budget_.addContent(content)) {
    return Budget::tooMuchContent;
  }
  if (containers_.empty()) {
    value_ = std::move(value);
    return nullptr;
  }
  if (!budget_.addEntries(1)) {
    return Budget::tooManyEntries;
  }
  Container& container = containers_.back();
  if (container.isDictionary) {
    container.dictionary.emplace(*std::move(container.key), std::move(value));
    container.key.reset();
  } else {
    container.array.push_back(std::move(value));
  }
  return nullptr;
}

}  // namespace kelvane::propertyList
