// SPDX-License-Identifier: Apache-2.0
// The word that somebody may have meant.
#include "tools/kelvanectl/Suggestion.h"

#include <gtest/gtest.h>

namespace kelvane::ctl {
namespace {

const std::vector<std::string> commands = {"purge", "cancel", "run-daily", "purgeable", "state"};

TEST(ASuggestion, IsTheWordWithTheFewestLettersChanged) {
  EXPECT_EQ(suggestion("puge", commands), "purge");
  EXPECT_EQ(suggestion("purges", commands), "purge");
  EXPECT_EQ(suggestion("prugeable", commands), "purgeable");
  EXPECT_EQ(suggestion("cnacel", commands), "cancel");
  EXPECT_EQ(suggestion("state", commands), "state");
}

TEST(ASuggestion, MayHaveMoreAtAnEnd) {
  EXPECT_EQ(suggestion("daily", commands), "run-daily");
  EXPECT_EQ(suggestion("canc", commands), "cancel");
}

TEST(ASuggestion, IsNotMadeWhenNothingIsNear) {
  EXPECT_EQ(suggestion("free", commands), std::nullopt);
  EXPECT_EQ(suggestion("", commands), std::nullopt);
  EXPECT_EQ(suggestion("c", commands), std::nullopt);
  EXPECT_EQ(suggestion(std::string(100000, 'p'), commands), std::nullopt);
}

}  // namespace
}  // namespace kelvane::ctl
