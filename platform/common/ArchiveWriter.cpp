// SPDX-License-Identifier: Apache-2.0
// Writes archives.
#include <algorithm>
#include <bit>
#include <cstring>

#include "platform/Archive.h"
#include "platform/Limits.h"
#include "platform/common/ArchiveFormat.h"

namespace kelvane::archive {

namespace {

template <typename Number>
void putLittleEndian(std::uint8_t* place, Number number) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(place, &number, sizeof number);
  } else {
    for (std::size_t index = 0; index < sizeof number; ++index) {
      place[index] = static_cast<std::uint8_t>(number >> (8 * index));
    }
  }
}

}  // namespace

bool Size::fits() const {
  return bytes <= limits::archiveBytes && entries <= limits::archiveEntries;
}

Size sizeOf(std::span<const Class> classes) {
  std::size_t bytes = magic.size() + 4;
  for (const Class& type : classes) {
    bytes += 12 + type.name.size();
    for (const std::string_view field : type.fields) {
      bytes += 4 + field.size();
    }
  }
  return {.bytes = bytes, .entries = 0};
}

Size sizeOfContents(const Value& value) {
  Size size = {.bytes = 5, .entries = 1};
  if (const std::string* string = value.string()) {
    size.bytes += string->size();
  } else if (const Data* data = value.data()) {
    size.bytes += data->size();
  } else if (const Value::Array* array = value.array()) {
    for (const Value& element : *array) {
      size += sizeOf(element);
    }
  } else if (const auto dictionary = value.dictionary()) {
    for (const auto& [key, entry] : *dictionary) {
      size += sizeOfKey(key);
      size += sizeOf(entry);
    }
  }
  return size;
}

Writer::Writer(std::span<const Class> classes, std::size_t expectedBytes) : classes_(classes) {
  bytes_.resize(std::max<std::size_t>(expectedBytes, 256));
  addBytes(magic.data(), magic.size());
  addCount(classes.size());
  for (const Class& type : classes) {
    addText(type.name);
    addCount(type.version);
    addCount(type.fields.size());
    for (const std::string_view field : type.fields) {
      addText(field);
    }
  }
}

void Writer::object(const Class& type) {
  countEntry();
  addCount(static_cast<std::size_t>(&type - classes_.data()));
}

void Writer::objects(std::size_t count) {
  countEntry();
  addByte(static_cast<std::uint8_t>(Tag::objects));
  addCount(count);
}

void Writer::key(std::string_view key) {
  addText(key);
}

void Writer::value(const Value& value) {
  addValue(value, 0);
}

std::optional<Data> Writer::finish() {
  if (isTooDeep_ || entries_ > limits::archiveEntries || end_ > limits::archiveBytes) {
    return std::nullopt;
  }
  bytes_.resize(end_);
  return std::move(bytes_);
}

void Writer::addValue(const Value& value, int depth) {
  countEntry();
  const auto tagged = [this](Tag tag) { addByte(static_cast<std::uint8_t>(tag)); };
  if (value.isAbsent()) {
    tagged(Tag::absent);
  } else if (value.isBoolean()) {
    tagged(value.boolValue() ? Tag::trueValue : Tag::falseValue);
  } else if (value.isSigned() || value.isUnsigned()) {
    tagged(value.isSigned() ? Tag::signedInteger : Tag::unsignedInteger);
    addInteger(value.uint64Value());
  } else if (value.isDouble()) {
    tagged(Tag::real);
    addInteger(std::bit_cast<std::uint64_t>(value.doubleValue()));
  } else if (const Date* date = value.date()) {
    tagged(Tag::date);
    addInteger(std::bit_cast<std::uint64_t>(date->secondsSince1970));
  } else if (const std::string* string = value.string()) {
    tagged(Tag::string);
    addText(*string);
  } else if (const Data* data = value.data()) {
    tagged(Tag::data);
    addCount(data->size());
    addBytes(data->data(), data->size());
  } else if (depth < limits::propertyListDepth) {
    tagged(value.isArray() ? Tag::array : Tag::dictionary);
    addContents(value, depth + 1);
  } else {
    isTooDeep_ = true;
  }
}

void Writer::addContents(const Value& value, int depth) {
  if (const Value::Array* array = value.array()) {
    addCount(array->size());
    for (const Value& element : *array) {
      addValue(element, depth);
    }
    return;
  }
  const auto dictionary = value.dictionary();
  addCount(dictionary->size());
  for (const auto& [key, entry] : *dictionary) {
    addText(key);
    addValue(entry, depth);
  }
}

void Writer::addText(std::string_view text) {
  std::uint8_t* place = room(4 + text.size());
  putLittleEndian(place, static_cast<std::uint32_t>(text.size()));
  std::copy(text.begin(), text.end(), place + 4);
}

void Writer::addBytes(const void* bytes, std::size_t count) {
  if (count > 0) {
    std::memcpy(room(count), bytes, count);
  }
}

void Writer::addCount(std::size_t count) {
  putLittleEndian(room(4), static_cast<std::uint32_t>(count));
}

void Writer::addInteger(std::uint64_t number) {
  putLittleEndian(room(8), number);
}

void Writer::countEntry() {
  ++entries_;
}

/// Room for so many more bytes, which count as written.
std::uint8_t* Writer::room(std::size_t bytes) {
  if (bytes_.size() - end_ < bytes) {
    bytes_.resize(2 * bytes_.size() + bytes);
  }
  std::uint8_t* place = bytes_.data() + end_;
  end_ += bytes;
  return place;
}

}  // namespace kelvane::archive
