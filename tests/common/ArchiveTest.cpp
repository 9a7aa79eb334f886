// SPDX-License-Identifier: Apache-2.0
// Keyed archives: what comes back, and what is taken for none.
#include "platform/Archive.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "platform/Limits.h"
#include "platform/MutableDictionary.h"
#include "tests/common/ArchiveSamples.h"

namespace kelvane::archive::test {
namespace {

const Object& twoBooks() {
  static const Object object = shelfOf("attic", {{"a", bookOf("Äpfel", 310.5)}, {"b", bookOf("Birnen", false)}});
  return object;
}

std::optional<Object> readBack(const Value& value) {
  const auto bytes = archived(bookOf(value, {}));
  return bytes ? read(*bytes, classes) : std::nullopt;
}

Value nested(int depth) {
  Value value = 1;
  for (int level = 0; level < depth; ++level) {
    value = level % 2 == 0 ? Value(Value::Array{value}) : Value(Value::Dictionary{{"in", value}});
  }
  return value;
}

/// The archive's bytes with one text in the place of another that is as long.
Data withText(Data bytes, const std::string& from, const std::string& to) {
  const std::string all(bytes.begin(), bytes.end());
  const std::size_t place = all.find(from);
  EXPECT_NE(place, std::string::npos);
  EXPECT_EQ(from.size(), to.size());
  std::copy(to.begin(), to.end(), bytes.begin() + static_cast<std::ptrdiff_t>(place));
  return bytes;
}

TEST(AnArchive, GivesTheObjectBackWithAllItsFields) {
  const auto object = read(*archived(twoBooks()), classes);
  ASSERT_TRUE(object);
  EXPECT_EQ(*object, twoBooks());
  EXPECT_EQ(object->type().name, "Shelf");
  EXPECT_EQ(object->value(0), Value("attic"));
  EXPECT_EQ(object->objects(0), nullptr);
  ASSERT_NE(object->objects(1), nullptr);
  EXPECT_TRUE(object->value(1).isAbsent());
  EXPECT_EQ(object->objects(1)->at("a").value(0), Value("Äpfel"));
  EXPECT_EQ(object->objects(1)->at("b").value(1), Value(false));
}

TEST(AnArchive, HoldsEveryKindOfValueAsItIs) {
  const Value everything = Value::Array{
      true,
      false,
      -1,
      std::numeric_limits<std::int64_t>::min(),
      std::numeric_limits<std::uint64_t>::max(),
      std::uint64_t{1},
      0.1,
      std::nan(""),
      Date{-0.5},
      "",
      "ünder",
      std::string("a\0b", 3),
      Data{},
      Data{0, 255},
      Value::Array{},
      Value::Array{1, "2"},
      Value::Dictionary{},
      Value::Dictionary{{"", 1}, {"k", Value::Dictionary{{"v", Date{7}}}}},
      Value(),
      Value::Dictionary{{"none", Value()}},
  };
  const auto object = readBack(everything);
  ASSERT_TRUE(object);
  EXPECT_EQ(object->value(0), everything);
  EXPECT_TRUE((*object->value(0).array())[5].isUnsigned());
  EXPECT_TRUE(object->value(1).isAbsent());
}

TEST(AnArchive, OfALiveDictionaryHoldsItsEntriesOfTheMoment) {
  const MutableDictionary dictionary;
  dictionary.set("now", 1);
  const auto bytes = archived(bookOf(dictionary, {}));
  dictionary.set("later", 2);
  EXPECT_EQ(read(*bytes, classes)->value(0), Value(Value::Dictionary{{"now", 1}}));
}

TEST(AnArchive, SaysWhatIsInIt) {
  const auto bytes = archived(twoBooks());
  const std::string text(bytes->begin(), bytes->end());
  for (const char* part : {"KLARCHV1", "Shelf", "place", "books", "Book", "title", "pages", "attic"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part;
  }
}

TEST(AnArchive, OfAnUnknownClassIsNone) {
  EXPECT_FALSE(read(withText(*archived(twoBooks()), "Shelf", "Table"), classes));
  EXPECT_FALSE(read(*archived(twoBooks()), std::span(classes).first(1)));
  EXPECT_FALSE(read(*archived(twoBooks()), {}));
}

TEST(AnArchive, OfAnotherVersionIsNone) {
  auto later = classes;
  later[1].version = 2;
  EXPECT_FALSE(read(*archived(twoBooks()), later));
}

TEST(AnArchive, OfOtherFieldsIsNone) {
  EXPECT_FALSE(read(withText(*archived(twoBooks()), "pages", "words"), classes));
  auto fewer = classes;
  fewer[1].fields = std::span(bookFields).first(1);
  EXPECT_FALSE(read(*archived(twoBooks()), fewer));
}

TEST(AnArchive, ThatIsCutShortOrHasMoreBehindItIsNone) {
  const auto bytes = archived(twoBooks());
  for (std::size_t length = 0; length < bytes->size(); ++length) {
    EXPECT_FALSE(read(std::span(*bytes).first(length), classes)) << length;
  }
  Data longer = *bytes;
  longer.push_back(0);
  EXPECT_FALSE(read(longer, classes));
}

TEST(AnArchive, WithAnyByteChangedIsNoneOrAnotherObject) {
  const auto bytes = archived(twoBooks());
  for (std::size_t position = 0; position < bytes->size(); ++position) {
    for (int change = 1; change < 256; ++change) {
      Data changed = *bytes;
      changed[position] = static_cast<std::uint8_t>(changed[position] ^ change);
      const auto object = read(changed, classes);
      EXPECT_FALSE(object && *object == twoBooks()) << position;
    }
  }
}

TEST(AnArchive, WithKeysOutOfOrderOrTwiceIsNone) {
  const auto dictionary = archived(bookOf(Value::Dictionary{{"k1", 1}, {"k2", 2}}, {}));
  EXPECT_TRUE(read(*dictionary, classes));
  EXPECT_FALSE(read(withText(*dictionary, "k1", "k3"), classes));
  EXPECT_FALSE(read(withText(*dictionary, "k1", "k2"), classes));
  const auto objects = archived(shelfOf({}, {{"s1", bookOf(1, 1)}, {"s2", bookOf(2, 2)}}));
  EXPECT_FALSE(read(withText(*objects, "s1", "s3"), classes));
  EXPECT_FALSE(read(withText(*objects, "s1", "s2"), classes));
}

TEST(AnArchive, WithTextThatIsNotUtf8IsNone) {
  EXPECT_FALSE(read(withText(*archived(twoBooks()), "attic", "att\xff\xff"), classes));
}

TEST(AnArchive, IsReadAsDeepAsPropertyListsAndNotDeeper) {
  EXPECT_EQ(readBack(nested(limits::propertyListDepth))->value(0), nested(limits::propertyListDepth));
  EXPECT_FALSE(archived(bookOf(nested(limits::propertyListDepth + 1), {})));
  // By hand, as the writer refuses it: one array more round an archive's value.
  Data deep = *archived(bookOf(nested(limits::propertyListDepth), {}));
  const Data wrapping = {9, 1, 0, 0, 0};
  const std::string text(deep.begin(), deep.end());
  const auto place = static_cast<std::ptrdiff_t>(text.find("pages") + 5 + 4);
  deep.insert(deep.begin() + place, wrapping.begin(), wrapping.end());
  EXPECT_FALSE(read(deep, classes));
}

TEST(AnArchive, HoldsSoManyEntriesAndNoMore) {
  // The object, its two fields and the array's elements.
  const std::size_t most = limits::archiveEntries - 3;
  EXPECT_TRUE(readBack(Value::Array(most, true)));
  EXPECT_FALSE(archived(bookOf(Value::Array(most + 1, true), {})));
  Data more = *archived(bookOf(Value::Array(most, true), {}));
  // One element more, by hand: its tag at the end of the array and its count.
  const std::string text(more.begin(), more.end());
  const std::size_t count = text.find("pages") + 5 + 4 + 1;
  more.insert(more.end() - 1, 2);
  more[count] = static_cast<std::uint8_t>(more[count] + 1);
  EXPECT_FALSE(read(more, classes));
}

TEST(AnArchive, IsSoLongAndNoLonger) {
  const std::size_t around = archived(bookOf("", {}))->size();
  const auto longest = archived(bookOf(std::string(limits::archiveBytes - around, 'x'), {}));
  ASSERT_TRUE(longest);
  EXPECT_EQ(longest->size(), limits::archiveBytes);
  EXPECT_TRUE(read(*longest, classes));
  EXPECT_FALSE(archived(bookOf(std::string(limits::archiveBytes - around + 1, 'x'), {})));
  Data longer = *longest;
  longer.push_back(0);
  EXPECT_FALSE(read(longer, classes));
}

TEST(AnArchive, HasSoManyClassesAndNoMore) {
  for (const std::size_t count : {limits::archiveClasses, limits::archiveClasses + 1}) {
    const std::vector<Class> same(count, book);
    Writer writer(same, 0);
    writer.object(same.front());
    writer.value({});
    writer.value({});
    EXPECT_EQ(read(*writer.finish(), classes).has_value(), count == limits::archiveClasses);
  }
}

TEST(AnArchive, MakesNothingOfCountsThatPromiseMoreThanThereIs) {
  const std::string header = [] {
    const Data bytes = *archived(bookOf({}, {}));
    return std::string(bytes.begin(), bytes.end() - 2);
  }();
  for (const char tag : {'\7', '\10', '\11', '\12', '\13'}) {
    const std::string text = header + tag + "\xff\xff\xff\xff";
    EXPECT_FALSE(read(Data(text.begin(), text.end()), classes)) << static_cast<int>(tag);
  }
  EXPECT_FALSE(read(Data{}, classes));
}

}  // namespace
}  // namespace kelvane::archive::test
