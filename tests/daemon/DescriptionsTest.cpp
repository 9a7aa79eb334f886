// SPDX-License-Identifier: Apache-2.0
// Service descriptions: which files count, and what they say of a service.
#include <gtest/gtest.h>

#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

constexpr char systemDirectory[] = "/System/Library/Kelvane/";
constexpr char internalDirectory[] = "/TessalyInternal/Library/Kelvane/";

std::string identifier(const std::string& name) {
  return "<key>KELVANE_ID</key><string>" + name + "</string>";
}

class ADescription : public DaemonTest {
 protected:
  void prepare() override {
    for (const auto& [file, text] : files) {
      simulation->files().write(file, text);
    }
  }

  /// A description file in the system directory.
  void describeInSystem(const std::string& file, const std::string& entries) {
    files.emplace_back(systemDirectory + file, plist("<dict>" + entries + "</dict>"));
  }

  std::vector<std::pair<std::string, std::string>> files;
};

TEST_F(ADescription, WithoutServicesIsOfAServiceThatPurgesAndIsNotPeriodic) {
  describeInSystem("a.plist", identifier("a"));
  runDaemon([&] {
    const auto record = recordOf("a");
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->doesPurge());
    EXPECT_FALSE(record->doesPeriodic());
    EXPECT_FALSE(record->doNotQuery());
    EXPECT_TRUE(record->desiredNotifications().isAbsent());
    EXPECT_FALSE(record->endpoint());
    EXPECT_FALSE(record->vexConn());
  });
}

TEST_F(ADescription, NamesWhatTheServiceDoes) {
  const auto services = [](const std::string& kinds) {
    return "<key>KELVANE_SERVICES</key><array>" + kinds + "</array>";
  };
  describeInSystem("both", identifier("both") + services("<string>PERIODIC</string><string>PURGE</string>"));
  describeInSystem("periodic", identifier("periodic") + services("<string>PERIODIC</string>"));
  describeInSystem("neither", identifier("neither") + services("<string>OTHER</string>"));
  describeInSystem("none", identifier("none") + services(""));
  describeInSystem("wrong", identifier("wrong") + "<key>KELVANE_SERVICES</key><string>PURGE</string>");
  runDaemon([&] {
    const auto flags = [&](const char* name) {
      return std::pair(recordOf(name)->doesPurge(), recordOf(name)->doesPeriodic());
    };
    EXPECT_EQ(flags("both"), std::pair(true, true));
    EXPECT_EQ(flags("periodic"), std::pair(false, true));
    EXPECT_EQ(flags("neither"), std::pair(false, false));
    EXPECT_EQ(flags("none"), std::pair(false, false));
    EXPECT_EQ(flags("wrong"), std::pair(false, false));
  });
}

