// SPDX-License-Identifier: Apache-2.0
// Telling the formats apart, and what holds for all of them.
#include "platform/PropertyList.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/MutableDictionary.h"
#include "tests/common/PropertyListSamples.h"
#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

using namespace std::string_literals;
using testing::parsed;
using testing::refusal;

const std::string byteOrderMark = "\xEF\xBB\xBF";

TEST(APropertyList, IsReadInWhicheverFormatItsFirstBytesSay) {
  EXPECT_EQ(parsed(samples::binary()), samples::everyKind());
  EXPECT_EQ(parsed(samples::xml()), samples::everyKind());
  EXPECT_EQ(parsed(samples::text()), samples::textContents());
}

TEST(APropertyList, MayBeginWithAByteOrderMarkWhenItIsText) {
  EXPECT_EQ(parsed(byteOrderMark + std::string(samples::xml())), samples::everyKind());
  EXPECT_EQ(parsed(byteOrderMark + std::string(samples::text())), samples::textContents());
  EXPECT_NE(refusal(byteOrderMark + std::string(samples::binary())), "");
}

TEST(APropertyList, MayBeginWithWhiteSpaceWhenItIsText) {
  EXPECT_EQ(parsed(" \r\n\t" + std::string(samples::xml())), samples::everyKind());
  EXPECT_EQ(parsed(byteOrderMark + "\n" + std::string(samples::xml())), samples::everyKind());
  EXPECT_EQ(parsed(" \r\n\t" + std::string(samples::text())), samples::textContents());
}

TEST(APropertyList, OfDataAsTextIsNotTakenForXml) {
  EXPECT_EQ(parsed("<0fbd77>"), Value(Data{0x0F, 0xBD, 0x77}));
  EXPECT_EQ(parsed("< 0f >"), Value(Data{0x0F}));
  EXPECT_EQ(parsed("<>"), Value(Data{}));
}

TEST(APropertyList, ThatIsEmptyIsNone) {
  EXPECT_EQ(refusal(""), "line 1: the text ends where a value should be");
  EXPECT_EQ(refusal(" \n\t\n"), "line 3: the text ends where a value should be");
  EXPECT_NE(refusal(byteOrderMark), "");
  EXPECT_NE(refusal("// nothing but a comment"), "");
}

TEST(APropertyList, OfEveryKindIsReadAsItWasWritten) {
  EXPECT_EQ(parsed(testing::writtenBinary(samples::everyKind()).value()), samples::everyKind());
  EXPECT_EQ(parsed(testing::writtenXml(samples::everyKind()).value()), samples::everyKind());
}

TEST(APropertyList, ThatIsASingleValueIsReadAsItWasWritten) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  const std::vector<Value> values{
      "",
      "text",
      "line\r\nnext\rlast\t",
      "<&>\"'",
      "]]>",
      " spaces ",
      true,
      false,
      0,
      255,
      256,
      65535,
      65536,
      4294967295u,
      4294967296,
      -1,
      -128,
      std::uint64_t{1} << 63,
      0.1,
      -0.0,
      5e-324,
      1.7976931348623157e308,
      infinity,
      -infinity,
      std::nan(""),
      Date{978307200},
      Date{-62135596800},
      Date{253402300799},
      Data{},
      Data{0},
      Data{0, 1},
      Data{255, 254, 0},
      Data(100, 7),
      Value::Array{},
      Value::Dictionary{},
      std::string(14, 'x'),
      std::string(15, 'x'),
      "\u00E9\u4E2D\U0010FFFF",
  };
  for (const Value& value : values) {
    SCOPED_TRACE(value.description());
    EXPECT_EQ(parsed(testing::writtenBinary(value).value()), value);
    EXPECT_EQ(parsed(testing::writtenXml(value).value()), value);
  }
}

TEST(APropertyList, OfALiveDictionaryIsWrittenAsItIsAtTheMoment) {
  MutableDictionary live;
  const Value value = Value::Array{live, live};
  live.set("k", 1);
  const Value expected = Value::Array{Value::Dictionary{{"k", 1}}, Value::Dictionary{{"k", 1}}};
  EXPECT_EQ(parsed(testing::writtenBinary(value).value()), expected);
  EXPECT_EQ(parsed(testing::writtenXml(value).value()), expected);
}

TEST(APropertyList, CannotHoldAnAbsentValue) {
  for (const Value& value : {Value(), Value(Value::Array{Value()}), Value(Value::Dictionary{{"k", Value()}})}) {
    EXPECT_EQ(testing::binaryRefusal(value), "an absent value");
    EXPECT_EQ(testing::xmlRefusal(value), "an absent value");
  }
}

TEST(APropertyList, CannotHoldAStringThatIsNotUtf8) {
  for (const char* string : {"\x80", "\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "\xE2\x82"}) {
    for (const Value& value : {Value(string), Value(Value::Dictionary{{string, 1}})}) {
      EXPECT_EQ(testing::binaryRefusal(value), "a string that is not UTF-8");
      EXPECT_EQ(testing::xmlRefusal(value), "a string that is not UTF-8");
    }
    EXPECT_NE(refusal("<plist><string>"s + string + "</string></plist>"), "");
    EXPECT_EQ(refusal("(\n\"" + std::string(string) + "\")"), "line 2: not UTF-8");
  }
}

TEST(APropertyList, CutOffAnywhereIsRefusedWhenItIsBinary) {
  // Up to here it is a word in the text format.
  const std::size_t firstRecognised = std::string_view("bplist").size();
  const std::string whole(samples::binary());
  for (std::size_t size = firstRecognised; size < whole.size(); ++size) {
    EXPECT_NE(refusal(whole.substr(0, size)), "") << "at " << size;
  }
}

TEST(APropertyList, CutOffAnywhereIsRefusedWhenItIsXml) {
  const std::string whole(samples::xml());
  for (std::size_t size = 0; size < whole.rfind('>'); ++size) {
    EXPECT_NE(refusal(whole.substr(0, size)), "") << "at " << size;
  }
}

TEST(APropertyList, CutOffAnywhereIsRefusedWhenItIsTextInBraces) {
  const std::string whole(samples::text());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_NE(refusal(whole.substr(0, size)), "") << "at " << size;
  }
}

TEST(APropertyList, WithOneByteChangedIsRefusedOrAValueThatCanBeWritten) {
  for (const std::string_view sample : {samples::binary(), samples::xml(), samples::text()}) {
    for (std::size_t i = 0; i < sample.size(); ++i) {
      for (const char change : {'\x01', '\x20', '\x80', '\xFF'}) {
        std::string changed(sample);
        changed[i] = static_cast<char>(changed[i] ^ change);
        const auto value = parsed(changed);
        EXPECT_TRUE(!value || testing::writtenBinary(*value)) << "at " << i;
      }
    }
  }
}

}  // namespace
}  // namespace kelvane
