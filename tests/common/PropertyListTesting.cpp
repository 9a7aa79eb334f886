// SPDX-License-Identifier: Apache-2.0
// Reading property lists in tests, and making binary ones that no writer would.
#include "tests/common/PropertyListTesting.h"

#include <variant>

namespace kelvane::testing {
namespace {

propertyList::Result parse(std::string_view bytes) {
  return propertyList::parse({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

template <typename Result>
std::string errorOf(const Result& result) {
  const auto* error = std::get_if<propertyList::Error>(&result);
  return error ? error->text : "";
}

}  // namespace

std::optional<Value> parsed(std::string_view bytes) {
  auto result = parse(bytes);
  const auto* value = std::get_if<Value>(&result);
  return value ? std::optional(*value) : std::nullopt;
}

std::string refusal(std::string_view bytes) {
  return errorOf(parse(bytes));
}

std::optional<std::string> writtenBinary(const Value& value) {
  const auto result = propertyList::writeBinary(value);
  const auto* data = std::get_if<Data>(&result);
  return data ? std::optional(std::string(data->begin(), data->end())) : std::nullopt;
}

std::optional<std::string> writtenXml(const Value& value) {
  const auto result = propertyList::writeXml(value);
  const auto* text = std::get_if<std::string>(&result);
  return text ? std::optional(*text) : std::nullopt;
}

std::string binaryRefusal(const Value& value) {
  return errorOf(propertyList::writeBinary(value));
}
std::string xmlRefusal(const Value& value) {
  return errorOf(propertyList::writeXml(value));
}

Value nestedArrays(int count) {
  Value value = Value::Array{};
  for (int i = 1; i < count; ++i) {
    value = Value::Array{value};
  }
  return value;
}

std::string repeated(std::string_view text, std::size_t count) {
  std::string all;
  all.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

std::string bigEndian(std::uint64_t number, int size) {
  std::string bytes;
  while (size-- > 0) {
    bytes += size < 8 ? static_cast<char>(number >> 8 * size) : '\0';
  }
  return bytes;
}

std::string BinaryFile::bytes() const {
  std::string file = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += offsets.empty() ? bigEndian(file.size(), offsetSize) : "";
    file += object;
  }
  for (const std::uint64_t offset : offsets) {
    table += bigEndian(offset, offsetSize);
  }
  const std::uint64_t start = file.size();
  const std::uint64_t count = offsets.empty() ? objects.size() : offsets.size();
  file += table + std::string(6, '\0') + bigEndian(static_cast<std::uint64_t>(offsetSize), 1) +
          bigEndian(static_cast<std::uint64_t>(referenceSize), 1);
  file += bigEndian(objectCount.value_or(count), 8) + bigEndian(top, 8) + bigEndian(tableOffset.value_or(start), 8);
  return file;
}

std::string binaryOf(const std::string& object) {
  return BinaryFile{.objects = {object}}.bytes();
}

}  // namespace kelvane::testing
