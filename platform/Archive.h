// SPDX-License-Identifier: Apache-2.0
// Keyed archives: objects as bytes that describe themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/Value.h"

namespace kelvane::archive {

/// A class of objects, as archives name it. Whoever changes the fields, or what they mean, gives them another
/// version; then archives of the old one are no longer understood.
struct Class {
  std::string_view name;
  std::uint32_t version = 1;
  std::span<const std::string_view> fields;
};

class Object;
/// Objects by name.
using Objects = std::map<std::string, Object, std::less<>>;

/// An object as an archive holds it: for each field of its class a property-list value or a dictionary of
/// objects. Immutable.
class Object {
 public:
  using Field = std::variant<Value, Objects>;

  /// As many fields as the class has, in its order.
  Object(const Class& type, std::vector<Field> fields);
  ~Object();
  Object(const Object&);
  Object(Object&&) noexcept;
  Object& operator=(const Object&);
  Object& operator=(Object&&) noexcept;

  const Class& type() const { return *type_; }
  const std::vector<Field>& fields() const { return fields_; }
  /// The value in a field; absent when there is none, or objects. The field's number is its place in the class.
  Value value(std::size_t field) const;
  /// The objects in a field; null when it holds a value.
  const Objects* objects(std::size_t field) const;

  friend bool operator==(const Object& left, const Object& right);

 private:
  const Class* type_;
  std::vector<Field> fields_;
};

/// What something takes in an archive, against limits::archiveBytes and limits::archiveEntries.
struct Size {
  std::size_t bytes = 0;
  std::size_t entries = 0;

  Size& operator+=(const Size& other) {
    bytes += other.bytes;
    entries += other.entries;
    return *this;
  }
  bool fits() const;
};
/// Of what comes before the object, of a key, and of a value in a field or within another; sizeOfContents() is its part
/// for values that have any.
[[nodiscard]] Size sizeOf(std::span<const Class> classes);
[[nodiscard]] inline Size sizeOfKey(std::string_view key) {
  return {.bytes = 4 + key.size(), .entries = 0};
}
[[nodiscard]] Size sizeOfContents(const Value& value);
[[nodiscard]] inline Size sizeOf(const Value& value) {
  if (value.isAbsent() || value.isBoolean()) {
    return {.bytes = 1, .entries = 1};
  }
  return value.isNumber() || value.isDate() ? Size{.bytes = 9, .entries = 1} : sizeOfContents(value);
}
/// Of an object but for its fields, and of a field of objects but for these.
inline constexpr Size sizeOfObject = {.bytes = 4, .entries = 1};
inline constexpr Size sizeOfObjects = {.bytes = 5, .entries = 1};

/// Writes the archive of one object, in one go from its first field to the last: object(), then for each field of
/// its class value() or objects(), of which the latter is followed by as many times key() and an object.
class Writer {
 public:
  /// The objects are of these classes, which must outlive the writer. expectedBytes may be wrong.
  Writer(std::span<const Class> classes, std::size_t expectedBytes);

  /// One of the classes given, itself.
  void object(const Class& type);
  void objects(std::size_t count);
  /// In ascending order. Keys and strings are UTF-8.
  void key(std::string_view key);
  void value(const Value& value);

  /// The archive; none when it passes a limit that read() keeps.
  [[nodiscard]] std::optional<Data> finish();

 private:
  void addValue(const Value& value, int depth);
  void addContents(const Value& value, int depth);
  void addText(std::string_view text);
  void addBytes(const void* bytes, std::size_t count);
  void addCount(std::size_t count);
  void addInteger(std::uint64_t number);
  void addByte(std::uint8_t byte) { *room(1) = byte; }
  void countEntry();
  std::uint8_t* room(std::size_t bytes);

  const std::span<const Class> classes_;
  Data bytes_;
  /// Where the next byte goes; bytes_ is longer than it.
  std::size_t end_ = 0;
  std::size_t entries_ = 0;
  bool isTooDeep_ = false;
};

/// The object that bytes are an archive of. None when they are none, when any class in it is not among the known
/// ones by name, version and fields, or when it passes a limit (limits::archiveBytes and what follows it). The known
/// classes must outlive the object.
[[nodiscard]] std::optional<Object> read(std::span<const std::uint8_t> bytes, std::span<const Class> known);

}  // namespace kelvane::archive