TEST_F(ADescription, KeepsAServiceFromBeingQueriedByTheMerePresenceOfTheKey) {
  describeInSystem("a", identifier("a") + "<key>KELVANE_DO_NOT_QUERY</key><false/>");
  runDaemon([&] {
    EXPECT_TRUE(recordOf("a")->doNotQuery());
    EXPECT_TRUE(log().contains("-[Kelvane init]_block marking a as DO_NOT_QUERY"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(ADescription, NamesTheNotificationsAsASet) {
  describeInSystem("a", identifier("a") +
                            "<key>KELVANE_NOTIFICATIONS</key><array><string>z</string>"
                            "<string>x</string><string>z</string></array>");
  describeInSystem("b", identifier("b") + "<key>KELVANE_NOTIFICATIONS</key><string>x</string>");
  runDaemon([&] {
    EXPECT_EQ(recordOf("a")->desiredNotifications(), Value(Value::Array{"x", "z"}));
    EXPECT_TRUE(log().contains("-[Kelvane init]_block a desiredNotifications: ( x, z )"));
    EXPECT_TRUE(log().texts(3).empty());
    EXPECT_EQ(recordOf("b")->desiredNotifications(), Value(Value::Array{}));
  });
}

TEST_F(ADescription, WithoutAnIdentifierIsSkippedInSilence) {
  describeInSystem("a", "<key>KELVANE_SERVICES</key><array/>");
  describeInSystem("b", "<key>KELVANE_ID</key><integer>7</integer>");
  describeInSystem("c", "<key>kelvane_id</key><string>c</string>");
  runDaemon([&] {
    EXPECT_TRUE(kelvane->copyServices()->empty());
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(ADescription, ScannedLaterReplacesAnEarlierOneOfTheSameIdentifier) {
  describeInSystem("1", identifier("a"));
  describeInSystem("2", identifier("a") + "<key>KELVANE_SERVICES</key><array/>");
  runDaemon([&] { EXPECT_FALSE(recordOf("a")->doesPurge()); });
}

TEST_F(ADescription, OfTheInternalDirectoryOverridesTheSystems) {
  describeInSystem("z", identifier("a") + "<key>KELVANE_SERVICES</key><array/>");
  files.emplace_back(std::string(internalDirectory) + "a", plist("<dict>" + identifier("a") + "</dict>"));
  runDaemon([&] {
    EXPECT_TRUE(recordOf("a")->doesPurge());
    EXPECT_TRUE(log().contains("looking at: /TessalyInternal/Library/Kelvane//a"));
  });
}

TEST_F(ADescription, IsReadInEveryFormatAndFromSubdirectories) {
  files.emplace_back("/System/Library/Kelvane/deep/er/old-style", "{ KELVANE_ID = old; }");
  runDaemon([&] { EXPECT_TRUE(recordOf("old")); });
}

TEST_F(ADescription, ThatIsNoneDoesNotStopTheScan) {
  files.emplace_back("/System/Library/Kelvane/1-array", plist("<array><string>x</string></array>"));
  files.emplace_back("/System/Library/Kelvane/2-text", "<plist><dict>");
  describeInSystem("3-good", identifier("good"));
  runDaemon([&] {
    EXPECT_EQ(kelvane->copyServices()->size(), 1u);
    EXPECT_TRUE(recordOf("good"));
    ASSERT_EQ(log().texts(3).size(), 1u);
    EXPECT_EQ(log().texts(3)[0].find("-[Kelvane scanPlistsAtPath:execBlock:] readTreeFromData failed: "
                                     "//System/Library/Kelvane//2-text: "),
              0u);
  });
}

TEST_F(ADescription, ThatCannotBeReadIsLoggedAndSkipped) {
  describeInSystem("a", identifier("a"));
  describeInSystem("b", identifier("b"));
  runDaemon([&] {});
  files.clear();
  run([&] {
    simulation->files().write("/System/Library/Kelvane/a", plist("<dict>" + identifier("a") + "</dict>"));
    simulation->files().makeUnreadable("/System/Library/Kelvane/a");
    simulation->files().makeFifo("/System/Library/Kelvane/b");
    int found = 0;
    Kelvane::scanPlistsAtPath("/System/Library/Kelvane", [&](const Value&) { ++found; });
    EXPECT_EQ(found, 0);
    EXPECT_EQ(log().texts(3).size(), 2u);
  });
}

TEST_F(ADescription, IsLookedForInEveryEntryBeneathTheDirectories) {
  files.emplace_back("/System/Library/Kelvane/sub/a", plist("<dict/>"));
  runDaemon([&] {
    EXPECT_EQ(log().textsOf("-[Kelvane scanPlistsAtPath:execBlock:]").size(), 3u);
    const std::string name = "-[Kelvane scanPlistsAtPath:execBlock:] ";
    EXPECT_TRUE(log().contains(name + "looking at: //System/Library/Kelvane//sub"));
    // A directory is an entry like any other, which cannot be read.
    EXPECT_TRUE(log().contains(name + "readTreeFromData failed: "));
    EXPECT_TRUE(log().contains(name + "looking at: //System/Library/Kelvane//sub/a"));
  });
}

TEST_F(ADescription, DirectoryThatCannotBeListedIsTold) {
  run([&] {
    simulation->files().makeLink("/System", "/nowhere");
    const auto ignore = [](const Value&) {};
    Kelvane::scanPlistsAtPath("/System/Library/Kelvane", ignore);
    simulation->files().makeDirectory("/TessalyInternal/Library/Kelvane/closed");
    simulation->files().makeUnreadable("/TessalyInternal/Library/Kelvane/closed");
    Kelvane::scanPlistsAtPath("/TessalyInternal/Library/Kelvane", ignore);
    const std::vector<std::string> texts = log().texts(3);
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0],
              "-[Kelvane scanPlistsAtPath:execBlock:] unable to list /System/Library/Kelvane: A symbolic link leads "
              "nowhere; it counts as empty");
    EXPECT_EQ(texts[1],
              "-[Kelvane scanPlistsAtPath:execBlock:] unable to list /TessalyInternal/Library/Kelvane/closed/: "
              "Permission denied; it counts as empty");
  });
}

TEST_F(ADescription, DirectoryThatIsMissingIsNoError) {
  runDaemon([&] {
    EXPECT_TRUE(kelvane->copyServices()->empty());
    EXPECT_TRUE(log().texts(3).empty());
  });
}

}  // namespace
}  // namespace kelvane::test
