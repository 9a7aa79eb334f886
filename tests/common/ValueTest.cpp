// SPDX-License-Identifier: Apache-2.0
// The kinds of values, their contents and their equality.
#include "platform/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/MutableDictionary.h"

namespace kelvane {
namespace {

/// Which kinds a value says it is of.
std::string kinds(const Value& value) {
  std::string text;
  text += value.isAbsent() ? "absent " : "";
  text += value.isString() ? "string " : "";
  text += value.isNumber() ? "number " : "";
  text += value.isBoolean() ? "boolean " : "";
  text += value.isSigned() ? "signed " : "";
  text += value.isUnsigned() ? "unsigned " : "";
  text += value.isDouble() ? "double " : "";
  text += value.isDate() ? "date " : "";
  text += value.isData() ? "data " : "";
  text += value.isArray() ? "array " : "";
  text += value.isDictionary() ? "dictionary " : "";
  return text;
}

/// Which contents a value gives.
std::string contents(const Value& value) {
  std::string text;
  text += value.string() ? "string " : "";
  text += value.date() ? "date " : "";
  text += value.data() ? "data " : "";
  text += value.array() ? "array " : "";
  text += value.dictionary() ? "dictionary " : "";
  return text;
}

TEST(AValue, KnowsTheOneKindThatItIs) {
  EXPECT_EQ(kinds({}), "absent ");
  EXPECT_EQ(kinds("x"), "string ");
  EXPECT_EQ(kinds(std::string_view("x")), "string ");
  EXPECT_EQ(kinds(true), "number boolean ");
  EXPECT_EQ(kinds(1), "number signed ");
  EXPECT_EQ(kinds(1L), "number signed ");
  EXPECT_EQ(kinds(std::int8_t{1}), "number signed ");
  EXPECT_EQ(kinds(1u), "number unsigned ");
  EXPECT_EQ(kinds(std::uint8_t{1}), "number unsigned ");
  EXPECT_EQ(kinds(std::size_t{1}), "number unsigned ");
  EXPECT_EQ(kinds(1.0), "number double ");
  EXPECT_EQ(kinds(1.0f), "number double ");
  EXPECT_EQ(kinds(Date{}), "date ");
  EXPECT_EQ(kinds(Data{}), "data ");
  EXPECT_EQ(kinds(Value::Array{}), "array ");
  EXPECT_EQ(kinds(Value::Dictionary{}), "dictionary ");
  EXPECT_EQ(kinds(MutableDictionary()), "dictionary ");
}

TEST(AValue, GivesContentsOfItsOwnKindOnly) {
  EXPECT_EQ(contents({}), "");
  EXPECT_EQ(contents(1), "");
  EXPECT_EQ(contents("x"), "string ");
  EXPECT_EQ(contents(Date{}), "date ");
  EXPECT_EQ(contents(Data{}), "data ");
  EXPECT_EQ(contents(Value::Array{}), "array ");
  EXPECT_EQ(contents(Value::Dictionary{}), "dictionary ");
  EXPECT_EQ(contents(MutableDictionary()), "dictionary ");
}

TEST(AValue, HoldsWhatItWasMadeOf) {
  EXPECT_EQ(*Value("a string").string(), "a string");
  EXPECT_EQ(Value(Date{1.5}).date()->secondsSince1970, 1.5);
  EXPECT_EQ(*Value(Data{1, 2}).data(), (Data{1, 2}));
  EXPECT_EQ(Value(Value::Array{1, "x"}).array()->at(1), Value("x"));
  EXPECT_EQ(Value(Value::Dictionary{{"k", 1}}).dictionary()->at("k"), Value(1));
}

TEST(ACopyOfAValue, SharesItsContents) {
  const Value value = std::string(1000, 'x');
  const Value copy = value;
  EXPECT_EQ(copy.string(), value.string());
}

TEST(ADictionary, GivesTheEntryUnderAKey) {
  const Value value = Value::Dictionary{{"KEY", 1}, {"other", "x"}};
  EXPECT_EQ(value["KEY"], Value(1));
  EXPECT_EQ(value["other"], Value("x"));
  EXPECT_TRUE(value["key"].isAbsent());
  EXPECT_TRUE(value.contains("KEY"));
  EXPECT_FALSE(value.contains("key"));
}

TEST(WhatIsNoDictionary, HasNoEntries) {
  for (const Value& value : std::vector<Value>{Value(), "KEY", 1, Value::Array{"KEY"}, Data{1}}) {
    EXPECT_TRUE(value["KEY"].isAbsent());
    EXPECT_FALSE(value.contains("KEY"));
  }
}

TEST(Equality, ComparesContentsOfLikeKinds) {
  EXPECT_EQ(Value(), Value());
  EXPECT_EQ(Value("x"), Value(std::string("x")));
  EXPECT_NE(Value("x"), Value("y"));
  EXPECT_EQ(Value(Data{1}), Value(Data{1}));
  EXPECT_NE(Value(Data{1}), Value(Data{2}));
  EXPECT_EQ(Value(Date{1}), Value(Date{1}));
  EXPECT_NE(Value(Date{1}), Value(Date{1.5}));
  EXPECT_EQ(Value(Value::Array{1, "x"}), Value(Value::Array{1, "x"}));
  EXPECT_NE(Value(Value::Array{1, "x"}), Value(Value::Array{"x", 1}));
  EXPECT_EQ(Value(Value::Dictionary{{"k", 1}}), Value(Value::Dictionary{{"k", 1}}));
  EXPECT_NE(Value(Value::Dictionary{{"k", 1}}), Value(Value::Dictionary{{"k", 2}}));
  EXPECT_NE(Value(Value::Dictionary{{"k", 1}}), Value(Value::Dictionary{{"l", 1}}));
}

TEST(Equality, TellsEveryKindFromEveryOther) {
  const std::vector<Value> values{Value(), "1", true, 1, 1.0, Date{1}, Data{1}, Value::Array{}, Value::Dictionary{}};
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = 0; j < values.size(); ++j) {
      EXPECT_EQ(values[i] == values[j], i == j) << i << " and " << j;
    }
  }
}

TEST(Equality, OfIntegersIsOfTheNumbersTheyStandFor) {
  constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(Value(1), Value(1u));
  EXPECT_EQ(Value(1u), Value(1));
  EXPECT_EQ(Value(int64Max), Value(static_cast<std::uint64_t>(int64Max)));
  EXPECT_NE(Value(-1), Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_NE(Value(std::numeric_limits<std::uint64_t>::max()), Value(-1));
  EXPECT_NE(Value(true), Value(1u));
  EXPECT_NE(Value(1u), Value(1.0));
}

TEST(Equality, HoldsBetweenAValueAndItsCopyWhateverItIs) {
  const Value number = std::nan("");
  EXPECT_EQ(number, Value(number));
  EXPECT_EQ(Value(Value::Array{number}), Value(Value::Array{number}));
  EXPECT_EQ(Value(Date{std::nan("")}), Value(Date{std::nan("")}));
}

}  // namespace
}  // namespace kelvane
