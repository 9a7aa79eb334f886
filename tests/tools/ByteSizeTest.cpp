// SPDX-License-Identifier: Apache-2.0
// Amounts of bytes as people write and read them.
#include "tools/kelvanectl/ByteSize.h"

#include <gtest/gtest.h>

#include <limits>

namespace kelvane::ctl {
namespace {

std::uint64_t bytes(std::string_view text) {
  const auto parsed = parseByteSize(text);
  if (const auto* error = std::get_if<SizeError>(&parsed)) {
    ADD_FAILURE() << error->text;
    return 0;
  }
  return std::get<std::uint64_t>(parsed);
}

std::string refusal(std::string_view text) {
  const auto parsed = parseByteSize(text);
  const auto* error = std::get_if<SizeError>(&parsed);
  return error != nullptr ? error->text : "";
}

TEST(AByteSize, IsANumberOfBytesWithoutAUnit) {
  EXPECT_EQ(bytes("0"), 0U);
  EXPECT_EQ(bytes("500"), 500U);
  EXPECT_EQ(bytes("500B"), 500U);
  EXPECT_EQ(bytes("007"), 7U);
}

TEST(AByteSize, CountsIn1024sWithALetterAloneOrWithIB) {
  EXPECT_EQ(bytes("1K"), 1024U);
  EXPECT_EQ(bytes("1KiB"), 1024U);
  EXPECT_EQ(bytes("3M"), 3U * 1024 * 1024);
  EXPECT_EQ(bytes("3MiB"), 3U * 1024 * 1024);
  EXPECT_EQ(bytes("2G"), 2ULL << 30);
  EXPECT_EQ(bytes("2TiB"), 2ULL << 40);
  EXPECT_EQ(bytes("2P"), 2ULL << 50);
}

TEST(AByteSize, CountsIn1000sWithALetterAndB) {
  EXPECT_EQ(bytes("1kB"), 1000U);
  EXPECT_EQ(bytes("3MB"), 3000000U);
  EXPECT_EQ(bytes("2GB"), 2000000000U);
  EXPECT_EQ(bytes("2TB"), 2000000000000U);
  EXPECT_EQ(bytes("1PB"), 1000000000000000U);
}

TEST(AByteSize, MayBeInAnyCase) {
  EXPECT_EQ(bytes("1k"), 1024U);
  EXPECT_EQ(bytes("1gib"), 1ULL << 30);
  EXPECT_EQ(bytes("1KB"), 1000U);
  EXPECT_EQ(bytes("1mb"), 1000000U);
  EXPECT_EQ(bytes("12b"), 12U);
}

TEST(AByteSize, MayHaveAFractionOfItsUnit) {
  EXPECT_EQ(bytes("1.5G"), 1610612736U);
  EXPECT_EQ(bytes("0.5K"), 512U);
  EXPECT_EQ(bytes("0.1kB"), 100U);
  EXPECT_EQ(bytes("1.25MB"), 1250000U);
  EXPECT_EQ(bytes("2.0T"), 2ULL << 40);
}

TEST(AByteSize, DropsWhatIsLeftOfAByteExactly) {
  EXPECT_EQ(bytes("0.3K"), 307U);  // 307.2
  EXPECT_EQ(bytes("0.0001K"), 0U);
  EXPECT_EQ(bytes("0.999999999999999999999999999999K"), 1023U);
  EXPECT_EQ(bytes("0.333333333333333333333333P"), 375299968947541U);  // 2^50 / 3 is ...541.33
}

TEST(AByteSize, ReachesTheLargestNumberAndNoFurther) {
  EXPECT_EQ(bytes("18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(bytes("16383.99P"), 18446732814710483189U);  // 2^64 less 0.01 P
  EXPECT_EQ(refusal("18446744073709551616"), "\"18446744073709551616\" is too large");
  EXPECT_EQ(refusal("16384P"), "\"16384P\" is too large");
  EXPECT_EQ(refusal("99999999999999999999999G"), "\"99999999999999999999999G\" is too large");
  EXPECT_EQ(bytes("18014398509481983.999K"), 18446744073709551614U);
}

TEST(AByteSize, IsNeverSigned) {
  EXPECT_NE(refusal("-5"), "");
  EXPECT_NE(refusal("-1.5G"), "");
  EXPECT_NE(refusal("+5"), "");
}

TEST(AByteSize, IsRefusedWhenOtherwiseWritten) {
  for (const char* text : {"", " ", "G", ".5G", "5.", "5.G", "5 G", " 5", "5 ", "1.2.3", "1e6", "0x10", "5X", "5KX",
                           "5KiBs", "5iB", "5BB", "1,5G", "five"}) {
    EXPECT_NE(refusal(text), "") << text;
  }
}

TEST(AByteSize, HasNoFractionsOfBytes) {
  EXPECT_EQ(refusal("1.5"), "\"1.5\" is no whole number of bytes");
  EXPECT_EQ(refusal("1.5B"), "\"1.5B\" is no whole number of bytes");
}

TEST(AFormattedByteSize, HasOneDecimalInTheLargestUnitThatFits) {
  EXPECT_EQ(formatByteSize(0), "0 B");
  EXPECT_EQ(formatByteSize(1023), "1023 B");
  EXPECT_EQ(formatByteSize(1024), "1.0 KiB");
  EXPECT_EQ(formatByteSize(1536), "1.5 KiB");
  EXPECT_EQ(formatByteSize(262144000), "250.0 MiB");
  EXPECT_EQ(formatByteSize(3ULL << 40), "3.0 TiB");
  EXPECT_EQ(formatByteSize(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
}

TEST(AFormattedByteSize, NeverShows1024OfAUnit) {
  EXPECT_EQ(formatByteSize(1024 * 1024 - 1), "1.0 MiB");
  EXPECT_EQ(formatByteSize((1ULL << 30) - 1), "1.0 GiB");
}

}  // namespace
}  // namespace kelvane::ctl
