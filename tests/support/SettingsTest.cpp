// SPDX-License-Identifier: Apache-2.0
// The settings: what is built in, what a file changes, and that no slip in it goes unnoticed.
#include "support/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "platform/simulated/Simulation.h"
#include "support/KelvaneLog.h"

namespace kelvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TheSettings : public testing::Test {
 protected:
  void SetUp() override { configureLog(); }
  ~TheSettings() override { configure("{}"); }

  void configure(const std::string& contents) {
    simulation.files().write("/etc/kelvane/kelvaned.plist", contents);
    configureSettings();
  }
  std::vector<std::string> failures() { return simulation.log().texts(errorLevel); }

  Simulation simulation;
};

TEST_F(TheSettings, AreBuiltInWithoutAFile) {
  settings.endPassesEarly = true;
  settings.pingLimitSeconds = 1;
  configureSettings();
  EXPECT_FALSE(settings.endPassesEarly);
  EXPECT_EQ(settings.pingLimitSeconds, 0U);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(TheSettings, AreWhatTheFileSaysInEveryFormat) {
  configure("{ EndPassesEarly = YES; }");
  EXPECT_TRUE(settings.endPassesEarly);
  configure("{ EndPassesEarly = NO; }");
  EXPECT_FALSE(settings.endPassesEarly);
  configure("<plist><dict><key>EndPassesEarly</key><true/></dict></plist>");
  EXPECT_TRUE(settings.endPassesEarly);
  configure("{}");
  EXPECT_FALSE(settings.endPassesEarly);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(TheSettings, TakeWholeNumbersInEveryFormat) {
  configure("{ PingLimit = 30; }");
  EXPECT_EQ(settings.pingLimitSeconds, 30U);
  configure("<plist><dict><key>PingLimit</key><integer>120</integer></dict></plist>");
  EXPECT_EQ(settings.pingLimitSeconds, 120U);
  configure("{ PingLimit = 0; }");
  EXPECT_EQ(settings.pingLimitSeconds, 0U);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(TheSettings, SetEachWhatItIsFor) {
  configure(
      "{ DropAbandoned = YES; OwnedIdentifiers = YES; StateWritesPerSecond = 100; PingLimit = 30; "
      "FairQueues = YES; }");
  EXPECT_FALSE(settings.endPassesEarly);
  EXPECT_TRUE(settings.dropAbandoned);
  EXPECT_TRUE(settings.ownedIdentifiers);
  EXPECT_TRUE(settings.fairQueues);
  EXPECT_EQ(settings.stateWritesPerSecond, 100U);
  EXPECT_EQ(settings.pingLimitSeconds, 30U);
  configure("{ StateWritesPerSecond = 1000001; }");
  EXPECT_FALSE(settings.dropAbandoned);
  EXPECT_FALSE(settings.ownedIdentifiers);
  EXPECT_FALSE(settings.fairQueues);
  EXPECT_EQ(settings.stateWritesPerSecond, 0U);
  EXPECT_EQ(settings.pingLimitSeconds, 0U);
}

TEST_F(TheSettings, StayBuiltInWhereANumberIsOutOfRangeOrNone) {
  for (const std::string number : {"<integer>121</integer>", "<integer>-1</integer>", "<real>2.5</real>", "<true/>",
                                   "<string>18446744073709551616</string>", "<string>30 s</string>", "<string/>"}) {
    settings.pingLimitSeconds = 7;
    configure("<plist><dict><key>PingLimit</key>" + number + "</dict></plist>");
    EXPECT_EQ(settings.pingLimitSeconds, 0U) << number;
  }
  EXPECT_EQ(failures().size(), 7U);
  EXPECT_EQ(failures().front(),
            "configureSettings /etc/kelvane/kelvaned.plist: PingLimit is no whole number from 0 to 120: 121; it is 0");
}

TEST_F(TheSettings, AreTheRecommendedOnesInTheFileThatIsInstalled) {
  std::ostringstream contents;
  contents << std::ifstream(KELVANE_INSTALLED_SETTINGS).rdbuf();
  configure(contents.str());
  EXPECT_TRUE(settings.endPassesEarly);
  EXPECT_EQ(settings.pingLimitSeconds, 30U);
  EXPECT_TRUE(settings.dropAbandoned);
  EXPECT_TRUE(settings.ownedIdentifiers);
  EXPECT_EQ(settings.stateWritesPerSecond, 100U);
  EXPECT_TRUE(settings.fairQueues);
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(TheSettings, StayBuiltInWhereAValueIsNotUnderstood) {
  configure("{ EndPassesEarly = maybe; }");
  EXPECT_FALSE(settings.endPassesEarly);
  EXPECT_THAT(failures(), ElementsAre("configureSettings /etc/kelvane/kelvaned.plist: EndPassesEarly is neither YES "
                                      "nor NO: maybe; it is NO"));
}

TEST_F(TheSettings, NameAKeyThatIsNotKnown) {
  configure("{ EndPassesearly = YES; }");
  EXPECT_FALSE(settings.endPassesEarly);
  EXPECT_THAT(failures(),
              ElementsAre("configureSettings /etc/kelvane/kelvaned.plist: unknown key EndPassesearly is ignored"));
}

TEST_F(TheSettings, AreBuiltInWhenTheFileIsNoDictionary) {
  configure("(EndPassesEarly, YES)");
  EXPECT_THAT(failures(),
              ElementsAre("configureSettings /etc/kelvane/kelvaned.plist is no dictionary; everything is as "
                          "built in"));
  configure("{ EndPassesEarly = YES");
  EXPECT_FALSE(settings.endPassesEarly);
  ASSERT_EQ(failures().size(), 2u);
  EXPECT_THAT(failures().back(), testing::StartsWith("configureSettings unable to read /etc/kelvane/kelvaned.plist: "));
}

}  // namespace
}  // namespace kelvane::test
