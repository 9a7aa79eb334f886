// SPDX-License-Identifier: Apache-2.0
// Property-list values: what every request, reply, description and stored state is made of.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace kelvane {

class MutableDictionary;

/// A point in time, in seconds since 1970-01-01 00:00 UTC; fractions and dates before it are allowed.
struct Date {
  double secondsSince1970 = 0;
  friend bool operator==(const Date&, const Date&) = default;
};

using Data = std::vector<std::uint8_t>;

/// One property-list value: a string, number, date, data, array or dictionary, or absent.
///
/// A number is a boolean, a signed or unsigned 64-bit integer or a double. Contents are shared and
/// immutable, so a copy costs a reference count; any thread may read any copy. The one exception is a
/// value made from a MutableDictionary: it shows that dictionary's contents of the moment it is read.
class Value {
 public:
  using Array = std::vector<Value>;
  using Dictionary = std::map<std::string, Value, std::less<>>;

  Value() = default;
  Value(std::string string);
  Value(std::string_view string);
  Value(const char* string);
  Value(Date date);
  Value(Data data);
  Value(Array array);
  Value(Dictionary dictionary);
  /// Shared, so it must not change while any value made from this one lives.
  Value(std::shared_ptr<const Dictionary> dictionary);
  /// A live view: readers see every later change of the dictionary.
  Value(const MutableDictionary& dictionary);
  /// bool, any integer type (kept signed or unsigned as it is) or a floating-point type.
  template <typename Number>
  requires std::is_arithmetic_v<Number> Value(Number number) : storage_(numberStorage(number)) {}

  bool isAbsent() const { return std::holds_alternative<std::monostate>(storage_); }
  bool isString() const { return std::holds_alternative<Shared<std::string>>(storage_); }
  /// True for booleans, integers and doubles alike.
  bool isNumber() const { return isBoolean() || isSigned() || isUnsigned() || isDouble(); }
  bool isBoolean() const { return std::holds_alternative<bool>(storage_); }
  bool isSigned() const { return std::holds_alternative<std::int64_t>(storage_); }
  bool isUnsigned() const { return std::holds_alternative<std::uint64_t>(storage_); }
  bool isDouble() const { return std::holds_alternative<double>(storage_); }
  bool isDate() const { return std::holds_alternative<Date>(storage_); }
  bool isData() const { return std::holds_alternative<Shared<Data>>(storage_); }
  bool isArray() const { return std::holds_alternative<Shared<Array>>(storage_); }
  bool isDictionary() const;
  explicit operator bool() const = delete;

  /// The contents, or null when the value is of another type. A dictionary that is a live view gives a
  /// snapshot, which the caller holds on to by the pointer.
  const std::string* string() const;
  const Date* date() const { return std::get_if<Date>(&storage_); }
  const Data* data() const;
  const Array* array() const;
  std::shared_ptr<const Dictionary> dictionary() const;
  /// The dictionary that this value is a live view of; null when it is none.
  const MutableDictionary* mutableDictionary() const;

  /// The entry under key; absent when there is none or this is no dictionary. Keys are case-sensitive.
  Value operator[](std::string_view key) const;
  bool contains(std::string_view key) const { return !(*this)[key].isAbsent(); }

  /// Number conversions are total. Integers convert by two's complement, doubles truncate towards zero
  /// and saturate, NaN is 0; whatever is no number (a string of digits included) gives 0 or false.
  bool boolValue() const;
  std::int32_t int32Value() const;
  std::int64_t int64Value() const;
  std::uint64_t uint64Value() const;
  double doubleValue() const;

  /// The textual form, as "%@" shows it in the log: a string as it stands, numbers in decimal
  /// (booleans 1 and 0), "(null)" when absent, containers in the old-style property-list format on
  /// one line. At most a few levels deeper than the wire allows; beyond it "...".
  std::string description() const;

  /// Same type and contents; live views compare by their contents of the moment. Integers of either
  /// signedness are equal when they stand for the same number; booleans and doubles equal only their like.
  friend bool operator==(const Value& left, const Value& right);

 private:
  template <typename T>
  using Shared = std::shared_ptr<const T>;
  using Storage = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, Date, Shared<std::string>,
                               Shared<Data>, Shared<Array>, Shared<Dictionary>, std::shared_ptr<MutableDictionary>>;

  template <typename Number>
  static Storage numberStorage(Number number) {
    if constexpr (std::is_same_v<Number, bool>) {
      return number;
    } else if constexpr (std::is_floating_point_v<Number>) {
      return static_cast<double>(number);
    } else if constexpr (std::is_signed_v<Number>) {
      return static_cast<std::int64_t>(number);
    } else {
      return static_cast<std::uint64_t>(number);
    }
  }

  Storage storage_;
};

}  // namespace kelvane
