// SPDX-License-Identifier: Apache-2.0
// The log: which level is written when, how it is configured, what the writer is given.
#include "support/KelvaneLog.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "platform/simulated/Simulation.h"

namespace kelvane::test {
namespace {

constexpr char configurationPath[] = "/etc/kelvane/log.plist";

class TheLog : public testing::Test {
 protected:
  ~TheLog() override { logWriter = usualWriter; }

  void configure(const std::string& dictionaryEntries) {
    configureWith("<plist><dict>" + dictionaryEntries + "</dict></plist>");
  }
  void configureWith(const std::string& contents) {
    simulation.files().write(configurationPath, contents);
    configureLog();
  }
  void setThreshold(int threshold) {
    configure("<key>Threshold</key><integer>" + std::to_string(threshold) + "</integer>");
  }

  /// The levels of two messages, one of each kind, that are written.
  std::vector<std::int32_t> written() {
    EXPECT_EQ(reporting::failuresAreLogged, isLoggingErrors());
    simulation.log().clear();
    KELVANE_ERROR("%s failed", "f");
    KELVANE_TRACE("%s traced", "f");
    std::vector<std::int32_t> levels;
    for (const auto& message : simulation.log().messages()) {
      levels.push_back(message.level);
    }
    return levels;
  }

  Simulation simulation;
  const LogWriter usualWriter = logWriter;
};

const std::vector<std::int32_t> nothing;
const std::vector<std::int32_t> errors = {3};
const std::vector<std::int32_t> traces = {5};
const std::vector<std::int32_t> both = {3, 5};

TEST_F(TheLog, ShowsOnlyTheBeginningOfWhatIsLong) {
  const std::string most(limits::shownReplyBytes, 'x');
  EXPECT_EQ(shortened(most), most);
  EXPECT_EQ(shortened(most + "y"), most + "...");
  EXPECT_EQ(shortened(Value::Array{most}), "( " + most.substr(2) + "...");
  EXPECT_EQ(shortened(most.substr(1) + "\u00e4"), most.substr(1) + "...") << "whole characters";
  EXPECT_EQ(shortened(Value()), "(null)");
}

TEST_F(TheLog, WritesWhatItsThresholdLetsThrough) {
  setThreshold(2);
  EXPECT_EQ(written(), nothing);
  setThreshold(3);
  EXPECT_EQ(written(), errors);
  setThreshold(4);
  EXPECT_EQ(written(), errors);
  setThreshold(5);
  EXPECT_EQ(written(), both);
  setThreshold(6);
  EXPECT_EQ(written(), both);
  setThreshold(-1);
  EXPECT_EQ(written(), nothing);
}

TEST_F(TheLog, WithoutAHandleWritesTracingAndDropsErrors) {
  configure("<key>Handle</key><false/>");
  EXPECT_EQ(getLogHandle(), nullptr);
  EXPECT_EQ(written(), traces);
}

TEST_F(TheLog, WithoutAHandleHasNoThresholdEither) {
  configure("<key>Handle</key><false/><key>Threshold</key><integer>2</integer>");
  EXPECT_EQ(written(), traces);
}

TEST_F(TheLog, HasNoHandleForAZero) {
  configure("<key>Handle</key><integer>0</integer>");
  EXPECT_EQ(getLogHandle(), nullptr);
}

TEST_F(TheLog, HasAHandleUnlessItIsSwitchedOff) {
  configure("<key>Handle</key><true/>");
  EXPECT_EQ(written(), errors);
  configure("<key>Handle</key><string>false</string>");
  EXPECT_EQ(written(), errors);
}

TEST_F(TheLog, GetsAHandleBackWhenItIsConfiguredAnew) {
  configure("<key>Handle</key><false/>");
  setThreshold(5);
  EXPECT_EQ(written(), both);
}

TEST_F(TheLog, WritesErrorsOnlyWhenNothingIsConfigured) {
  setThreshold(5);
  simulation.files().remove(configurationPath);
  configureLog();
  EXPECT_EQ(written(), errors);
}

TEST_F(TheLog, TakesAThresholdOfAnotherTypeAsAbsent) {
  setThreshold(5);
  configure("<key>Threshold</key><string>5</string>");
  EXPECT_EQ(written(), errors);
  configure("<key>threshold</key><integer>5</integer>");
  EXPECT_EQ(written(), errors);
}

TEST_F(TheLog, TakesAMalformedFileAsAbsent) {
  setThreshold(5);
  configureWith("<plist><dict><key>Threshold</key>");
  EXPECT_EQ(written(), errors);
  setThreshold(5);
  configureWith("<plist><array><integer>5</integer></array></plist>");
  EXPECT_EQ(written(), errors);
  setThreshold(5);
  simulation.files().makeUnreadable(configurationPath);
  configureLog();
  EXPECT_EQ(written(), errors);
}

TEST_F(TheLog, TellsOfAFileThatCannotBeUsedAndNotOfOneThatIsMissing) {
  configureLog();
  EXPECT_TRUE(simulation.log().texts().empty());
  configureWith("<plist><dict>");
  ASSERT_EQ(simulation.log().texts(3).size(), 1u);
  EXPECT_EQ(simulation.log().texts(3)[0].find("configureLog unable to read /etc/kelvane/log.plist: "), 0u);
  simulation.log().clear();
  setThreshold(0);
  simulation.files().makeLink(configurationPath, "/nowhere");
  configureLog();
  EXPECT_EQ(simulation.log().texts(3),
            std::vector<std::string>{"configureLog unable to read /etc/kelvane/log.plist: A symbolic link leads "
                                     "nowhere; the defaults apply"});
}

TEST_F(TheLog, IsConfiguredInAnyFormat) {
  configureWith("{ Threshold = 5; }");
  // Old-style lists know no numbers, and a string is none.
  EXPECT_EQ(written(), errors);
}

TEST_F(TheLog, EvaluatesNoArgumentOfALevelThatIsOff) {
  int evaluated = 0;
  const auto argument = [&] { return ++evaluated; };
  setThreshold(2);
  KELVANE_ERROR("%s %d", "f", argument());
  KELVANE_TRACE("%s %d", "f", argument());
  EXPECT_EQ(evaluated, 0);
  setThreshold(4);
  KELVANE_TRACE("%s %d", "f", argument());
  EXPECT_EQ(evaluated, 0);
  configure("<key>Handle</key><false/>");
  KELVANE_ERROR("%s %d", "f", argument());
  EXPECT_EQ(evaluated, 0);
  KELVANE_TRACE("%s %d", "f", argument());
  EXPECT_EQ(evaluated, 1);
  setThreshold(5);
  KELVANE_TRACE("%s %d", "f", argument());
  KELVANE_ERROR("%s %d", "f", argument());
  EXPECT_EQ(evaluated, 3);
}

TEST_F(TheLog, StoresTheFilledMessageWithItsCategoryAndFunction) {
  setThreshold(5);
  simulation.log().clear();
  KELVANE_ERROR("%s lost %d of %@", "-[Kelvane init]", 3, Value("x"));
  ASSERT_EQ(simulation.log().messages().size(), 1u);
  const simulated::LogMessage& message = simulation.log().messages()[0];
  EXPECT_EQ(message.level, 3);
  EXPECT_EQ(message.category, "Kelvane");
  EXPECT_EQ(message.function, "-[Kelvane init]");
  EXPECT_EQ(message.message, "-[Kelvane init] lost 3 of x");
}

/// What the writer was called with.
struct Written {
  const LogHandle* handle;
  std::int32_t level;
  std::string category;
  std::string format;
  std::vector<std::string> arguments;
};
std::vector<Written> writtenMessages;

void rememberMessage(const LogHandle* handle, std::int32_t level, const char* category, const char* format,
                     std::span<const FormatArgument> arguments) {
  Written message = {handle, level, category, format, {}};
  for (const FormatArgument& argument : arguments) {
    message.arguments.push_back(argument.text());
  }
  writtenMessages.push_back(message);
}

TEST_F(TheLog, GivesItsWriterTheHandleLevelCategoryFormatAndArguments) {
  writtenMessages.clear();
  logWriter = rememberMessage;
  setThreshold(5);
  KELVANE_ERROR("%s lost %d", "f", 3);
  configure("<key>Handle</key><false/>");
  KELVANE_TRACE("%s EXIT", "g");
  ASSERT_EQ(writtenMessages.size(), 2u);

  EXPECT_NE(writtenMessages[0].handle, nullptr);
  EXPECT_EQ(writtenMessages[0].level, 3);
  EXPECT_EQ(writtenMessages[0].category, "Kelvane");
  EXPECT_EQ(writtenMessages[0].format, "%s lost %d");
  EXPECT_EQ(writtenMessages[0].arguments, (std::vector<std::string>{"f", "3"}));

  EXPECT_EQ(writtenMessages[1].handle, nullptr);
  EXPECT_EQ(writtenMessages[1].level, 5);
  EXPECT_EQ(writtenMessages[1].category, "Kelvane");
  EXPECT_EQ(writtenMessages[1].arguments, std::vector<std::string>{"g"});
  EXPECT_TRUE(simulation.log().messages().empty());
}

}  // namespace
}  // namespace kelvane::test
