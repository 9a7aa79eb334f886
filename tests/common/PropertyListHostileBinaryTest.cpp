// SPDX-License-Identifier: Apache-2.0
// Binary property lists that are made to do harm.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

using namespace std::string_literals;
using testing::bigEndian;
using testing::BinaryFile;
using testing::refusal;

constexpr std::uint64_t most = ~std::uint64_t{0};
const std::string yes = "\x09";

TEST(AHostileBinaryList, WithTheMagicAloneIsRefused) {
  EXPECT_EQ(refusal("bplist00"), "too short for the binary format");
  EXPECT_EQ(refusal("bplist00" + std::string(31, '\0')), "too short for the binary format");
  EXPECT_NE(refusal("bplist00" + std::string(32, '\0')), "");
  EXPECT_EQ(refusal("bplist01" + std::string(32, '\0')), "unknown version of the binary format");
}

TEST(AHostileBinaryList, CannotMakeTheTableReachOutsideTheFile) {
  for (const std::uint64_t count :
       {std::uint64_t{0}, std::uint64_t{2}, std::uint64_t{1} << 32, std::uint64_t{1} << 63, (most >> 3) + 2, most}) {
    for (const int offsetSize : {1, 4, 8}) {
      EXPECT_EQ(refusal(BinaryFile{.objects = {yes}, .offsetSize = offsetSize, .objectCount = count}.bytes()),
                "the table of offsets does not fit");
    }
  }
  for (const std::uint64_t table : {std::uint64_t{0}, std::uint64_t{7}, std::uint64_t{8}, std::uint64_t{10},
                                    std::uint64_t{1} << 40, most - 31, most}) {
    EXPECT_EQ(refusal(BinaryFile{.objects = {yes}, .tableOffset = table}.bytes()), "the table of offsets does not fit");
  }
}

TEST(AHostileBinaryList, CannotHaveNumbersOfNoOrTooManyBytes) {
  for (const int size : {0, 9, 255}) {
    EXPECT_EQ(refusal(BinaryFile{.objects = {yes}, .offsetSize = size}.bytes()), "bad sizes in the trailer");
    EXPECT_EQ(refusal(BinaryFile{.objects = {yes}, .referenceSize = size}.bytes()), "bad sizes in the trailer");
  }
}

TEST(AHostileBinaryList, CannotReferToObjectsThatAreNotThere) {
  for (const std::uint64_t top : {std::uint64_t{1}, std::uint64_t{1} << 61, most}) {
    EXPECT_EQ(refusal(BinaryFile{.objects = {yes}, .top = top}.bytes()), "a reference to no object");
  }
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xA1\x01"}}.bytes()), "a reference to no object");
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xD1\x01\x00"s}}.bytes()), "a reference to no object");
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xA1" + bigEndian(most, 8)}, .referenceSize = 8}.bytes()),
            "a reference to no object");
}

TEST(AHostileBinaryList, CannotHaveObjectsOutsideTheirPlace) {
  // Within the magic, where the table begins, in the trailer, past the end.
  for (const std::uint64_t offset :
       {std::uint64_t{0}, std::uint64_t{7}, std::uint64_t{9}, std::uint64_t{20}, std::uint64_t{1} << 40, most}) {
    EXPECT_EQ(refusal(BinaryFile{.objects = {yes}, .offsetSize = 8, .offsets = {offset}}.bytes()),
              "an offset to no object");
  }
}

TEST(AHostileBinaryList, CannotHaveObjectsThatReachPastTheirPlace) {
  for (const std::string& object :
       {"\x11\x01"s, "\x13\0\0\0\0\0\0\0"s, "\x14\0"s, "\x22\0\0\0"s, "\x23\0"s, "\x33\0\0"s, "\x42\0"s, "\x52x"s,
        "\x61\0"s, "\x62\0a\0"s, "\xA2\0"s, "\xD1\0"s, "\x4F"s, "\x4F\x10"s, "\x4F\x12\0\0"s}) {
    EXPECT_EQ(refusal(testing::binaryOf(object)), "an object goes past the end");
  }
}

