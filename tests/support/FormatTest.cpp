// SPDX-License-Identifier: Apache-2.0
// Formats: each conversion, and what happens to those that nothing fills.
#include "support/Format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace kelvane::test {
namespace {

TEST(AFormat, WithoutConversionsIsItsOwnText) {
  EXPECT_EQ(formatted(""), "");
  EXPECT_EQ(formatted("plain"), "plain");
}

TEST(AFormat, ShowsTextAsItStands) {
  EXPECT_EQ(formatted("%s|%s|%s", "literal", std::string("string"), std::string_view("view")), "literal|string|view");
  EXPECT_EQ(formatted("%@", std::string("string")), "string");
}

TEST(AFormat, ShowsAValueByItsDescription) {
  EXPECT_EQ(formatted("%@", Value("text")), "text");
  EXPECT_EQ(formatted("%@", Value()), "(null)");
  EXPECT_EQ(formatted("%@", Value(true)), "1");
  EXPECT_EQ(formatted("%@", Value(Value::Array{"a", 1})), "( a, 1 )");
  EXPECT_EQ(formatted("%@", Value(Value::Dictionary{{"key", 7}})), "{ key = 7; }");
}

TEST(AFormat, ShowsSignedIntegersOfEveryWidth) {
  EXPECT_EQ(formatted("%d", -5), "-5");
  EXPECT_EQ(formatted("%d", std::int16_t{-5}), "-5");
  EXPECT_EQ(formatted("%lld", std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(formatted("%ld", -5L), "-5");
}

TEST(AFormat, ShowsUnsignedIntegersOfEveryWidth) {
  EXPECT_EQ(formatted("%u", 5u), "5");
  EXPECT_EQ(formatted("%u", std::uint8_t{200}), "200");
  EXPECT_EQ(formatted("%llu", std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
}

TEST(AFormat, ShowsDoublesWithSixDecimals) {
  EXPECT_EQ(formatted("%f", 0.0), "0.000000");
  EXPECT_EQ(formatted("%f", 125.0 / 3.0), "41.666667");
  EXPECT_EQ(formatted("%f", -1.5), "-1.500000");
  // The longest that there is: 309 digits before the point.
  EXPECT_EQ(formatted("%f", std::numeric_limits<double>::max()).size(), 309u + 7u);
  EXPECT_EQ(formatted("%f", std::numeric_limits<double>::infinity()), "inf");
}

TEST(AFormat, ShowsAnArgumentByItsOwnTypeWhateverTheConversionSays) {
  EXPECT_EQ(formatted("%d %s %@", "text", 7, 7u), "text 7 7");
}

TEST(AFormat, FillsItsConversionsInOrder) {
  EXPECT_EQ(formatted("%s %@: %d of %llu (%f)", "f", std::string("x"), 1, std::uint64_t{2}, 0.5),
            "f x: 1 of 2 (0.500000)");
  EXPECT_EQ(formatted("%d%d", 1, 2), "12");
}

TEST(AFormat, ShowsTwoPercentSignsAsOneAndTakesNoArgumentForThem) {
  EXPECT_EQ(formatted("%%"), "%");
  EXPECT_EQ(formatted("100%% of %d%%", 7), "100% of 7%");
  EXPECT_EQ(formatted("%%d", 7), "%d");
}

TEST(AFormat, KeepsAPercentSignAtItsEnd) {
  EXPECT_EQ(formatted("100%"), "100%");
}

TEST(AFormat, ShowsWhichArgumentsAreMissing) {
  EXPECT_EQ(formatted("%s"), "(missing)");
  EXPECT_EQ(formatted("%d %llu %@", 1), "1 (missing) (missing)");
}

TEST(AFormat, IgnoresArgumentsThatItHasNoPlaceFor) {
  EXPECT_EQ(formatted("%d", 1, 2, 3), "1");
}

TEST(AFormat, DoesNotInterpretItsArguments) {
  EXPECT_EQ(formatted("%s %d", "%d %%", 7), "%d %% 7");
}

}  // namespace
}  // namespace kelvane::test
