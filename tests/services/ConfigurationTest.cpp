// SPDX-License-Identifier: Apache-2.0
// What a directory cache's configuration may say.
#include "services/directory-cache/Configuration.h"

#include <fnmatch.h>
#include <gmock/gmock.h>

#include <string>

#include "platform/Limits.h"
#include "platform/PropertyList.h"

namespace kelvane::directoryCache {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Dictionary = Value::Dictionary;
using Array = Value::Array;

const Value ages = Array{604800, 86400, 3600, 0};

Dictionary directory(const std::string& path = "/var/cache/app") {
  return {{"Path", path}, {"Ages", ages}};
}

/// The least that a configuration must say.
Dictionary least() {
  return {{"Identifier", "com.example.cache"}, {"Directories", Array{directory()}}};
}

/// The least with one entry more, or another one.
Dictionary with(const std::string& key, const Value& value) {
  Dictionary dictionary = least();
  dictionary[key] = value;
  return dictionary;
}

Dictionary withDirectoryEntry(const std::string& key, const Value& value) {
  Dictionary entries = directory();
  entries[key] = value;
  return with("Directories", Array{entries});
}

Configuration good(const Value& value) {
  const auto read = readConfiguration(value);
  const auto* error = std::get_if<ConfigurationError>(&read);
  EXPECT_EQ(error, nullptr) << error->text;
  return error == nullptr ? std::get<Configuration>(read) : Configuration();
}

std::string errorOf(const Value& value) {
  const auto read = readConfiguration(value);
  const auto* error = std::get_if<ConfigurationError>(&read);
  return error == nullptr ? "none" : error->text;
}

TEST(AConfiguration, NeedsAnIdentifierAndADirectoryWithAges) {
  const Configuration configuration = good(least());
  EXPECT_EQ(configuration.service.identifier, "com.example.cache");
  EXPECT_EQ(configuration.service.manner, KelvaneServiceConfiguration::Manner::Checkin);
  EXPECT_EQ(configuration.service.daemonUser, "root");
  EXPECT_TRUE(configuration.service.purges);
  EXPECT_FALSE(configuration.service.periodic);
  EXPECT_EQ(configuration.user, "");
  ASSERT_EQ(configuration.directories.size(), 1U);
  const DirectoryRules& rules = configuration.directories.front();
  EXPECT_EQ(rules.path, "/var/cache/app");
  EXPECT_THAT(rules.ages, ElementsAre(604800, 86400, 3600, 0));
  EXPECT_EQ(rules.keepBytes, 0U);
  EXPECT_TRUE(rules.protectedPatterns.empty());
  EXPECT_FALSE(rules.removesEmptyDirectories);
  EXPECT_EQ(rules.clocks, (Clocks{true, true, true, true}));
  EXPECT_THAT(rules.minimumAges, ElementsAre(3600, 3600, 3600, 0));
}

TEST(AConfiguration, SaysWhatIsUseAndWhatIsTooNew) {
  Dictionary entries = directory();
  entries["Clocks"] = Array{"access", "birth"};
  entries["MinimumAge"] = Array{"never", 60, 60, 5};
  const Configuration configuration = good(with("Directories", Array{entries}));
  const DirectoryRules& rules = configuration.directories.at(0);
  EXPECT_EQ(rules.clocks, (Clocks{true, false, false, true}));
  EXPECT_THAT(rules.minimumAges, ElementsAre(DirectoryRules::never, 60, 60, 5));
}

TEST(AConfiguration, SaysWhoTheServiceIs) {
  Dictionary dictionary = with("Manner", "Named");
  dictionary["User"] = "owner";
  dictionary["DaemonUser"] = "kelvane";
  dictionary["Notifications"] = Array{"KELVANE_CACHE_ENABLED"};
  const Configuration configuration = good(dictionary);
  EXPECT_EQ(configuration.service.manner, KelvaneServiceConfiguration::Manner::Named);
  EXPECT_EQ(configuration.service.daemonUser, "kelvane");
  EXPECT_EQ(configuration.user, "owner");
  EXPECT_THAT(configuration.service.notifications, ElementsAre("KELVANE_CACHE_ENABLED"));
}

TEST(AConfiguration, SaysWhatStays) {
  Dictionary entries = directory();
  entries["KeepBytes"] = std::uint64_t{1} << 40;
  entries["Never"] = Array{"*.lock", "index/*"};
  entries["RemoveEmptyDirectories"] = true;
  const Configuration configuration = good(with("Directories", Array{entries}));
  const DirectoryRules& rules = configuration.directories.at(0);
  EXPECT_EQ(rules.keepBytes, std::uint64_t{1} << 40);
  EXPECT_THAT(rules.protectedPatterns, ElementsAre("*.lock", "index/*"));
  EXPECT_TRUE(rules.removesEmptyDirectories);
}

TEST(AConfiguration, CanBeWrittenInTheTextFormatWhereNumbersAreStrings) {
  const std::string text = R"({
    Identifier = "com.example.cache";
    Directories = ({
      Path = "/var/cache/app";
      Ages = (never, 86400, 3600, 0);
      KeepBytes = 1000;
      RemoveEmptyDirectories = YES;
    });
  })";
  const auto parsed = propertyList::parse({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  const Configuration configuration = good(std::get<Value>(parsed));
  const DirectoryRules& rules = configuration.directories.at(0);
  EXPECT_THAT(rules.ages, ElementsAre(DirectoryRules::never, 86400, 3600, 0));
  EXPECT_EQ(rules.keepBytes, 1000U);
  EXPECT_TRUE(rules.removesEmptyDirectories);
}

TEST(AnAge, IsTheOneOfTheNearestUrgency) {
  const Configuration configuration = good(least());
  const DirectoryRules& rules = configuration.directories.at(0);
  EXPECT_EQ(rules.ageAt(-7), 604800);
  EXPECT_EQ(rules.ageAt(0), 604800);
  EXPECT_EQ(rules.ageAt(1), 604800);
  EXPECT_EQ(rules.ageAt(2), 86400);
  EXPECT_EQ(rules.ageAt(4), 0);
  EXPECT_EQ(rules.ageAt(5), 0);
}

TEST(AConfigurationError, SaysWhichKeyIsWrongAndWhatWasExpected) {
  EXPECT_EQ(errorOf("text"), "expected a dictionary");
  EXPECT_EQ(errorOf(Dictionary()), "Identifier: expected a string that is not empty");
  EXPECT_EQ(errorOf(with("Identifier", 5)), "Identifier: expected a string that is not empty");
  EXPECT_THAT(errorOf(with("Identifier", "a/b")), HasSubstr("Identifier: expected at most 90 bytes, without '/'"));
  EXPECT_EQ(errorOf(with("Manner", "Other")), "Manner: expected \"CheckIn\" or \"Named\"");
  EXPECT_EQ(errorOf(with("Notifications", "one")), "Notifications: expected an array");
  EXPECT_EQ(errorOf(with("Notifications", Array{1})), "Notifications: expected an array of strings that are not empty");
  EXPECT_EQ(errorOf(with("Directory", "/x")), "Directory: there is no such key");
  EXPECT_EQ(errorOf(with("Directories", Array())), "Directories: expected an array of 1 to 64 dictionaries");
  EXPECT_EQ(errorOf(with("Directories", Array{"/x"})), "Directories[1]: expected a dictionary");
  EXPECT_EQ(errorOf(withDirectoryEntry("Keep", 1)), "Directories[1]: Keep: there is no such key");
  EXPECT_EQ(errorOf(withDirectoryEntry("KeepBytes", -1)), "Directories[1]: KeepBytes: expected a number of bytes");
  EXPECT_EQ(errorOf(withDirectoryEntry("KeepBytes", "10k")), "Directories[1]: KeepBytes: expected a number of bytes");
  EXPECT_THAT(errorOf(withDirectoryEntry("RemoveEmptyDirectories", "maybe")),
              HasSubstr("Directories[1]: RemoveEmptyDirectories: expected true or false"));
}

TEST(ADirectorysPath, IsAbsoluteAndPlain) {
  for (const char* path : {"cache", "/", "/a/../b", "/a/./b", "/a//b", "/a/", "/..", "./a"}) {
    EXPECT_THAT(errorOf(withDirectoryEntry("Path", path)), HasSubstr("Directories[1]: Path: expected an absolute path"))
        << path;
  }
  EXPECT_EQ(errorOf(withDirectoryEntry("Path", "/a/..b/.c")), "none");
}

TEST(DirectoriesOfAConfiguration, LieApart) {
  EXPECT_EQ(errorOf(with("Directories", Array{directory("/a/b"), directory("/a/b/c")})),
            "Directories[2]: Path: expected a directory apart from /a/b");
  EXPECT_EQ(errorOf(with("Directories", Array{directory("/a/b"), directory("/a")})),
            "Directories[2]: Path: expected a directory apart from /a/b");
  EXPECT_EQ(errorOf(with("Directories", Array{directory("/a"), directory("/a")})),
            "Directories[2]: Path: expected a directory apart from /a");
  EXPECT_EQ(errorOf(with("Directories", Array{directory("/a/b"), directory("/a/bc")})), "none");
}

TEST(Clocks, AreAtLeastOneOfFour) {
  EXPECT_EQ(errorOf(withDirectoryEntry("Clocks", Array{"modification", "change"})), "none");
  EXPECT_EQ(errorOf(withDirectoryEntry("Clocks", Array{"access", "use"})),
            "Directories[1]: Clocks: expected \"access\", \"modification\", \"change\" and \"birth\" only");
  EXPECT_EQ(errorOf(withDirectoryEntry("Clocks", Array())),
            "Directories[1]: Clocks: expected at least one of \"access\", \"modification\", \"change\" and \"birth\"");
  EXPECT_EQ(errorOf(withDirectoryEntry("Clocks", "access")), "Directories[1]: Clocks: expected an array");
}

TEST(ALock, IsAbsoluteOrWithinTheDirectoryAndNeverDeleted) {
  for (const char* lock : {"deep/lock", "/var/cache/app/deep/lock"}) {
    const Configuration configuration = good(withDirectoryEntry("Lock", lock));
    const DirectoryRules& rules = configuration.directories.at(0);
    EXPECT_EQ(rules.lock, "/var/cache/app/deep/lock");
    ASSERT_EQ(rules.protectedPatterns.size(), 1U);
    EXPECT_EQ(fnmatch(rules.protectedPatterns.front().c_str(), "deep/lock", 0), 0);
  }
  EXPECT_TRUE(good(withDirectoryEntry("Lock", "/run/lock/app")).directories.at(0).protectedPatterns.empty());
  EXPECT_THAT(errorOf(withDirectoryEntry("Lock", "../lock")),
              HasSubstr("Directories[1]: Lock: expected a file's path"));
}

TEST(AMinimumAge, IsFourAgesToo) {
  EXPECT_THAT(errorOf(withDirectoryEntry("MinimumAge", Array{1, 2, 3, 4})),
              HasSubstr("Directories[1]: MinimumAge: expected four ages"));
  EXPECT_EQ(errorOf(withDirectoryEntry("MinimumAge", 3600)), "Directories[1]: MinimumAge: expected an array");
}

TEST(Ages, AreFourAndNeverRise) {
  const Value wrong[] = {
      Value(),
      Array{1, 1, 1},
      Array{5, 4, 3, 2, 1},
      Array{1, 2, 3, 4},
      Array{3, 2, "never", 1},
      Array{3, 2, 1, -1},
      Array{3, 2, 1, "soon"},
      Array{std::uint64_t{1} << 63, 2, 1, 0},
  };
  for (const Value& value : wrong) {
    EXPECT_THAT(errorOf(withDirectoryEntry("Ages", value)), HasSubstr("Directories[1]: Ages: expected four ages"))
        << value.description();
  }
  EXPECT_EQ(errorOf(withDirectoryEntry("Ages", 5)), "Directories[1]: Ages: expected an array");
  EXPECT_EQ(errorOf(withDirectoryEntry("Ages", Array{"never", "never", 5, 5})), "none");
}

TEST(AConfiguration, HasALimitedNumberOfDirectories) {
  Array directories;
  for (std::size_t index = 0; index < limits::cacheDirectories; ++index) {
    directories.push_back(directory("/cache/" + std::to_string(index)));
  }
  EXPECT_EQ(errorOf(with("Directories", directories)), "none");
  directories.push_back(directory("/cache/more"));
  EXPECT_EQ(errorOf(with("Directories", directories)), "Directories: expected an array of 1 to 64 dictionaries");
}

TEST(ADirectory, HasALimitedNumberOfPatterns) {
  EXPECT_EQ(errorOf(withDirectoryEntry("Never", Array(limits::cachePatterns, "*.x"))), "none");
  EXPECT_EQ(errorOf(withDirectoryEntry("Never", Array(limits::cachePatterns + 1, "*.x"))),
            "Directories[1]: Never: expected at most 256 patterns");
}

TEST(TheExampleConfiguration, IsGood) {
  const auto read = readConfigurationFile(KELVANE_EXAMPLE_CONFIGURATION);
  ASSERT_TRUE(std::holds_alternative<Configuration>(read)) << std::get<ConfigurationError>(read).text;
  const Configuration& configuration = std::get<Configuration>(read);
  EXPECT_EQ(configuration.user, "thumbnails");
  EXPECT_EQ(configuration.directories.at(0).ageAt(1), 30 * 24 * 60 * 60);
}

TEST(AConfigurationFile, IsNamedInItsErrors) {
  const auto read = readConfigurationFile("/nonexistent/cache.plist");
  EXPECT_THAT(std::get<ConfigurationError>(read).text, HasSubstr("/nonexistent/cache.plist: "));
}

}  // namespace
}  // namespace kelvane::directoryCache
