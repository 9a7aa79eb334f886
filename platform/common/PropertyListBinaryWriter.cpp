// SPDX-License-Identifier: Apache-2.0
// Writes binary property lists: every object in the fewest bytes, every string once.
#include <algorithm>
#include <bit>
#include <limits>
#include <unordered_map>
#include <utility>

#include "platform/common/PropertyListBinary.h"
#include "platform/common/PropertyListReaders.h"
#include "platform/common/Utf8.h"

namespace kelvane::propertyList {
namespace {

using namespace binary;

/// The least number of bytes that hold number: 1, 2, 4 or 8.
unsigned bytesFor(std::uint64_t number) {
  return std::bit_ceil(std::max(1u, (static_cast<unsigned>(std::bit_width(number)) + 7) / 8));
}

void append(Data& data, std::uint64_t number, unsigned size) {
  while (size-- > 0) {
    data.push_back(size < 8 ? static_cast<std::uint8_t>(number >> 8 * size) : 0);
  }
}

std::u16string toUtf16(std::string_view string) {
  std::u16string units;
  while (!string.empty()) {
    const char32_t codePoint = utf8::take(string).value_or(0xFFFD);
    if (codePoint < 0x10000) {
      units += static_cast<char16_t>(codePoint);
    } else {
      units += static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10));
      units += static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF));
    }
  }
  return units;
}

/// Writes one list, in two goes: the first numbers the objects and writes all but the references, whose size
/// depends on how many objects there are; the second joins the two.
class BinaryWriter {
 public:
  explicit BinaryWriter(const Bounds& bounds) : maximumBytes_(bounds.bytes), budget_(bounds) {}

  std::variant<Data, Error> write(const Value& value) {
    if (!addObject(value, 0)) {
      return error_;
    }
    return assembled();
  }

 private:
  /// One object: its bytes in contents_ up to contentsEnd, after which come its references.
  struct Object {
    std::size_t contentsEnd = 0;
    std::vector<std::uint32_t> references;
  };

  std::nullopt_t fail(const char* why) {
    error_.text = why;
    return std::nullopt;
  }

  void appendHead(Kind kind, std::size_t low) {
    contents_.push_back(static_cast<std::uint8_t>(static_cast<std::size_t>(kind) << 4 | low));
  }

  void appendInteger(std::uint64_t number) {
    const unsigned size = bytesFor(number);
    appendHead(Kind::integer, static_cast<std::size_t>(std::countr_zero(size)));
    append(contents_, number, size);
  }

  void appendCountedHead(Kind kind, std::size_t count) {
    appendHead(kind, std::min<std::size_t>(count, countFollows));
    if (count >= countFollows) {
      appendInteger(count);
    }
  }

  /// The number of a new object, whose bytes the caller has appended to contents_; none when the file grows
  /// too large to be read again.
  std::optional<std::uint32_t> finishObject() {
    objects_.push_back({contents_.size(), {}});
    // Each object has an offset besides its bytes.
    if (contents_.size() + objects_.size() > maximumBytes_) {
      return fail(tooLarge);
    }
    return static_cast<std::uint32_t>(objects_.size() - 1);
  }

  /// The number of the object that stands for value; none with the error noted. depth: how many containers
  /// value is in.
  std::optional<std::uint32_t> addObject(const Value& value, int depth) {
    if (value.isAbsent()) {
      return fail(absentValue);
    }
    if (const std::string* string = value.string()) {
      return addString(*string);
    }
    if (value.isArray() || value.isDictionary()) {
      if (depth == limits::propertyListDepth) {
        return fail(tooDeep);
      }
      return value.isArray() ? addArray(*value.array(), depth + 1) : addDictionary(value.dictionary(), depth + 1);
    }
    if (const Data* data = value.data()) {
      if (data->size() > maximumBytes_) {
        return fail(tooLarge);
      }
      if (!budget_.addContent(data->size())) {
        return fail(Budget::tooMuchContent);
      }
      appendCountedHead(Kind::data, data->size());
      contents_.insert(contents_.end(), data->begin(), data->end());
    } else if (const Date* date = value.date()) {
      appendHead(Kind::date, eightBytes);
      append(contents_, std::bit_cast<std::uint64_t>(date->secondsSince1970 - epoch), 8);
    } else {
      appendNumber(value);
    }
    return finishObject();
  }

  void appendNumber(const Value& value) {
    if (value.isBoolean()) {
      appendHead(Kind::simple, value.boolValue() ? simpleTrue : simpleFalse);
    } else if (value.isDouble()) {
      appendHead(Kind::real, eightBytes);
      append(contents_, std::bit_cast<std::uint64_t>(value.doubleValue()), 8);
    } else if (value.isUnsigned() && value.uint64Value() > std::numeric_limits<std::int64_t>::max()) {
      // Eight bytes would be read as a negative number.
      appendHead(Kind::integer, sixteenBytes);
      append(contents_, value.uint64Value(), 16);
    } else {
      appendInteger(value.uint64Value());
    }
  }

