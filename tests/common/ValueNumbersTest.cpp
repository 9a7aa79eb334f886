// SPDX-License-Identifier: Apache-2.0
// The numeric readings of values, at the borders of every type.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "platform/MutableDictionary.h"
#include "platform/Value.h"

namespace kelvane {
namespace {

constexpr auto int32Max = std::numeric_limits<std::int32_t>::max();
constexpr auto int32Min = std::numeric_limits<std::int32_t>::min();
constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto int64Min = std::numeric_limits<std::int64_t>::min();
constexpr auto uint64Max = std::numeric_limits<std::uint64_t>::max();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double tiny = std::numeric_limits<double>::denorm_min();
const double twoTo31 = std::ldexp(1.0, 31);
const double twoTo63 = std::ldexp(1.0, 63);
const double twoTo64 = std::ldexp(1.0, 64);

struct Readings {
  Value value;
  bool boolean;
  std::int32_t int32;
  std::int64_t int64;
  std::uint64_t uint64;
  double real;
};

void expectReadings(const std::vector<Readings>& cases) {
  for (const Readings& expected : cases) {
    SCOPED_TRACE(expected.value.description());
    EXPECT_EQ(expected.value.boolValue(), expected.boolean);
    EXPECT_EQ(expected.value.int32Value(), expected.int32);
    EXPECT_EQ(expected.value.int64Value(), expected.int64);
    EXPECT_EQ(expected.value.uint64Value(), expected.uint64);
    EXPECT_EQ(expected.value.doubleValue(), expected.real);
  }
}

TEST(ABoolean, ReadsAsOneOrZero) {
  expectReadings({{true, true, 1, 1, 1, 1.0}, {false, false, 0, 0, 0, 0.0}});
}

TEST(ASignedInteger, ConvertsByTwosComplement) {
  expectReadings({
      {0, false, 0, 0, 0, 0.0},
      {-1, true, -1, -1, uint64Max, -1.0},
      {int32Max, true, int32Max, int32Max, 0x7FFFFFFF, 2147483647.0},
      {std::int64_t{0x80000000}, true, int32Min, 0x80000000, 0x80000000, 2147483648.0},
      {std::int64_t{int32Min} - 1, true, int32Max, -0x80000001LL, 0xFFFFFFFF7FFFFFFF, -2147483649.0},
      {(std::int64_t{1} << 32) + 2, true, 2, 4294967298, 4294967298, 4294967298.0},
      {std::int64_t{1} << 32, true, 0, 4294967296, 4294967296, 4294967296.0},
      {int64Max, true, -1, int64Max, 0x7FFFFFFFFFFFFFFF, twoTo63},
      {int64Min, true, 0, int64Min, 0x8000000000000000, -twoTo63},
  });
}

TEST(AnUnsignedInteger, ConvertsByTwosComplement) {
  expectReadings({
      {0u, false, 0, 0, 0, 0.0},
      {std::uint64_t{0x7FFFFFFFFFFFFFFF}, true, -1, int64Max, 0x7FFFFFFFFFFFFFFF, twoTo63},
      {std::uint64_t{1} << 63, true, 0, int64Min, std::uint64_t{1} << 63, twoTo63},
      {uint64Max, true, -1, -1, uint64Max, twoTo64},
      {uint64Max - 1, true, -2, -2, uint64Max - 1, twoTo64},
      {0xFFFFFFFFu, true, -1, 0xFFFFFFFF, 0xFFFFFFFF, 4294967295.0},
  });
}

TEST(ADouble, TruncatesTowardsZero) {
  expectReadings({
      {0.0, false, 0, 0, 0, 0.0},
      {-0.0, false, 0, 0, 0, 0.0},
      {0.9, true, 0, 0, 0, 0.9},
      {tiny, true, 0, 0, 0, tiny},
      {1.9, true, 1, 1, 1, 1.9},
      {-0.9, true, 0, 0, 0, -0.9},
      {2147483647.9, true, int32Max, int32Max, 2147483647, 2147483647.9},
  });
}

TEST(ADouble, SaturatesWhereAnIntegerEnds) {
  expectReadings({
      {-1.9, true, -1, -1, 0, -1.9},
      {twoTo31, true, int32Max, 2147483648, 2147483648, twoTo31},
      {-twoTo31, true, int32Min, int32Min, 0, -twoTo31},
      {-twoTo31 - 1, true, int32Min, -2147483649LL, 0, -twoTo31 - 1},
      {4294967298.0, true, int32Max, 4294967298, 4294967298, 4294967298.0},
      {std::nextafter(twoTo63, 0), true, int32Max, 9223372036854774784, 9223372036854774784,
       std::nextafter(twoTo63, 0)},
      {twoTo63, true, int32Max, int64Max, 9223372036854775808u, twoTo63},
      {-twoTo63, true, int32Min, int64Min, 0, -twoTo63},
      {std::nextafter(-twoTo63, -infinity), true, int32Min, int64Min, 0, std::nextafter(-twoTo63, -infinity)},
      {std::nextafter(twoTo64, 0), true, int32Max, int64Max, 18446744073709549568u, std::nextafter(twoTo64, 0)},
      {twoTo64, true, int32Max, int64Max, uint64Max, twoTo64},
      {1e300, true, int32Max, int64Max, uint64Max, 1e300},
      {-1e300, true, int32Min, int64Min, 0, -1e300},
      {infinity, true, int32Max, int64Max, uint64Max, infinity},
      {-infinity, true, int32Min, int64Min, 0, -infinity},
  });
}

TEST(ADouble, ThatIsNotANumberConvertsToZero) {
  const Value value = notANumber;
  EXPECT_FALSE(value.boolValue());
  EXPECT_EQ(value.int32Value(), 0);
  EXPECT_EQ(value.int64Value(), 0);
  EXPECT_EQ(value.uint64Value(), 0u);
  EXPECT_TRUE(std::isnan(value.doubleValue()));
}

TEST(WhatIsNoNumber, HasNoNumericValue) {
  const MutableDictionary live(Value(Value::Dictionary{{"5", 5}}));
  expectReadings({
      {Value(), false, 0, 0, 0, 0.0},
      {"5", false, 0, 0, 0, 0.0},
      {"true", false, 0, 0, 0, 0.0},
      {Date{5}, false, 0, 0, 0, 0.0},
      {Data{5}, false, 0, 0, 0, 0.0},
      {Value::Array{5}, false, 0, 0, 0, 0.0},
      {Value::Dictionary{{"5", 5}}, false, 0, 0, 0, 0.0},
      {live, false, 0, 0, 0, 0.0},
  });
}

}  // namespace
}  // namespace kelvane
