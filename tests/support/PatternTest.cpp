// SPDX-License-Identifier: Apache-2.0
// What patterns for names fit.
#include "support/Pattern.h"

#include <gtest/gtest.h>

#include <string>

namespace kelvane {
namespace {

TEST(APattern, WithoutSpecialCharactersFitsItself) {
  EXPECT_TRUE(matchesPattern("a.b", "a.b"));
  EXPECT_TRUE(matchesPattern("", ""));
  EXPECT_FALSE(matchesPattern("a.b", "a.c"));
  EXPECT_FALSE(matchesPattern("a.b", "a."));
  EXPECT_FALSE(matchesPattern("a.", "a.b"));
  EXPECT_FALSE(matchesPattern("A", "a"));
  EXPECT_FALSE(matchesPattern("a", ""));
  EXPECT_TRUE(matchesPattern("[a]", "[a]"));
}

TEST(APattern, FitsAnyCharactersWhereAnAsteriskIs) {
  for (const char* text : {"", "a", "a.b", "\xff*"}) {
    EXPECT_TRUE(matchesPattern(text, "*")) << text;
  }
  EXPECT_TRUE(matchesPattern("com.example.cache", "com.example.*"));
  EXPECT_TRUE(matchesPattern("com.example.", "com.example.*"));
  EXPECT_FALSE(matchesPattern("com.example", "com.example.*"));
  EXPECT_TRUE(matchesPattern("abcabc", "*abc"));
  EXPECT_TRUE(matchesPattern("ababab", "a*b*b"));
  EXPECT_FALSE(matchesPattern("ababa", "a*b*b"));
  EXPECT_TRUE(matchesPattern("ab", "a**b"));
}

TEST(APattern, FitsOneByteWhereAQuestionMarkIs) {
  EXPECT_TRUE(matchesPattern("abc", "a?c"));
  EXPECT_FALSE(matchesPattern("ac", "a?c"));
  EXPECT_FALSE(matchesPattern("", "?"));
  EXPECT_TRUE(matchesPattern("abcd", "?*?"));
}

TEST(APattern, OfManyAsterisksTakesNoTimeToSpeakOf) {
  std::string pattern;
  for (int star = 0; star < 1000; ++star) {
    pattern += "*a";
  }
  EXPECT_FALSE(matchesPattern(std::string(4000, 'a'), pattern + "b"));
  EXPECT_TRUE(matchesPattern(std::string(4000, 'a'), pattern));
}

}  // namespace
}  // namespace kelvane
