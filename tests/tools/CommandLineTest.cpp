// SPDX-License-Identifier: Apache-2.0
// kelvanectl's command line.
#include "tools/kelvanectl/CommandLine.h"

#include <gmock/gmock.h>

#include <vector>

namespace kelvane::ctl {
namespace {

using testing::HasSubstr;

Command parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "kelvanectl");
  return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

PurgeCommand purge(const std::vector<const char*>& arguments) {
  const Command command = parse(arguments);
  if (const auto* message = std::get_if<Message>(&command)) {
    ADD_FAILURE() << message->text;
    return {};
  }
  return std::get<PurgeCommand>(command);
}

Message message(const std::vector<const char*>& arguments) {
  const Command command = parse(arguments);
  const auto* text = std::get_if<Message>(&command);
  return text != nullptr ? *text : Message{ExitStatus::Done, "was taken"};
}

TEST(ThePurgeCommand, NeedsOnlyAVolumeAndASize) {
  const PurgeCommand command = purge({"purge", "/data", "1.5G"});
  EXPECT_EQ(command.order.volume, "/data");
  EXPECT_EQ(command.order.bytes, 1610612736U);
  EXPECT_EQ(command.order.urgency, 3);
  EXPECT_EQ(command.order.timeoutSeconds, std::nullopt);
  EXPECT_EQ(command.order.token, "");
  EXPECT_FALSE(command.order.single);
  EXPECT_FALSE(command.isConfirmed);
  EXPECT_EQ(command.output, OutputKind::Text);
}

TEST(ThePurgeCommand, TakesOptionsInAnyPlace) {
  const PurgeCommand command =
      purge({"purge", "--urgency", "4", "/data", "--timeout=7", "10M", "--token", "t", "--single", "--json"});
  EXPECT_EQ(command.order.bytes, 10U * 1024 * 1024);
  EXPECT_EQ(command.order.urgency, 4);
  EXPECT_EQ(command.order.timeoutSeconds, 7U);
  EXPECT_EQ(command.order.token, "t");
  EXPECT_TRUE(command.order.single);
  EXPECT_EQ(command.output, OutputKind::Json);
  EXPECT_EQ(purge({"purge", "/data", "1", "-q"}).output, OutputKind::Quiet);
  EXPECT_TRUE(purge({"purge", "/data", "1", "--yes"}).isConfirmed);
}

TEST(ThePurgeCommand, HasUrgenciesFrom1To4) {
  EXPECT_EQ(purge({"purge", "/data", "1", "-u", "1"}).order.urgency, 1);
  for (const char* urgency : {"0", "5", "-1", "high", "", "99999999999"}) {
    EXPECT_EQ(message({"purge", "/data", "1", "--urgency", urgency}).status, ExitStatus::Usage) << urgency;
  }
}

TEST(ThePurgeCommand, HasTimeOutsFrom1To300Seconds) {
  EXPECT_EQ(purge({"purge", "/data", "1", "-t", "300"}).order.timeoutSeconds, 300U);
  for (const char* seconds : {"0", "301", "-1", "1.5", "soon"}) {
    EXPECT_EQ(message({"purge", "/data", "1", "--timeout", seconds}).status, ExitStatus::Usage) << seconds;
  }
}

TEST(ThePurgeCommand, SaysWhatIsWrongWithASize) {
  const Message wrong = message({"purge", "/data", "5 apples"});
  EXPECT_EQ(wrong.status, ExitStatus::Usage);
  EXPECT_THAT(wrong.text, HasSubstr("\"5 apples\" has no known unit"));
  EXPECT_THAT(message({"purge", "/data", "0"}).text, HasSubstr("0 bytes"));
  EXPECT_EQ(message({"purge", "/data", "-5M"}).status, ExitStatus::Usage);
  EXPECT_THAT(message({"purge", "/data", "--", "-5M"}).text, HasSubstr("\"-5M\" is no size"));
}

TEST(ThePurgeCommand, RefusesWhatIsMissingUnknownOrContradictory) {
  EXPECT_EQ(message({"purge"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"purge", "/data"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"purge", "/data", "1", "2"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"purge", "/data", "1", "--force"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"purge", "/data", "1", "--json", "--quiet"}).status, ExitStatus::Usage);
}

TEST(TheCancelCommand, TakesAToken) {
  const Command command = parse({"cancel", "abc"});
  ASSERT_TRUE(std::holds_alternative<CancelCommand>(command));
  EXPECT_EQ(std::get<CancelCommand>(command).token, "abc");
  EXPECT_EQ(message({"cancel"}).status, ExitStatus::Usage);
}

TEST(TheDailyCommand, TakesNothingButQuiet) {
  const Command command = parse({"run-daily"});
  ASSERT_TRUE(std::holds_alternative<DailyCommand>(command));
  EXPECT_FALSE(std::get<DailyCommand>(command).quiet);
  EXPECT_TRUE(std::get<DailyCommand>(parse({"run-daily", "-q"})).quiet);
  EXPECT_EQ(message({"run-daily", "/data"}).status, ExitStatus::Usage);
}

template <typename Kind>
Kind commandOf(const std::vector<const char*>& arguments) {
  const Command command = parse(arguments);
  if (const auto* wanted = std::get_if<Kind>(&command)) {
    return *wanted;
  }
  ADD_FAILURE() << message(arguments).text;
  return {};
}

TEST(ThePurgeableCommand, TakesAnyNumberOfVolumes) {
  const auto all = commandOf<QueryCommand>({"purgeable"});
  EXPECT_THAT(all.order.volumes, testing::IsEmpty());
  EXPECT_EQ(all.order.urgency, std::nullopt);
  EXPECT_FALSE(all.isItemized);
  EXPECT_FALSE(all.json);
  const auto two = commandOf<QueryCommand>({"purgeable", "/data", "-u", "4", "--itemized", "/home", "--json"});
  EXPECT_THAT(two.order.volumes, testing::ElementsAre("/data", "/home"));
  EXPECT_EQ(two.order.urgency, 4);
  EXPECT_TRUE(two.isItemized);
  EXPECT_TRUE(two.json);
}

TEST(ThePurgeableCommand, HasUrgenciesFrom1To4) {
  for (const char* urgency : {"0", "5", "high"}) {
    EXPECT_EQ(message({"purgeable", "--urgency", urgency}).status, ExitStatus::Usage) << urgency;
  }
}

TEST(TheStateCommand, GetsSetsUnsetsAndLists) {
  using Action = StateCommand::Action;
  const auto get = commandOf<StateCommand>({"state", "get", "k", "--json"});
  EXPECT_EQ(get.action, Action::Get);
  EXPECT_EQ(get.key, "k");
  EXPECT_TRUE(get.json);
  const auto set = commandOf<StateCommand>({"state", "set", "k", "5"});
  EXPECT_EQ(set.action, Action::Set);
  EXPECT_EQ(set.key, "k");
  EXPECT_EQ(set.value, "5");
  EXPECT_FALSE(set.isString);
  EXPECT_TRUE(commandOf<StateCommand>({"state", "set", "--string", "k", "5"}).isString);
  const auto unset = commandOf<StateCommand>({"state", "unset", "k"});
  EXPECT_EQ(unset.action, Action::Unset);
  EXPECT_EQ(unset.key, "k");
  EXPECT_EQ(commandOf<StateCommand>({"state", "list"}).action, Action::List);
  EXPECT_TRUE(commandOf<StateCommand>({"state", "list", "--json"}).json);
}

TEST(TheStateCommand, TakesNumbersBelow0AndStandardInput) {
  EXPECT_EQ(commandOf<StateCommand>({"state", "set", "k", "-5"}).value, "-5");
  EXPECT_EQ(commandOf<StateCommand>({"state", "set", "k", "-"}).value, "-");
}

TEST(TheStateCommand, RefusesWhatIsMissingOrTooMuch) {
  EXPECT_EQ(message({"state"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"state", "get"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"state", "set", "k"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"state", "unset"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"state", "list", "k"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"state", "list", "get", "k"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"state", "unset", "k", "--json"}).status, ExitStatus::Usage);
}

TEST(TheCommandLine, NeedsACommand) {
  EXPECT_EQ(message({}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"free"}).status, ExitStatus::Usage);
  EXPECT_EQ(message({"purge", "/data", "1", "cancel", "x"}).status, ExitStatus::Usage);
}

