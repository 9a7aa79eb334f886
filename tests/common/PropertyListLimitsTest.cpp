// SPDX-License-Identifier: Apache-2.0
// The limits of property lists: exactly reached, and passed by one.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Limits.h"
#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

using testing::bigEndian;
using testing::BinaryFile;
using testing::nestedArrays;
using testing::parsed;
using testing::refusal;
using testing::repeated;

constexpr std::size_t bytes = limits::propertyListBytes;
constexpr auto depth = static_cast<std::size_t>(limits::propertyListDepth);
constexpr std::size_t entries = limits::propertyListEntries;
constexpr std::size_t content = limits::propertyListContentBytes;

TEST(ThePropertyListSizeLimit, HoldsForEveryFormat) {
  const std::string tooLarge = "larger than 1048576 bytes";

  const std::string xmlStart = "<plist><string>";
  const std::string xmlEnd = "</string></plist>";
  const std::string xml = xmlStart + std::string(bytes - xmlStart.size() - xmlEnd.size(), 'x') + xmlEnd;
  EXPECT_EQ(refusal(xml), "");
  EXPECT_EQ(refusal(xml + "\n"), tooLarge);

  EXPECT_EQ(refusal(std::string(bytes, 'x')), "");
  EXPECT_EQ(refusal(std::string(bytes + 1, 'x')), tooLarge);

  const auto binary = [](std::size_t size) {
    return testing::binaryOf("\x4F\x12" + bigEndian(size, 4) + std::string(size, 'x'));
  };
  const std::size_t frame = binary(bytes).size() - bytes + 3;  // a larger file has offsets of the same size
  EXPECT_EQ(binary(bytes - frame + 3).size(), bytes);
  EXPECT_EQ(refusal(binary(bytes - frame + 3)), "");
  EXPECT_EQ(refusal(binary(bytes - frame + 4)), tooLarge);
}

TEST(ThePropertyListSizeLimit, HoldsForWriters) {
  // The magic, the data's head, its offset, the trailer.
  const std::size_t binaryFrame = 8 + 6 + 4 + 32;
  EXPECT_EQ(testing::writtenBinary(Data(bytes - binaryFrame, 7)).value().size(), bytes);
  EXPECT_EQ(testing::binaryRefusal(Data(bytes - binaryFrame + 1, 7)), "too large");
  EXPECT_EQ(testing::binaryRefusal(Data(16 * bytes, 7)), "too large");
  EXPECT_EQ(testing::binaryRefusal(std::string(2 * bytes, 'x')), "too large");

  const std::size_t xmlFrame = testing::writtenXml("").value().size();
  EXPECT_EQ(testing::writtenXml(std::string(bytes - xmlFrame, 'x')).value().size(), bytes);
  EXPECT_EQ(testing::xmlRefusal(std::string(bytes - xmlFrame + 1, 'x')), "too large");
}

TEST(ThePropertyListSizeLimit, EndsTheWritingOfSharedArraysEarly) {
  Value doubling = Value::Array{std::string(1000, 'x')};
  for (int i = 0; i < 60; ++i) {
    doubling = Value::Array{doubling, doubling};
  }
  EXPECT_NE(testing::binaryRefusal(doubling), "");
  EXPECT_NE(testing::xmlRefusal(doubling), "");
}

TEST(ThePropertyListDepthLimit, HoldsForEveryFormat) {
  const Value deepest = nestedArrays(limits::propertyListDepth);

  const auto xml = [](std::size_t count) {
    return "<plist>" + repeated("<array>", count) + repeated("</array>", count) + "</plist>";
  };
  EXPECT_EQ(parsed(xml(depth)), deepest);
  EXPECT_EQ(refusal(xml(depth + 1)), "line 1: nested too deeply");
  EXPECT_EQ(refusal(xml(50000)), "line 1: nested too deeply");

  const auto text = [](std::size_t count) { return std::string(count, '(') + std::string(count, ')'); };
  EXPECT_EQ(parsed(text(depth)), deepest);
  EXPECT_EQ(refusal(text(depth + 1)), "line 1: nested too deeply");
  EXPECT_EQ(refusal(std::string(bytes, '(')), "line 1: nested too deeply");
  EXPECT_EQ(refusal(repeated("{a=", depth) + "b" + repeated(";}", depth)), "");
  EXPECT_EQ(refusal(repeated("{a=", depth + 1) + "b" + repeated(";}", depth + 1)), "line 1: nested too deeply");

  const auto binary = [](std::size_t count) {
    BinaryFile file;
    for (std::size_t i = 1; i < count; ++i) {
      file.objects.push_back("\xA1" + bigEndian(i, 1));
    }
    file.objects.emplace_back("\xA0");
    return file.bytes();
  };
  EXPECT_EQ(parsed(binary(depth)), deepest);
  EXPECT_EQ(refusal(binary(depth + 1)), "nested too deeply");
}

