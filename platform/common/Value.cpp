// SPDX-License-Identifier: Apache-2.0
// Making, reading and comparing property-list values.
#include "platform/Value.h"

#include <cmath>
#include <utility>

#include "platform/MutableDictionary.h"

namespace kelvane {
namespace {

// NaN equals itself here, so that every value equals its copy.
bool same(double left, double right) {
  return left == right || (std::isnan(left) && std::isnan(right));
}

// A signed integer below 0 stands for no number that an unsigned one can.
bool same(std::int64_t left, std::uint64_t right) {
  return left >= 0 && static_cast<std::uint64_t>(left) == right;
}

bool same(const Date& left, const Date& right) {
  return same(left.secondsSince1970, right.secondsSince1970);
}

template <typename T>
bool same(const std::shared_ptr<const T>& left, const std::shared_ptr<const T>& right) {
  return left == right || *left == *right;
}

template <typename T>
bool same(const T& left, const T& right) {
  return left == right;
}

}  // namespace

Value::Value(std::string string) : storage_(std::make_shared<const std::string>(std::move(string))) {}
Value::Value(std::string_view string) : Value(std::string(string)) {}
Value::Value(const char* string) : Value(std::string(string)) {}
Value::Value(Date date) : storage_(date) {}
Value::Value(Data data) : storage_(std::make_shared<const Data>(std::move(data))) {}
Value::Value(Array array) : storage_(std::make_shared<const Array>(std::move(array))) {}
Value::Value(Dictionary dictionary) : storage_(std::make_shared<const Dictionary>(std::move(dictionary))) {}
Value::Value(std::shared_ptr<const Dictionary> dictionary) : storage_(std::move(dictionary)) {}
Value::Value(const MutableDictionary& dictionary) : storage_(std::make_shared<MutableDictionary>(dictionary)) {}

bool Value::isDictionary() const {
  return std::holds_alternative<Shared<Dictionary>>(storage_) ||
         std::holds_alternative<std::shared_ptr<MutableDictionary>>(storage_);
}

const std::string* Value::string() const {
  const auto* shared = std::get_if<Shared<std::string>>(&storage_);
  return shared ? shared->get() : nullptr;
}

const Data* Value::data() const {
  const auto* shared = std::get_if<Shared<Data>>(&storage_);
  return shared ? shared->get() : nullptr;
}

const Value::Array* Value::array() const {
  const auto* shared = std::get_if<Shared<Array>>(&storage_);
  return shared ? shared->get() : nullptr;
}

std::shared_ptr<const Value::Dictionary> Value::dictionary() const {
  if (const auto* shared = std::get_if<Shared<Dictionary>>(&storage_)) {
    return *shared;
  }
  if (const auto* live = std::get_if<std::shared_ptr<MutableDictionary>>(&storage_)) {
    return (*live)->snapshot();
  }
  return nullptr;
}

const MutableDictionary* Value::mutableDictionary() const {
  const auto* live = std::get_if<std::shared_ptr<MutableDictionary>>(&storage_);
  return live ? live->get() : nullptr;
}

Value Value::operator[](std::string_view key) const {
  if (const auto* live = std::get_if<std::shared_ptr<MutableDictionary>>(&storage_)) {
    return (**live)[key];
  }
  if (const auto* shared = std::get_if<Shared<Dictionary>>(&storage_)) {
    const auto entry = (*shared)->find(key);
    return entry == (*shared)->end() ? Value() : entry->second;
  }
  return {};
}

bool operator==(const Value& left, const Value& right) {
  if (left.isDictionary() && right.isDictionary()) {
    return same(left.dictionary(), right.dictionary());
  }
  if (left.isSigned() && right.isUnsigned()) {
    return same(left.int64Value(), right.uint64Value());
  }
  if (left.isUnsigned() && right.isSigned()) {
    return same(right.int64Value(), left.uint64Value());
  }
  if (left.storage_.index() != right.storage_.index()) {
    return false;
  }
  return std::visit(
      [&right](const auto& contents) {
        return same(contents, std::get<std::decay_t<decltype(contents)>>(right.storage_));
      },
      left.storage_);
}

}  // namespace kelvane
