// SPDX-License-Identifier: Apache-2.0
// A state value as a person writes it.
#include "tools/kelvanectl/StateValue.h"

#include <gmock/gmock.h>

#include <limits>

#include "tests/harness/PrintValue.h"

namespace kelvane::ctl {
namespace {

using testing::HasSubstr;

Value valueOf(std::string_view text) {
  const auto parsed = parseStateValue(text);
  const auto* error = std::get_if<ValueError>(&parsed);
  return error != nullptr ? Value("error: " + error->text) : std::get<Value>(parsed);
}

TEST(AStateValue, IsABooleanOrANumberWhenItLooksLikeOne) {
  EXPECT_EQ(valueOf("true"), Value(true));
  EXPECT_EQ(valueOf("false"), Value(false));
  EXPECT_EQ(valueOf("5"), Value(5));
  EXPECT_EQ(valueOf("-5"), Value(-5));
  EXPECT_EQ(valueOf("18446744073709551615"), Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(valueOf("1.5"), Value(1.5));
  EXPECT_EQ(valueOf("-2e3"), Value(-2000.0));
  EXPECT_EQ(valueOf(" 5\n"), Value(5));
}

TEST(AStateValue, IsAStringWhenItOnlyBeginsLikeANumber) {
  for (const char* text : {"5G", "1.2.3", "inf", "nan", "True", "99999999999999999999", "0x10", "1e999"}) {
    EXPECT_EQ(valueOf(text), Value(text));
  }
}

TEST(AStateValue, IsAPropertyListInAnyFormat) {
  EXPECT_EQ(valueOf("word"), Value("word"));
  EXPECT_EQ(valueOf("\"5\""), Value("5"));
  EXPECT_EQ(valueOf("<0fbd77>"), Value(Data{0x0f, 0xbd, 0x77}));
  EXPECT_EQ(valueOf("{ a = (1, b); }"), Value(Value::Dictionary{{"a", Value::Array{"1", "b"}}}));
  EXPECT_EQ(valueOf("<plist><array><integer>1</integer><true/></array></plist>"), Value(Value::Array{1, true}));
}

TEST(AStateValue, IsRefusedWhenItIsNone) {
  EXPECT_THAT(valueOf("two words").description(), HasSubstr("error: the value is no property list: line 1"));
  EXPECT_THAT(valueOf("two words").description(), HasSubstr("--string"));
  EXPECT_THAT(valueOf("").description(), HasSubstr("error"));
  EXPECT_THAT(valueOf(" \n").description(), HasSubstr("error"));
}

}  // namespace
}  // namespace kelvane::ctl
