// SPDX-License-Identifier: Apache-2.0
// The textual form of values.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "platform/Limits.h"
#include "platform/MutableDictionary.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"

namespace kelvane {
namespace {

std::string inAnArray(const Value& value) {
  return Value(Value::Array{value}).description();
}

TEST(ADescription, OfAStringIsTheString) {
  EXPECT_EQ(Value("").description(), "");
  EXPECT_EQ(Value("say \"hello\"\n").description(), "say \"hello\"\n");
}

TEST(ADescription, OfAbsentIsNull) {
  EXPECT_EQ(Value().description(), "(null)");
}

TEST(ADescription, OfANumberIsDecimal) {
  EXPECT_EQ(Value(true).description(), "1");
  EXPECT_EQ(Value(false).description(), "0");
  EXPECT_EQ(Value(-17).description(), "-17");
  EXPECT_EQ(Value(std::numeric_limits<std::int64_t>::min()).description(), "-9223372036854775808");
  EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).description(), "18446744073709551615");
  EXPECT_EQ(Value(0.5).description(), "0.5");
  EXPECT_EQ(Value(3.0).description(), "3");
  EXPECT_EQ(Value(1e300).description(), "1e+300");
  EXPECT_EQ(Value(-std::numeric_limits<double>::infinity()).description(), "-inf");
  EXPECT_EQ(Value(std::nan("")).description(), "nan");
}

TEST(ADescription, OfADateIsCalendarTimeInUtc) {
  EXPECT_EQ(Value(Date{0}).description(), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(Value(Date{-0.5}).description(), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(Value(Date{1709210096.75}).description(), "2024-02-29 12:34:56 +0000");
  EXPECT_EQ(Value(Date{253402300799}).description(), "9999-12-31 23:59:59 +0000");
}

TEST(ADescription, OfADateBeyondTheCalendarIsInSeconds) {
  EXPECT_EQ(Value(Date{253402300800}).description(), "253402300800 seconds since 1970");
  EXPECT_EQ(Value(Date{-1e300}).description(), "-1e+300 seconds since 1970");
  EXPECT_EQ(Value(Date{std::nan("")}).description(), "nan seconds since 1970");
}

TEST(ADescription, OfDataIsHexadecimal) {
  EXPECT_EQ(Value(Data{0x0F, 0xBD, 0x77}).description(), "<0fbd77>");
  EXPECT_EQ(Value(Data{}).description(), "<>");
}

TEST(ADescription, OfContainersIsOneLineOfOldStyleText) {
  EXPECT_EQ(Value(Value::Array{}).description(), "( )");
  EXPECT_EQ(Value(Value::Dictionary{}).description(), "{ }");
  const Value value = Value::Dictionary{{"KELVANE_VOLUME", "/"},
                                        {"KELVANE_AMOUNT", 262144000u},
                                        {"list", Value::Array{"a", true, Data{1}, Value(), Date{0}}},
                                        {"an empty one", Value::Dictionary{}}};
  EXPECT_EQ(value.description(),
            "{ KELVANE_AMOUNT = 262144000; KELVANE_VOLUME = \"/\"; \"an empty one\" = { }; "
            "list = ( a, 1, <01>, \"(null)\", \"1970-01-01 00:00:00 +0000\" ); }");
}

TEST(ADescription, QuotesAndEscapesWithinContainers) {
  EXPECT_EQ(inAnArray("com.tessaly_1"), "( com.tessaly_1 )");
  EXPECT_EQ(inAnArray(""), "( \"\" )");
  EXPECT_EQ(inAnArray("two words"), "( \"two words\" )");
  EXPECT_EQ(inAnArray("//x"), "( \"//x\" )");
  EXPECT_EQ(inAnArray(-5), "( \"-5\" )");
  EXPECT_EQ(inAnArray("\"\\\n\t\r\x7f"), R"(( "\"\\\n\t\015\177" ))");
  EXPECT_EQ(inAnArray("h\u00E9llo"), "( \"h\u00E9llo\" )");
  EXPECT_EQ(inAnArray("bad \xFF byte"), "( \"bad \uFFFD byte\" )");
}

TEST(ADescription, OfALiveDictionaryIsOfThisMoment) {
  MutableDictionary live;
  const Value value = Value::Dictionary{{"info", live}};
  EXPECT_EQ(value.description(), "{ info = { }; }");
  live.set("urgency", 1);
  EXPECT_EQ(value.description(), "{ info = { urgency = 1; }; }");
}

TEST(ADescription, StopsAtTheDepthLimit) {
  Value value = "x";
  std::string before;
  std::string after;
  for (int i = 0; i < limits::descriptionDepth; ++i) {
    value = Value::Array{value};
    before += "( ";
    after += " )";
  }
  EXPECT_EQ(value.description(), before + "x" + after);
  EXPECT_EQ(Value(Value::Array{value}).description(), before + "..." + after);
}

TEST(ADescription, OfContainersReadsBackAsAPropertyList) {
  using namespace std::string_literals;
  const std::string awkward = "\"\\\n\t\r\v\0\x01 \x7f \u00E9 \U0001F600 'x' {};=(),<>//*/"s;
  const Value value = Value::Dictionary{{awkward, Value::Array{awkward, "", 5, true, Data{1, 2}, Date{0}}}, {"", "."}};
  const Value expected = Value::Dictionary{
      {awkward, Value::Array{awkward, "", "5", "1", Data{1, 2}, "1970-01-01 00:00:00 +0000"}}, {"", "."}};
  const std::string text = value.description();
  const auto result = propertyList::parse({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  ASSERT_TRUE(std::holds_alternative<Value>(result)) << std::get<propertyList::Error>(result).text << " in " << text;
  EXPECT_EQ(std::get<Value>(result), expected);
}

}  // namespace
}  // namespace kelvane