TEST(TheCommandLine, SaysWhatMayHaveBeenMeant) {
  EXPECT_THAT(message({"puge", "/data", "1"}).text, HasSubstr("unknown command 'puge'; did you mean 'purge'?"));
  EXPECT_THAT(message({"state", "ste", "k", "1"}).text, HasSubstr("unknown command 'ste'; did you mean 'set'?"));
  EXPECT_THAT(message({"state", "ste"}).text, HasSubstr("See kelvanectl state --help."));
  EXPECT_THAT(message({"purge", "/data", "1", "--quite"}).text,
              HasSubstr("unknown option '--quite'; did you mean '--quiet'?"));
  EXPECT_THAT(message({"cancel", "a", "b"}).text, HasSubstr("unexpected argument 'b'"));
}

TEST(TheCommandLine, GuessesNothingFarFetched) {
  EXPECT_EQ(message({"free"}).text, "unknown command 'free'\nSee kelvanectl --help.");
  EXPECT_EQ(message({"purge", "/data", "1", "--zealously"}).text,
            "unknown option '--zealously'\nSee kelvanectl purge --help.");
}

TEST(TheCommandLine, SaysWhereThereIsMoreToKnow) {
  EXPECT_EQ(message({"purge"}).text, "VOLUME is required\nSee kelvanectl purge --help.");
  EXPECT_EQ(message({}).text, "a command is missing\nSee kelvanectl --help.");
  EXPECT_EQ(message({"state"}).text, "a command is missing\nSee kelvanectl state --help.");
  EXPECT_EQ(message({"--vresion"}).text,
            "unknown option '--vresion'; did you mean '--version'?\nSee kelvanectl --help.");
  EXPECT_EQ(message({"state", "get"}).text, "KEY is required\nSee kelvanectl state get --help.");
}

