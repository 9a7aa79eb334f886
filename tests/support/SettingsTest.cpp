// SPDX-License-Identifier: Apache-2.0
// The settings: what is built in, what a file changes, and that no slip in it goes unnoticed.
#include "support/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  ~TheSettings() override { settings.endPassesEarly = false; }

  void configure(const std::string& contents) {
    simulation.files().write("/etc/kelvane/kelvaned.plist", contents);
    configureSettings();
  }
  std::vector<std::string> failures() { return simulation.log().texts(errorLevel); }

  Simulation simulation;
};

TEST_F(TheSettings, AreBuiltInWithoutAFile) {
  settings.endPassesEarly = true;
  configureSettings();
  EXPECT_FALSE(settings.endPassesEarly);
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
  EXPECT_THAT(failures(), ElementsAre("configureSettings /etc/kelvane/kelvaned.plist is no dictionary and is ignored"));
  configure("{ EndPassesEarly = YES");
  EXPECT_FALSE(settings.endPassesEarly);
  ASSERT_EQ(failures().size(), 2u);
  EXPECT_THAT(failures().back(), testing::StartsWith("configureSettings unable to read /etc/kelvane/kelvaned.plist: "));
}

}  // namespace
}  // namespace kelvane::test
