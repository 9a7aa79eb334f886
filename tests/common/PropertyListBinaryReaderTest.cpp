// SPDX-License-Identifier: Apache-2.0
// Reading the objects of binary property lists.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

using namespace std::string_literals;
using testing::bigEndian;
using testing::BinaryFile;
using testing::binaryOf;
using testing::parsed;
using testing::refusal;

TEST(ABinaryBoolean, IsTrueOrFalse) {
  EXPECT_EQ(parsed(binaryOf("\x08")), Value(false));
  EXPECT_EQ(parsed(binaryOf("\x09")), Value(true));
}

TEST(ABinaryInteger, IsUnsignedBelowEightBytes) {
  EXPECT_EQ(parsed(binaryOf("\x10\xFF")), Value(255));
  EXPECT_EQ(parsed(binaryOf("\x11\xFF\xFE")), Value(65534));
  EXPECT_EQ(parsed(binaryOf("\x12\xFF\xFF\xFF\xFE")), Value(4294967294));
}

TEST(ABinaryInteger, IsSignedInEightBytes) {
  EXPECT_EQ(parsed(binaryOf("\x13" + bigEndian(~std::uint64_t{0}, 8))), Value(-1));
  EXPECT_EQ(parsed(binaryOf("\x13" + bigEndian(std::uint64_t{1} << 63, 8))),
            Value(std::numeric_limits<std::int64_t>::min()));
}

TEST(ABinaryInteger, InSixteenBytesIsWhatSixtyFourBitsHold) {
  const auto most = ~std::uint64_t{0};
  EXPECT_EQ(parsed(binaryOf("\x14" + bigEndian(5, 16))), Value(5));
  EXPECT_EQ(parsed(binaryOf("\x14" + bigEndian(std::uint64_t{1} << 63, 16))), Value(std::uint64_t{1} << 63));
  EXPECT_EQ(parsed(binaryOf("\x14" + bigEndian(most, 16))), Value(most));
  EXPECT_EQ(parsed(binaryOf("\x14" + bigEndian(most, 8) + bigEndian(most, 8))), Value(-1));
  for (const auto& [high, low] : {std::pair<std::uint64_t, std::uint64_t>{1, 0}, {most, 0}, {most, most >> 1}}) {
    EXPECT_EQ(refusal(binaryOf("\x14" + bigEndian(high, 8) + bigEndian(low, 8))), "an integer out of range");
  }
  EXPECT_EQ(refusal(binaryOf("\x15" + std::string(32, '\0'))), "an integer of a bad size");
}

TEST(ABinaryReal, HasFourOrEightBytes) {
  EXPECT_EQ(parsed(binaryOf("\x22\x3F\x00\x00\x00"s)), Value(0.5));
  EXPECT_EQ(parsed(binaryOf("\x23\xBF\xF8\x00\x00\x00\x00\x00\x00"s)), Value(-1.5));
  EXPECT_EQ(refusal(binaryOf("\x21\x00\x00"s)), "a real of a bad size");
  EXPECT_EQ(refusal(binaryOf("\x24" + std::string(16, '\0'))), "a real of a bad size");
}

TEST(ABinaryDate, CountsFromTheYear2001) {
  EXPECT_EQ(parsed(binaryOf("\x33" + std::string(8, '\0'))), Value(Date{978307200}));
  EXPECT_EQ(parsed(binaryOf("\x33\xBF\xF8\x00\x00\x00\x00\x00\x00"s)), Value(Date{978307198.5}));
  EXPECT_EQ(refusal(binaryOf("\x32\x00\x00\x00\x00"s)), "a date of a bad size");
}

TEST(ABinaryString, IsAsciiOrUtf16) {
  EXPECT_EQ(parsed(binaryOf("\x53"s + "abc")), Value("abc"));
  EXPECT_EQ(parsed(binaryOf("\x50")), Value(""));
  EXPECT_EQ(parsed(binaryOf("\x5F\x10\x11"s + std::string(17, 'x'))), Value(std::string(17, 'x')));
  EXPECT_EQ(parsed(binaryOf("\x64\x00\xE9\x4E\x2D\xD8\x3D\xDE\x00"s)), Value("\u00E9\u4E2D\U0001F600"));
}

