// SPDX-License-Identifier: Apache-2.0
// What an administrator is told of a configuration.
#include "services/directory-cache/Check.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>

#include "tests/services/CacheFixture.h"

namespace kelvane::directoryCache {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class ACheck : public CacheTest {
 protected:
  bool check(const DirectoryRules& rules) {
    Configuration configuration;
    configuration.directories = {rules};
    std::ostringstream output;
    const bool isGood = checkDirectories(configuration, testNow, output);
    text_ = output.str();
    return isGood;
  }

  std::string text_;
};

TEST_F(ACheck, SaysWhatEachUrgencyWouldFreeAndWhatPatternsMatch) {
  makeFile("cache/a", 7 * day);
  makeFile("cache/b", day);
  makeFile("cache/index/deep/c", 7 * day);
  DirectoryRules protecting = rules();
  protecting.protectedPatterns = {"index", "*.lock"};
  EXPECT_TRUE(check(protecting));
  EXPECT_THAT(text_,
              AllOf(HasSubstr(absolute("cache") + ":\n"), HasSubstr("  belongs to "),
                    HasSubstr("index matches 1 files\n"), HasSubstr("*.lock matches no files\n"),
                    HasSubstr("urgency 1 would free 65536 bytes\n"), HasSubstr("urgency 2 would free 131072 bytes\n")));
  EXPECT_TRUE(exists("cache/a"));
}

TEST_F(ACheck, SaysWhereALinkLeadsAndThatItIsNotFollowed) {
  makeFile("real/a", 7 * day);
  std::filesystem::create_directory_symlink("real", absolute("link"));
  EXPECT_FALSE(check(rules("link")));
  EXPECT_THAT(text_, HasSubstr("a symbolic link is on the way (" + absolute("link") + " is " + absolute("real") + ")"));
}

TEST_F(ACheck, ShowsNoTextThatATerminalObeys) {
  makeFile("real\x1b[2J\u202e/a", 7 * day);
  std::filesystem::create_directory_symlink("real\x1b[2J\u202e", absolute("link"));
  EXPECT_FALSE(check(rules("link")));
  EXPECT_THAT(text_, HasSubstr("real\\x1b[2J\\u{202e})"));
  DirectoryRules odd = rules("real\x1b[2J\u202e");
  odd.protectedPatterns = {"*\xff"};
  EXPECT_TRUE(check(odd));
  EXPECT_THAT(text_, AllOf(HasSubstr("real\\x1b[2J\\u{202e}:\n"), HasSubstr("never: *\\xff matches no files")));
}

TEST_F(ACheck, FindsADirectoryThatIsNotThereInOrder) {
  EXPECT_TRUE(check(rules("missing")));
  EXPECT_THAT(text_, HasSubstr("left: No such file or directory"));
}

TEST_F(ACheck, FailsForAFileInThePlaceOfADirectory) {
  makeFile("cache/a", day);
  EXPECT_FALSE(check(rules("cache/a")));
  EXPECT_THAT(text_, HasSubstr("left: Not a directory"));
}

}  // namespace
}  // namespace kelvane::directoryCache
