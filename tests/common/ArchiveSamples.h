// SPDX-License-Identifier: Apache-2.0
// Classes and objects for tests of archives.
#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <variant>

#include "platform/Archive.h"

namespace kelvane::archive::test {

inline constexpr std::array<std::string_view, 2> bookFields = {"title", "pages"};
inline constexpr std::array<std::string_view, 2> shelfFields = {"place", "books"};
inline constexpr std::array classes = {Class{"Shelf", 3, shelfFields}, Class{"Book", 1, bookFields}};
inline constexpr const Class& shelf = classes[0];
inline constexpr const Class& book = classes[1];

inline Object bookOf(Value title, Value pages) {
  return {book, {std::move(title), std::move(pages)}};
}
inline Object shelfOf(Value place, Objects books) {
  return {shelf, {std::move(place), std::move(books)}};
}

/// Writes an object of the classes above, field by field.
inline void write(Writer& writer, const Object& object) {
  writer.object(object.type());
  for (const Object::Field& field : object.fields()) {
    if (const auto* value = std::get_if<Value>(&field)) {
      writer.value(*value);
      continue;
    }
    const Objects& objects = std::get<Objects>(field);
    writer.objects(objects.size());
    for (const auto& [key, nested] : objects) {
      writer.key(key);
      write(writer, nested);
    }
  }
}

inline std::optional<Data> archived(const Object& object) {
  Writer writer(classes, 0);
  write(writer, object);
  return writer.finish();
}

}  // namespace kelvane::archive::test
