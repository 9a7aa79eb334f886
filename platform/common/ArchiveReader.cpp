// SPDX-License-Identifier: Apache-2.0
// Reads archives, whoever wrote them.
#include <algorithm>
#include <bit>
#include <utility>

#include "platform/Archive.h"
#include "platform/Limits.h"
#include "platform/common/ArchiveFormat.h"
#include "platform/common/Utf8.h"

namespace kelvane::archive {

namespace {

/// Reads one archive. A function that returns none or null has met what is no archive of known classes; then
/// nothing of the rest is read. No count is trusted before so many elements have been read.
class Reader {
 public:
  Reader(std::span<const std::uint8_t> bytes, std::span<const Class> known) : rest_(bytes), known_(known) {}

  std::optional<Object> read() {
    const auto start = take(magic.size());
    if (!start || !std::equal(start->begin(), start->end(), magic.begin()) || !readClasses()) {
      return std::nullopt;
    }
    std::optional<Object> object = readObject(0);
    return rest_.empty() ? std::move(object) : std::nullopt;
  }

 private:
  bool readClasses() {
    const auto count = readCount();
    if (!count || *count > limits::archiveClasses) {
      return false;
    }
    for (std::uint32_t index = 0; index < *count; ++index) {
      const Class* type = readClass();
      if (type == nullptr) {
        return false;
      }
      classes_.push_back(type);
    }
    return true;
  }

  /// The known class that the next one in the table is.
  const Class* readClass() {
    const auto name = readText();
    const auto version = readCount();
    const auto fieldCount = readCount();
    const auto type = std::find_if(known_.begin(), known_.end(), [&](const Class& candidate) {
      return name && version && fieldCount && candidate.name == *name && candidate.version == *version &&
             candidate.fields.size() == *fieldCount;
    });
    if (type == known_.end()) {
      return nullptr;
    }
    for (const std::string_view field : type->fields) {
      if (readText() != field) {
        return nullptr;
      }
    }
    return &*type;
  }

  std::optional<Object> readObject(int depth) {
    const auto number = readCount();
    if (!number || *number >= classes_.size() || !countEntry() || depth == limits::propertyListDepth) {
      return std::nullopt;
    }
    const Class& type = *classes_[*number];
    std::vector<Object::Field> fields;
    fields.reserve(type.fields.size());
    for (std::size_t index = 0; index < type.fields.size(); ++index) {
      if (!rest_.empty() && rest_.front() == static_cast<std::uint8_t>(Tag::objects)) {
        rest_ = rest_.subspan(1);
        std::optional<Objects> objects = readObjects(depth + 1);
        if (!objects) {
          return std::nullopt;
        }
        fields.emplace_back(*std::move(objects));
      } else {
        std::optional<Value> value = readValue(0);
        if (!value) {
          return std::nullopt;
        }
        fields.emplace_back(*std::move(value));
      }
    }
    return Object(type, std::move(fields));
  }

  std::optional<Objects> readObjects(int depth) {
    return countEntry() ? readEntries<Objects>([&] { return readObject(depth); }) : std::nullopt;
  }

  /// A count, and so many times a key and what readEntry reads.
  template <typename Entries>
  std::optional<Entries> readEntries(const auto& readEntry) {
    const auto count = readCount();
    if (!count) {
      return std::nullopt;
    }
    Entries entries;
    for (std::uint32_t index = 0; index < *count; ++index) {
      const auto key = readText();
      if (!key || (!entries.empty() && *key <= entries.rbegin()->first)) {
        return std::nullopt;
      }
      auto entry = readEntry();
      if (!entry) {
        return std::nullopt;
      }
      entries.emplace_hint(entries.end(), *key, *std::move(entry));
    }
    return entries;
  }

  /// depth: how many arrays and dictionaries the value is in.
  std::optional<Value> readValue(int depth) {
    const auto tag = take(1);
    if (!tag || !countEntry()) {
      return std::nullopt;
    }
    switch (static_cast<Tag>(tag->front())) {
      case Tag::absent:
        return Value();
      case Tag::falseValue:
        return Value(false);
      case Tag::trueValue:
        return Value(true);
      case Tag::signedInteger:
        return readNumber([](std::uint64_t bits) { return static_cast<std::int64_t>(bits); });
      case Tag::unsignedInteger:
        return readNumber([](std::uint64_t bits) { return bits; });
      case Tag::real:
        return readNumber([](std::uint64_t bits) { return std::bit_cast<double>(bits); });
      case Tag::date:
        return readNumber([](std::uint64_t bits) { return Date{std::bit_cast<double>(bits)}; });
      case Tag::string: {
        const auto text = readText();
        return text ? std::optional<Value>(*text) : std::nullopt;
      }
      case Tag::data: {
        const auto bytes = readBytes();
        return bytes ? std::optional<Value>(Data(bytes->begin(), bytes->end())) : std::nullopt;
      }
      case Tag::array:
      case Tag::dictionary:
        if (depth == limits::propertyListDepth) {
          return std::nullopt;
        }
        return static_cast<Tag>(tag->front()) == Tag::array ? readArray(depth + 1) : readDictionary(depth + 1);
      case Tag::objects:
        return std::nullopt;
    }
    return std::nullopt;
  }

  std::optional<Value> readNumber(const auto& fromBits) {
    const auto bits = readInteger(8);
    return bits ? std::optional<Value>(fromBits(*bits)) : std::nullopt;
  }

  std::optional<Value> readArray(int depth) {
    const auto count = readCount();
    if (!count) {
      return std::nullopt;
    }
    Value::Array array;
    for (std::uint32_t index = 0; index < *count; ++index) {
      std::optional<Value> element = readValue(depth);
      if (!element) {
        return std::nullopt;
      }
      array.push_back(*std::move(element));
    }
    return Value(std::move(array));
  }

  std::optional<Value> readDictionary(int depth) {
    auto entries = readEntries<Value::Dictionary>([&] { return readValue(depth); });
    return entries ? std::optional<Value>(*std::move(entries)) : std::nullopt;
  }

  std::optional<std::string_view> readText() {
    const auto bytes = readBytes();
    if (!bytes) {
      return std::nullopt;
    }
    const std::string_view text(reinterpret_cast<const char*>(bytes->data()), bytes->size());
    return utf8::isValid(text) ? std::optional(text) : std::nullopt;
  }

  std::optional<std::span<const std::uint8_t>> readBytes() {
    const auto length = readCount();
    return length ? take(*length) : std::nullopt;
  }

  std::optional<std::uint32_t> readCount() {
    const auto number = readInteger(4);
    return number ? std::optional(static_cast<std::uint32_t>(*number)) : std::nullopt;
  }

  std::optional<std::uint64_t> readInteger(std::size_t size) {
    const auto bytes = take(size);
    if (!bytes) {
      return std::nullopt;
    }
    std::uint64_t number = 0;
    for (std::size_t index = size; index > 0; --index) {
      number = number << 8 | (*bytes)[index - 1];
    }
    return number;
  }

  std::optional<std::span<const std::uint8_t>> take(std::size_t count) {
    if (count > rest_.size()) {
      return std::nullopt;
    }
    const auto taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }

  bool countEntry() { return ++entries_ <= limits::archiveEntries; }

  std::span<const std::uint8_t> rest_;
  const std::span<const Class> known_;
  std::vector<const Class*> classes_;
  std::size_t entries_ = 0;
};

}  // namespace

std::optional<Object> read(std::span<const std::uint8_t> bytes, std::span<const Class> known) {
  return bytes.size() <= limits::archiveBytes ? Reader(bytes, known).read() : std::nullopt;
}

}  // namespace kelvane::archive
