// SPDX-License-Identifier: Apache-2.0
// Reading property lists in the old-style text format.
#include <gtest/gtest.h>

#include <string>

#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

using namespace std::string_literals;
using testing::parsed;
using testing::refusal;

TEST(ATextList, IsADictionaryArrayDataOrString) {
  EXPECT_EQ(parsed("{ key = value; }"), Value(Value::Dictionary{{"key", "value"}}));
  EXPECT_EQ(parsed("( a, b )"), Value(Value::Array{"a", "b"}));
  EXPECT_EQ(parsed("<0fbd77>"), Value(Data{0x0F, 0xBD, 0x77}));
  EXPECT_EQ(parsed("\"a string\""), Value("a string"));
  EXPECT_EQ(parsed("word"), Value("word"));
  EXPECT_EQ(parsed("{}"), Value(Value::Dictionary{}));
  EXPECT_EQ(parsed("()"), Value(Value::Array{}));
}

TEST(ATextList, HasNoNumbersButStrings) {
  EXPECT_EQ(parsed("{a=5;b=-1.5;c=YES;}"), Value(Value::Dictionary{{"a", "5"}, {"b", "-1.5"}, {"c", "YES"}}));
}

TEST(ATextWord, MayHaveTheSignsOfPathsAndIdentifiers) {
  EXPECT_EQ(parsed("(/var/cache, com.tessaly.kelvane_1, a-b, $HOME, http://host:80/x)"),
            Value(Value::Array{"/var/cache", "com.tessaly.kelvane_1", "a-b", "$HOME", "http://host:80/x"}));
}

TEST(ATextWord, MayHaveNoOtherSigns) {
  for (const char* text : {"a b", "a+b", "a@b", "'a'", "\u00E9", "a\x01", "@", "*"}) {
    EXPECT_NE(refusal(text), "") << text;
  }
}

TEST(ATextString, HasEscapes) {
  EXPECT_EQ(parsed(R"("\a\b\f\n\r\t\v\"\\\'")"), Value("\a\b\f\n\r\t\v\"\\'"));
  EXPECT_EQ(parsed("\"a\\\nb\""), Value("a\nb"));
  EXPECT_EQ(parsed("\"a\nb\""), Value("a\nb"));
  EXPECT_EQ(parsed(R"("\1\12\0123\177\0")"), Value("\1\n\n3\x7F\0"s));
  EXPECT_EQ(parsed(R"("\U00e9\U4E2D\Ud83d\UDe00")"), Value("\u00E9\u4E2D\U0001F600"));
}

TEST(ATextString, IsRefusedForEscapesThatStandForNoCharacter) {
  EXPECT_EQ(refusal("(\n\"\\x\")"), "line 2: unknown escape in a string");
  EXPECT_EQ(refusal(R"("\200")"), "line 1: an octal escape above 177");
  EXPECT_EQ(refusal(R"("\U12")"), "line 1: \\U without four hexadecimal digits");
  EXPECT_EQ(refusal(R"("\U123g")"), "line 1: \\U without four hexadecimal digits");
  EXPECT_EQ(refusal(R"("\Ude00")"), "line 1: half a surrogate pair in a string");
  EXPECT_EQ(refusal(R"("\Ud83d")"), "line 1: half a surrogate pair in a string");
  EXPECT_EQ(refusal(R"("\Ud83d\U0041")"), "line 1: half a surrogate pair in a string");
  EXPECT_EQ(refusal(R"("\Ud83d\Ud83d")"), "line 1: half a surrogate pair in a string");
  EXPECT_EQ(refusal(R"("\Ud83d\U12")"), "line 1: \\U without four hexadecimal digits");
}

TEST(ATextString, IsRefusedWithoutAnEnd) {
  EXPECT_EQ(refusal("\"abc"), "line 1: a string has no end");
  EXPECT_EQ(refusal("\"abc\\"), "line 1: a string has no end");
  EXPECT_EQ(refusal("\"abc\\\""), "line 1: a string has no end");
}

TEST(TextData, IsPairsOfHexadecimalDigits) {
  EXPECT_EQ(parsed("<0F bd\n7 7>"), Value(Data{0x0F, 0xBD, 0x77}));
  EXPECT_EQ(refusal("<0fb>"), "line 1: data has half a byte");
  EXPECT_EQ(refusal("<0f"), "line 1: data has no end");
  EXPECT_EQ(refusal("<0g>"), "line 1: unexpected character where a hexadecimal digit should be");
}

TEST(ATextDictionary, HasAValueAndASemicolonAfterEveryKey) {
  EXPECT_EQ(refusal("{ a }"), "line 1: unexpected character where '=' should be");
  EXPECT_EQ(refusal("{ a; }"), "line 1: unexpected character where '=' should be");
  EXPECT_EQ(refusal("{ a = ; }"), "line 1: unexpected character where a value should be");
  EXPECT_EQ(refusal("{\n a = b\n}"), "line 3: unexpected character where ';' should be");
  EXPECT_EQ(refusal("{ a = b, }"), "line 1: unexpected character where ';' should be");
  EXPECT_EQ(refusal("{ a = b;"), "line 1: the text ends where a key or '}' should be");
  EXPECT_EQ(refusal("{ (a) = b; }"), "line 1: unexpected character where a key or '}' should be");
  EXPECT_EQ(refusal("{ <00> = b; }"), "line 1: unexpected character where a key or '}' should be");
}

TEST(ATextDictionary, IsRefusedWhenAKeyComesTwice) {
  EXPECT_EQ(refusal("{ a = 1;\n \"a\" = 2; }"), "line 2: a key comes twice");
}

TEST(ATextArray, MayEndWithAComma) {
  EXPECT_EQ(parsed("(a,)"), Value(Value::Array{"a"}));
  EXPECT_EQ(refusal("(,)"), "line 1: unexpected character where a value should be");
  EXPECT_EQ(refusal("(a b)"), "line 1: unexpected character where ',' should be");
  EXPECT_EQ(refusal("(a"), "line 1: the text ends where ',' should be");
}

TEST(ATextComment, MayStandBetweenAnyTwoTokens) {
  EXPECT_EQ(parsed("/*1*/{/**/a/*2*/=// 3 }\n/*4*/b/***/;//5\n}//6"), Value(Value::Dictionary{{"a", "b"}}));
  EXPECT_EQ(parsed("\"/* no comment */\""), Value("/* no comment */"));
  EXPECT_EQ(refusal("(a, /* b )"), "line 1: a comment has no end");
  EXPECT_EQ(refusal("a /*/"), "line 1: a comment has no end");
}

TEST(ATextList, HoldsOneValue) {
  EXPECT_EQ(refusal("a b"), "line 1: more text after the value");
  EXPECT_EQ(refusal("()\n{}"), "line 2: more text after the value");
  EXPECT_EQ(refusal("a = b;"), "line 1: more text after the value");
  EXPECT_EQ(refusal("a\0"s), "line 1: more text after the value");
}

}  // namespace
}  // namespace kelvane