TEST(TheCommandLine, HasExamplesAndExitStatusesForEveryCommand) {
  for (const std::vector<const char*>& command : std::vector<std::vector<const char*>>{{"purge", "--help"},
                                                                                       {"cancel", "--help"},
                                                                                       {"run-daily", "--help"},
                                                                                       {"purgeable", "--help"},
                                                                                       {"state", "get", "--help"},
                                                                                       {"state", "set", "--help"},
                                                                                       {"state", "unset", "--help"},
                                                                                       {"state", "list", "--help"}}) {
    const Message help = message(command);
    EXPECT_EQ(help.status, ExitStatus::Done) << command[0];
    EXPECT_THAT(help.text, HasSubstr("Examples:\n  kelvanectl " + std::string(command[0]))) << command[0];
    EXPECT_THAT(help.text, HasSubstr("Exit status:\n  0  ")) << command[0];
  }
}

TEST(TheCommandLine, ExplainsItself) {
  const Message help = message({"--help"});
  EXPECT_EQ(help.status, ExitStatus::Done);
  EXPECT_THAT(help.text, HasSubstr("purge"));
  EXPECT_THAT(help.text, HasSubstr("cancel"));
  EXPECT_THAT(help.text, HasSubstr("Exit status:\n  0    done"));
  EXPECT_THAT(message({"purge", "--help"}).text, HasSubstr("--urgency"));
  EXPECT_EQ(message({"--version"}).status, ExitStatus::Done);
  EXPECT_THAT(message({"--version"}).text, testing::StartsWith("kelvanectl "));
}

}  // namespace
}  // namespace kelvane::ctl