TEST(ABinaryString, MayHoldNul) {
  EXPECT_EQ(parsed(binaryOf("\x53"s + "a\0b"s)), Value("a\0b"s));
  EXPECT_EQ(parsed(binaryOf("\x61\x00\x00"s)), Value("\0"s));
  EXPECT_EQ(parsed(testing::writtenBinary("a\0b"s).value()), Value("a\0b"s));
}

TEST(ABinaryString, IsRefusedWhenItIsNotWhatItSays) {
  EXPECT_EQ(refusal(binaryOf("\x51\x80")), "an ASCII string that is not ASCII");
  for (const std::string& units : {"\xD8\x3D"s, "\xDE\x00"s, "\xD8\x3D\x00\x41"s, "\xD8\x3D\xD8\x3D"s}) {
    const std::string head(1, static_cast<char>(0x60 + units.size() / 2));
    EXPECT_EQ(refusal(binaryOf(head + units)), "a string with half a surrogate pair");
  }
}

TEST(BinaryData, IsBytes) {
  EXPECT_EQ(parsed(binaryOf("\x40")), Value(Data{}));
  EXPECT_EQ(parsed(binaryOf("\x43\x0F\xBD\x77")), Value(Data{0x0F, 0xBD, 0x77}));
  EXPECT_EQ(parsed(binaryOf("\x4F\x11\x01\x00"s + std::string(256, '\x07'))), Value(Data(256, 7)));
}

TEST(ABinaryContainer, RefersToItsElements) {
  EXPECT_EQ(parsed(BinaryFile{.objects = {"\xA2\x01\x01", "\x09"}}.bytes()), Value(Value::Array{true, true}));
  EXPECT_EQ(parsed(BinaryFile{.objects = {"\xD1\x01\x02", "\x51k", "\x09"}}.bytes()),
            Value(Value::Dictionary{{"k", true}}));
  EXPECT_EQ(parsed(BinaryFile{.objects = {"\x09", "\xA1\x00"s}, .top = 1}.bytes()), Value(Value::Array{true}));
}

TEST(ABinaryList, MayHaveReferencesAndOffsetsOfAnySize) {
  for (int size = 1; size <= 8; ++size) {
    const std::string array = "\xA1" + bigEndian(1, size);
    const BinaryFile file{.objects = {array, "\x09"}, .offsetSize = size, .referenceSize = size};
    EXPECT_EQ(parsed(file.bytes()), Value(Value::Array{true})) << size;
  }
}

TEST(ABinaryDictionary, IsRefusedForKeysThatAreNoStringsOrComeTwice) {
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xD1\x01\x01", "\x10\x05"}}.bytes()), "a key that is no string");
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xD1\x00\x01"s, "\x09"}}.bytes()), "a key that is no string");
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xD2\x01\x01\x02\x02", "\x51k", "\x09"}}.bytes()), "a key comes twice");
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xD2\x01\x02\x03\x03", "\x51k", "\x61\x00k"s, "\x09"}}.bytes()),
            "a key comes twice");
}

TEST(ABinaryObject, OfAKindThatIsNoValueIsRefused) {
  EXPECT_EQ(refusal(binaryOf("\x80\x05")), "a uid is no property-list value");
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xC1\x01", "\x09"}}.bytes()), "a set is no property-list value");
  for (const std::string& object : {"\0"s, "\x01"s, "\x0F"s, "\x70"s, "\x90"s, "\xB0"s, "\xE0"s, "\xF0"s}) {
    EXPECT_EQ(refusal(binaryOf(object)), "an object of an unknown kind");
  }
}

}  // namespace
}  // namespace kelvane