TEST(ThePropertyListDepthLimit, HoldsForWriters) {
  const Value deepest = nestedArrays(limits::propertyListDepth);
  EXPECT_EQ(parsed(testing::writtenBinary(deepest).value()), deepest);
  EXPECT_EQ(parsed(testing::writtenXml(deepest).value()), deepest);
  for (const Value& tooDeep : {Value(Value::Array{deepest}), Value(Value::Dictionary{{"k", deepest}})}) {
    EXPECT_EQ(testing::binaryRefusal(tooDeep), "nested too deeply");
    EXPECT_EQ(testing::xmlRefusal(tooDeep), "nested too deeply");
  }
}

TEST(ThePropertyListEntryLimit, HoldsForEveryFormat) {
  const auto xml = [](std::size_t count) { return "<plist><array>" + repeated("<true/>", count) + "</array></plist>"; };
  EXPECT_EQ(refusal(xml(entries)), "");
  EXPECT_EQ(refusal(xml(entries + 1)), "line 1: too many entries");

  const auto text = [](std::size_t count) { return "(" + repeated("a,", count) + ")"; };
  EXPECT_EQ(refusal(text(entries)), "");
  EXPECT_EQ(refusal(text(entries + 1)), "line 1: too many entries");

  const auto binary = [](std::size_t count) {
    return BinaryFile{.objects = {"\xAF\x12" + bigEndian(count, 4) + std::string(count, '\1'), "\x09"}, .offsetSize = 4}
        .bytes();
  };
  EXPECT_EQ(refusal(binary(entries)), "");
  EXPECT_EQ(refusal(binary(entries + 1)), "too many entries");
}

TEST(ThePropertyListEntryLimit, CountsTheEntriesOfDictionariesToo) {
  const std::size_t half = entries / 2;
  std::string text = "({";
  for (std::size_t i = 0; i < half; ++i) {
    text += std::to_string(i) + "=;";
    text.insert(text.size() - 1, "a");
  }
  text += "}";
  EXPECT_EQ(refusal(text + repeated(",a", half - 1) + ")"), "");
  EXPECT_EQ(refusal(text + repeated(",a", half) + ")"), "line 1: too many entries");
}

TEST(ThePropertyListEntryLimit, HoldsForWriters) {
  // Strings are written once, so that so many fit into the size.
  const Value most = Value::Array(entries, "x");
  EXPECT_EQ(parsed(testing::writtenBinary(most).value()), most);
  EXPECT_EQ(testing::binaryRefusal(Value::Array(entries + 1, "x")), "too many entries");
  EXPECT_EQ(testing::xmlRefusal(Value::Array(entries + 1, true)), "too many entries");
}

TEST(ThePropertyListContentLimit, IsReachedByReferringToAStringManyTimes) {
  const std::size_t size = 64 * 1024;
  const std::size_t count = content / size;
  const std::string string = "\x5F\x12" + bigEndian(size, 4) + std::string(size, 'x');
  const auto file = [&](std::size_t times, const std::string& another) {
    const std::string array = "\xAF\x11" + bigEndian(times + 1, 2) + std::string(times, '\1') + "\2";
    return BinaryFile{.objects = {array, string, another}, .offsetSize = 4}.bytes();
  };
  EXPECT_EQ(refusal(file(count, "\x50")), "");
  EXPECT_EQ(refusal(file(count, "\x51x")), "too much content");

  const Value most = Value::Array(count, Value(std::string(size, 'x')));
  EXPECT_EQ(parsed(testing::writtenBinary(most).value()), most);
  EXPECT_EQ(testing::binaryRefusal(Value::Array{most, "x"}), "too much content");
}

}  // namespace
}  // namespace kelvane
