// SPDX-License-Identifier: Apache-2.0
// Texts of others' making, for a terminal or a log.
#include "platform/Printable.h"

#include <gtest/gtest.h>

namespace kelvane {
namespace {

TEST(APrintableText, IsLeftAsItIs) {
  EXPECT_EQ(printable(""), "");
  EXPECT_EQ(printable("com.example.web ~"), "com.example.web ~");
  EXPECT_EQ(printable("\u00e4\u00a0\u05d0\u20ac\U0001f600 back\\slash"),
            "\u00e4\u00a0\u05d0\u20ac\U0001f600 back\\slash");
}

TEST(APrintableText, HasControlCharactersWrittenOut) {
  EXPECT_EQ(printable("a\nb\tc\rd\x1b[0m\x7f"), "a\\nb\\tc\\x0dd\\x1b[0m\\x7f");
  EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a\\x00b");
  EXPECT_EQ(printable("\u009b2J\u0085"), "\\u{9b}2J\\u{85}");
}

TEST(APrintableText, HasWhatTurnsOrBreaksLinesWrittenOut) {
  EXPECT_EQ(printable("gpj.\u202e\u2066x\u2069\u200f\u061c"), "gpj.\\u{202e}\\u{2066}x\\u{2069}\\u{200f}\\u{61c}");
  EXPECT_EQ(printable("\u2028\u2029"), "\\u{2028}\\u{2029}");
}

TEST(APrintableText, HasBytesThatAreNoUtf8WrittenOut) {
  EXPECT_EQ(printable("a\xff\xc3"), "a\\xff\\xc3");
  EXPECT_EQ(printable("\xe2\x82"), "\\xe2\\x82");
  EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");
}

TEST(APrintableText, KeepsControlCharactersThatAreSpared) {
  EXPECT_EQ(printable("first\n\tsecond\r\u0085", "\n\t"), "first\n\tsecond\\x0d\\u{85}");
}

}  // namespace
}  // namespace kelvane