  std::optional<std::uint32_t> addString(const std::string& string) {
    if (!budget_.addContent(string.size())) {
      return fail(Budget::tooMuchContent);
    }
    const auto known = strings_.find(string);
    if (known != strings_.end()) {
      return known->second;
    }
    if (!utf8::isValid(string)) {
      return fail(notUtf8);
    }
    if (std::ranges::all_of(string, [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
      appendCountedHead(Kind::ascii, string.size());
      contents_.insert(contents_.end(), string.begin(), string.end());
    } else {
      const std::u16string units = toUtf16(string);
      appendCountedHead(Kind::utf16, units.size());
      for (const char16_t unit : units) {
        append(contents_, unit, 2);
      }
    }
    const auto number = finishObject();
    if (number) {
      strings_.emplace(string, *number);
    }
    return number;
  }

  std::optional<std::uint32_t> addArray(const Value::Array& array, int depth) {
    const auto number = beginContainer(Kind::array, array.size());
    if (!number) {
      return std::nullopt;
    }
    std::vector<std::uint32_t> references;
    for (const Value& element : array) {
      if (!refer(references, addObject(element, depth))) {
        return std::nullopt;
      }
    }
    return endContainer(*number, std::move(references));
  }

  std::optional<std::uint32_t> addDictionary(const std::shared_ptr<const Value::Dictionary>& dictionary, int depth) {
    const auto number = beginContainer(Kind::dictionary, dictionary->size());
    if (!number) {
      return std::nullopt;
    }
    std::vector<std::uint32_t> references;
    for (const auto& [key, element] : *dictionary) {
      if (!refer(references, addString(key))) {
        return std::nullopt;
      }
    }
    for (const auto& [key, element] : *dictionary) {
      if (!refer(references, addObject(element, depth))) {
        return std::nullopt;
      }
    }
    return endContainer(*number, std::move(references));
  }

  std::optional<std::uint32_t> beginContainer(Kind kind, std::size_t count) {
    if (!budget_.addEntries(count)) {
      return fail(Budget::tooManyEntries);
    }
    appendCountedHead(kind, count);
    return finishObject();
  }

  static bool refer(std::vector<std::uint32_t>& references, std::optional<std::uint32_t> object) {
    if (object) {
      references.push_back(*object);
    }
    return object.has_value();
  }

  std::optional<std::uint32_t> endContainer(std::uint32_t number, std::vector<std::uint32_t> references) {
    referenceCount_ += references.size();
    objects_[number].references = std::move(references);
    return number;
  }

  std::variant<Data, Error> assembled() const {
    const unsigned referenceSize = bytesFor(objects_.size() - 1);
    const std::size_t table = magic.size() + contents_.size() + referenceCount_ * referenceSize;
    const unsigned offsetSize = bytesFor(table);
    const std::size_t size = table + objects_.size() * offsetSize + trailerSize;
    if (size > maximumBytes_) {
      return Error{tooLarge};
    }
    Data file(magic.begin(), magic.end());
    file.reserve(size);
    std::vector<std::size_t> offsets;
    std::size_t contentsStart = 0;
    for (const Object& object : objects_) {
      offsets.push_back(file.size());
      file.insert(file.end(), contents_.begin() + static_cast<std::ptrdiff_t>(contentsStart),
                  contents_.begin() + static_cast<std::ptrdiff_t>(object.contentsEnd));
      contentsStart = object.contentsEnd;
      for (const std::uint32_t reference : object.references) {
        append(file, reference, referenceSize);
      }
    }
    for (const std::size_t offset : offsets) {
      append(file, offset, offsetSize);
    }
    append(file, 0, trailerOffsetSize);
    file.push_back(static_cast<std::uint8_t>(offsetSize));
    file.push_back(static_cast<std::uint8_t>(referenceSize));
    append(file, objects_.size(), 8);
    append(file, 0, 8);  // the top object is the first
    append(file, table, 8);
    return file;
  }

  const std::size_t maximumBytes_;
  Data contents_;
  std::vector<Object> objects_;
  std::size_t referenceCount_ = 0;
  std::unordered_map<std::string, std::uint32_t> strings_;
  Budget budget_;
  Error error_;
};

}  // namespace

std::variant<Data, Error> writeBinary(const Value& value) {
  return writeBinary(value, {});
}

std::variant<Data, Error> writeBinary(const Value& value, const Bounds& bounds) {
  return BinaryWriter(bounds).write(value);
}

}  // namespace kelvane::propertyList
