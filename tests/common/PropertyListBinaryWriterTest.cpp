// SPDX-License-Identifier: Apache-2.0
// Writing binary property lists.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "platform/MutableDictionary.h"
#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

using namespace std::string_literals;
using testing::bigEndian;
using testing::BinaryFile;
using testing::binaryOf;
using testing::writtenBinary;

TEST(AWrittenBinaryNumber, HasTheFewestBytes) {
  EXPECT_EQ(writtenBinary(false), binaryOf("\x08"));
  EXPECT_EQ(writtenBinary(true), binaryOf("\x09"));
  EXPECT_EQ(writtenBinary(0), binaryOf("\x10\x00"s));
  EXPECT_EQ(writtenBinary(255), binaryOf("\x10\xFF"));
  EXPECT_EQ(writtenBinary(256u), binaryOf("\x11\x01\x00"s));
  EXPECT_EQ(writtenBinary(65536), binaryOf("\x12\x00\x01\x00\x00"s));
  EXPECT_EQ(writtenBinary(4294967296), binaryOf("\x13" + bigEndian(4294967296, 8)));
  EXPECT_EQ(writtenBinary(-1), binaryOf("\x13" + std::string(8, '\xFF')));
  EXPECT_EQ(writtenBinary(std::uint64_t{1} << 63), binaryOf("\x14" + bigEndian(std::uint64_t{1} << 63, 16)));
  EXPECT_EQ(writtenBinary(0.5), binaryOf("\x23\x3F\xE0\x00\x00\x00\x00\x00\x00"s));
}

TEST(AWrittenBinaryList, HasTheKnownForm) {
  EXPECT_EQ(writtenBinary(Date{978307200}), binaryOf("\x33" + std::string(8, '\0')));
  EXPECT_EQ(writtenBinary(Data{0x0F, 0xBD}), binaryOf("\x42\x0F\xBD"));
  EXPECT_EQ(writtenBinary(std::string(15, 'x')), binaryOf("\x5F\x10\x0F"s + std::string(15, 'x')));
  EXPECT_EQ(writtenBinary("\u00E9\U0001F600"), binaryOf("\x63\x00\xE9\xD8\x3D\xDE\x00"s));
  EXPECT_EQ(writtenBinary(Value::Array{1, Value::Array{2}}),
            (BinaryFile{.objects = {"\xA2\x01\x02", "\x10\x01", "\xA1\x03", "\x10\x02"}}.bytes()));
}

TEST(AWrittenBinaryList, HasEveryStringOnce) {
  const Value value = Value::Dictionary{{"a", "b"}, {"b", Value::Dictionary{{"a", "a"}}}};
  const BinaryFile expected{.objects = {"\xD2\x01\x02\x02\x03", "\x51"s + "a", "\x51"s + "b", "\xD1\x01\x01"}};
  EXPECT_EQ(writtenBinary(value), expected.bytes());
}

TEST(AWrittenBinaryList, HasReferencesAndOffsetsOfAsManyBytesAsItNeeds) {
  for (const int count : {200, 255, 256, 257, 70000}) {
    Value::Array array;
    for (int i = 0; i < count; ++i) {
      array.emplace_back(i % 256);
    }
    const auto written = writtenBinary(array);
    ASSERT_TRUE(written);
    // One object more than the elements: the array.
    EXPECT_EQ((*written)[written->size() - 25], count > 65535 ? 4 : count > 255 ? 2 : 1);
    EXPECT_EQ(testing::parsed(*written), Value(array));
  }
}

TEST(AWrittenBinaryList, HoldsTheFractionsOfTodaysDates) {
  for (const double seconds : {1709210096.123, 1709210096.999999, 499999999.7, 2147483647.3}) {
    EXPECT_EQ(testing::parsed(writtenBinary(Date{seconds}).value()), Value(Date{seconds}));
  }
}

TEST(AWrittenBinaryList, IsRefusedWhenADictionaryContainsItself) {
  MutableDictionary dictionary;
  dictionary.set("self", dictionary);
  EXPECT_EQ(testing::binaryRefusal(dictionary), "nested too deeply");
  EXPECT_EQ(testing::xmlRefusal(dictionary), "nested too deeply");
  dictionary.remove("self");
}

}  // namespace
}  // namespace kelvane