TEST(AHostileBinaryList, CannotOverflowACount) {
  for (const char* head : {"\x4F", "\x5F", "\x6F", "\xAF", "\xDF"}) {
    for (const std::uint64_t count : {most, most / 2 + 1, most / 8 + 2, most / 16 + 2, std::uint64_t{1} << 32,
                                      std::uint64_t{1} << 20, std::uint64_t{100}}) {
      for (const int referenceSize : {1, 8}) {
        const std::string object = head + "\x13"s + bigEndian(count, 8) + "\0\0\0\0"s;
        EXPECT_EQ(refusal(BinaryFile{.objects = {object}, .referenceSize = referenceSize}.bytes()),
                  "an object goes past the end");
      }
    }
  }
}

TEST(AHostileBinaryList, CannotHaveACountThatIsNoInteger) {
  for (const std::string& count : {"\x09"s, "\x22\0\0\0\0"s, "\x51\x01"s, "\x14" + bigEndian(1, 16)}) {
    EXPECT_EQ(refusal(testing::binaryOf("\x4F" + count + "\0"s)), "a count that is no integer");
  }
}

TEST(AHostileBinaryList, CannotContainItself) {
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xA1\x00"s}}.bytes()), "nested too deeply");
  EXPECT_EQ(refusal(BinaryFile{.objects = {"\xA1\x01"s, "\xD1\x02\x00"s, "\x51k"s}}.bytes()), "nested too deeply");
}

TEST(AHostileBinaryList, CannotContainItselfManyTimesOver) {
  const std::size_t count = 1000;
  const std::string wide = "\xAF\x11" + bigEndian(count, 2) + std::string(count, '\0');
  EXPECT_EQ(refusal(BinaryFile{.objects = {wide}}.bytes()), "nested too deeply");
  // The first elements are read before the one that leads back.
  const std::string leadsBackLast = "\xAF\x11" + bigEndian(count, 2) + std::string(count - 1, '\1') + "\0"s;
  EXPECT_EQ(refusal(BinaryFile{.objects = {leadsBackLast, yes}, .offsetSize = 2}.bytes()), "nested too deeply");
  const std::string wider = "\xAF\x12" + bigEndian(count * 10, 4) + std::string(count * 10 - 1, '\1') + "\0"s;
  EXPECT_EQ(refusal(BinaryFile{.objects = {wider, yes}, .offsetSize = 2}.bytes()), "too many entries");
}

/// levels arrays that each hold the next one twice; the last holds last twice.
std::string doubling(int levels, const std::string& last) {
  BinaryFile file;
  for (int i = 1; i <= levels; ++i) {
    file.objects.push_back("\xA2" + std::string(2, static_cast<char>(i)));
  }
  file.objects.push_back(last);
  return file.bytes();
}

TEST(AHostileBinaryList, CannotDoubleItsEntriesWithoutEnd) {
  EXPECT_EQ(refusal(doubling(10, yes)), "");
  EXPECT_EQ(refusal(doubling(30, yes)), "too many entries");
  EXPECT_EQ(refusal(doubling(60, yes)), "too many entries");
}

TEST(AHostileBinaryList, CannotDoubleItsContentsWithoutEnd) {
  const std::size_t count = 100 * 1024;
  const std::string bytes(count, 'x');
  const std::string size = "\x12" + bigEndian(count, 4);
  for (const std::string& object : {"\x4F" + size + bytes, "\x5F" + size + bytes}) {
    EXPECT_EQ(refusal(doubling(6, object)), "");
    EXPECT_EQ(refusal(doubling(7, object)), "too much content");
  }
  const BinaryFile sameKeys{
      .objects = {"\xAF\x10\x64"s + std::string(100, '\1'), "\xD1\x02\x03", "\x5F" + size + bytes, yes},
      .offsetSize = 4};
  EXPECT_EQ(refusal(sameKeys.bytes()), "too much content");
}

TEST(AHostileBinaryList, MayHaveItsObjectsWithinOneAnother) {
  // The integer's bytes are an array of one boolean. Nothing forbids it, and nothing comes of it.
  const std::string overlapping = "\xA1\x01\x12\xA1\x01\x09\x09";
  EXPECT_EQ(refusal(BinaryFile{.objects = {overlapping}, .offsets = {8, 13}}.bytes()), "");
}

}  // namespace
}  // namespace kelvane
