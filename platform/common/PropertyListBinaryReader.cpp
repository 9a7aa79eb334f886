// SPDX-License-Identifier: Apache-2.0
// Reads binary property lists.
//
// Nulls, sets and the "uid" references of object archives are no property-list values and are refused.
#include <utility>

#include "platform/common/PropertyListBinaryObjects.h"
#include "platform/common/PropertyListReaders.h"

namespace kelvane::propertyList {
namespace {

using namespace binary;
using Head = BinaryObjects::Head;

/// Reads one list. A function that returns none, or false, has noted the error.
///
/// An object is decoded anew wherever it is referred to. The depth limit ends a cycle of references, and the
/// budget the doubling that arrays which hold the next one twice would bring.
class BinaryReader {
 public:
  BinaryReader(Bytes bytes, const Bounds& bounds) : objects_(bytes), budget_(bounds) {}

  Result read() {
    const std::optional<std::uint64_t> top = objects_.readTrailer();
    if (!top) {
      return objects_.error();
    }
    std::optional<Value> value = readObject(*top, 0);
    if (!value) {
      return objects_.error();
    }
    return *std::move(value);
  }

 private:
  /// depth: how many containers the object is in.
  std::optional<Value> readObject(std::uint64_t object, int depth) {
    const auto head = objects_.readHead(object);
    if (!head) {
      return std::nullopt;
    }
    switch (head->kind) {
      case Kind::simple:
        if (head->low == simpleFalse || head->low == simpleTrue) {
          return Value(head->low == simpleTrue);
        }
        return objects_.fail("an object of an unknown kind");
      case Kind::integer:
        return objects_.readInteger(*head);
      case Kind::real: {
        const auto number = objects_.readReal(*head);
        return number ? std::optional<Value>(*number) : std::nullopt;
      }
      case Kind::date: {
        const auto seconds = head->low == eightBytes ? objects_.readReal(*head) : objects_.fail("a date of a bad size");
        return seconds ? std::optional<Value>(Date{*seconds + epoch}) : std::nullopt;
      }
      case Kind::data:
        return readData(*head);
      case Kind::ascii:
      case Kind::utf16:
        return readString(*head);
      case Kind::array:
      case Kind::dictionary:
        if (depth == limits::propertyListDepth) {
          return objects_.fail(tooDeep);
        }
        return head->kind == Kind::array ? readArray(*head, depth + 1) : readDictionary(*head, depth + 1);
      case Kind::uid:
        return objects_.fail("a uid is no property-list value");
      case Kind::set:
        return objects_.fail("a set is no property-list value");
    }
    return objects_.fail("an object of an unknown kind");
  }

  std::optional<Value> readData(Head head) {
    const auto bytes = objects_.readElements(head, 1);
    if (!bytes) {
      return std::nullopt;
    }
    if (!budget_.addContent(bytes->size())) {
      return objects_.fail(Budget::tooMuchContent);
    }
    return Value(Data(bytes->begin(), bytes->end()));
  }

  std::optional<Value> readString(Head head) {
    std::optional<std::string> string = objects_.readString(head);
    if (!string) {
      return std::nullopt;
    }
    if (!budget_.addContent(string->size())) {
      return objects_.fail(Budget::tooMuchContent);
    }
    return Value(*std::move(string));
  }

  /// The i-th reference among an array's or dictionary's.
  std::uint64_t reference(Bytes references, std::size_t i) const {
    return bigEndian(references.subspan(i * objects_.referenceSize(), objects_.referenceSize()));
  }

  std::optional<Value> readArray(Head head, int depth) {
    const auto references = objects_.readElements(head, objects_.referenceSize());
    if (!references) {
      return std::nullopt;
    }
    const std::size_t count = references->size() / objects_.referenceSize();
    if (!budget_.addEntries(count)) {
      return objects_.fail(Budget::tooManyEntries);
    }
    Value::Array array;
    array.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      std::optional<Value> element = readObject(reference(*references, i), depth);
      if (!element) {
        return std::nullopt;
      }
      array.push_back(*std::move(element));
    }
    return Value(std::move(array));
  }

  /// A dictionary refers to all its keys, then to all its values.
  std::optional<Value> readDictionary(Head head, int depth) {
    const auto references = objects_.readElements(head, 2 * objects_.referenceSize());
    if (!references) {
      return std::nullopt;
    }
    const std::size_t count = references->size() / objects_.referenceSize() / 2;
    if (!budget_.addEntries(count)) {
      return objects_.fail(Budget::tooManyEntries);
    }
    Value::Dictionary dictionary;
    for (std::size_t i = 0; i < count; ++i) {
      const auto keyHead = objects_.readHead(reference(*references, i));
      if (!keyHead) {
        return std::nullopt;
      }
      if (keyHead->kind != Kind::ascii && keyHead->kind != Kind::utf16) {
        return objects_.fail("a key that is no string");
      }
      const std::optional<Value> key = readString(*keyHead);
      if (!key) {
        return std::nullopt;
      }
      if (dictionary.contains(*key->string())) {
        return objects_.fail("a key comes twice");
      }
      std::optional<Value> value = readObject(reference(*references, count + i), depth);
      if (!value) {
        return std::nullopt;
      }
      dictionary.emplace(*key->string(), *std::move(value));
    }
    return Value(std::move(dictionary));
  }

  BinaryObjects objects_;
  Budget budget_;
};

}  // namespace

Result readBinary(std::span<const std::uint8_t> bytes, const Bounds& bounds) {
  return BinaryReader(bytes, bounds).read();
}

}  // namespace kelvane::propertyList
