// SPDX-License-Identifier: Apache-2.0
// kelvanectl's command line.
#include "tools/kelvanectl/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>
#include <sstream>
#include <vector>

#include "platform/Printable.h"
#include "tools/kelvanectl/ByteSize.h"
#include "tools/kelvanectl/HelpText.h"
#include "tools/kelvanectl/Suggestion.h"

namespace kelvane::ctl {
namespace {

std::string checkSize(std::string& text) {
  const auto parsed = parseByteSize(text);
  if (const auto* error = std::get_if<SizeError>(&parsed)) {
    return error->text;
  }
  return std::get<std::uint64_t>(parsed) == 0 ? "an amount of 0 bytes frees nothing" : "";
}

constexpr char quietHelp[] = "Print nothing but errors";
constexpr char jsonHelp[] = "Print one JSON object";

CLI::App* addQuery(CLI::App& app, QueryCommand& query) {
  CLI::App* command = app.add_subcommand("purgeable", "Show what services could free");
  command->add_option("VOLUME", query.order.volumes, "Mount points; all local volumes if not given");
  command->add_option("-u,--urgency", query.order.urgency, "How urgently, 1 (mildest) to 4; 3 if not given")
      ->check(CLI::Range(1, maximumUrgency));
  command->add_flag("--itemized", query.isItemized, "Ask by the right to itemized figures");
  command->add_flag("--json", query.json, jsonHelp);
  command->footer(helpText::purgeable());
  return command;
}

CLI::App* addState(CLI::App& app, StateCommand& state) {
  using Action = StateCommand::Action;
  CLI::App* command = app.add_subcommand("state", "Read and change what clients keep in the daemon");
  command->require_subcommand(1)->footer(helpText::state());
  const auto add = [&](const char* name, Action action, const char* description, const std::string& footer) {
    CLI::App* one = command->add_subcommand(name, description)->callback([&state, action] { state.action = action; });
    return one->footer(footer);
  };
  CLI::App* get = add("get", Action::Get, "Show the value under KEY", helpText::stateGet());
  CLI::App* set = add("set", Action::Set, "Put VALUE under KEY", helpText::stateSet());
  CLI::App* unset = add("unset", Action::Unset, "Remove KEY and its value", helpText::stateUnset());
  CLI::App* list = add("list", Action::List, "Show all keys", helpText::stateList());
  for (CLI::App* one : {get, set, unset}) {
    one->add_option("KEY", state.key)->required();
  }
  set->add_option("VALUE", state.value, "true, false, a number or a property list; \"-\" reads it from standard input")
      ->required();
  set->add_flag("--string", state.isString, "VALUE is a string as it stands");
  for (CLI::App* one : {get, list}) {
    one->add_flag("--json", state.json, "Print JSON");
  }
  return command;
}

/// The command that was named, of a command if it has some.
const CLI::App& chosen(const CLI::App& app) {
  const std::vector<CLI::App*> parsed = app.get_subcommands();
  return parsed.empty() ? app : chosen(*parsed.front());
}

std::string fullName(const CLI::App& app) {
  return app.get_parent() == nullptr ? app.get_name() : fullName(*app.get_parent()) + " " + app.get_name();
}

std::string withHelp(const CLI::App& app, const std::string& what) {
  return printable(what) + "\nSee " + fullName(app) + " --help.";
}

std::string didYouMean(std::string_view typed, const std::vector<std::string>& words) {
  const auto word = suggestion(typed, words);
  return word ? "; did you mean '" + *word + "'?" : "";
}

/// What is wrong when the first argument that is no option is not the name of a command.
std::optional<std::string> unknownCommand(const CLI::App& app, const std::vector<std::string>& arguments) {
  std::vector<std::string> names;
  const auto typed = std::ranges::find_if(arguments, [](const auto& one) { return !one.starts_with('-'); });
  if (typed == arguments.end()) {
    return std::nullopt;
  }
  for (const CLI::App* command : app.get_subcommands({})) {
    if (command->get_name() == *typed) {
      const bool hasCommands = !command->get_subcommands({}).empty();
      return hasCommands ? unknownCommand(*command, {typed + 1, arguments.end()}) : std::nullopt;
    }
    names.push_back(command->get_name());
  }
  return withHelp(app, "unknown command '" + *typed + "'" + didYouMean(*typed, names));
}

/// What is wrong when the command is known.
std::string whatIsWrong(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = chosen(app);
  const bool isAboutValue = error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ExtrasError) &&
                            error.get_exit_code() != static_cast<int>(CLI::ExitCodes::RequiredError);
  std::vector<std::string> unknown = app.remaining(true);
  std::erase(unknown, "--");
  if (isAboutValue || unknown.empty()) {
    const bool lacksCommand = !command.get_subcommands({}).empty();
    return withHelp(command, lacksCommand ? "a command is missing" : error.what());
  }
  const std::string& typed = unknown.front();
  if (!typed.starts_with("--")) {
    return withHelp(command, "unexpected argument '" + typed + "'");
  }
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return withHelp(command, "unknown option '" + typed + "'" + didYouMean(typed, names));
}

}  // namespace

Command parseCommandLine(int argc, const char* const* argv) {
  CLI::App app("Asks the services of this device to give disk space back.", "kelvanectl");
  app.require_subcommand(1);
  app.set_version_flag("--version", "kelvanectl " KELVANE_VERSION);
  app.footer(helpText::general());

  PurgeCommand purge;
  std::string size;
  bool json = false;
  bool quiet = false;
  CLI::App* purgeApp = app.add_subcommand("purge", "Free SIZE bytes on VOLUME");
  purgeApp->add_option("VOLUME", purge.order.volume, "Mount point of the volume")->required();
  purgeApp->add_option("SIZE", size, "How much to free, as 500M or 1.5G")
      ->required()
      ->check(CLI::Validator(checkSize, ""));
  purgeApp->add_option("-u,--urgency", purge.order.urgency, "Highest urgency, 1 (mildest) to 4; 3 if not given")
      ->check(CLI::Range(1, maximumUrgency));
  purgeApp
      ->add_option("-t,--timeout", purge.order.timeoutSeconds,
                   "Seconds that each pass may take, 1 to 300; 2 for each step of urgency if not given")
      ->check(CLI::Range(1, 300));
  purgeApp->add_option("--token", purge.order.token, "Name of this purge for \"cancel\"; a new one if not given");
  purgeApp->add_flag("--single", purge.order.single, "Send one request instead of requests of rising urgency");
  purgeApp->add_flag("-y,--yes", purge.isConfirmed, "Do not ask at a terminal before urgency 4");
  CLI::Option* jsonFlag = purgeApp->add_flag("--json", json, jsonHelp);
  purgeApp->add_flag("-q,--quiet", quiet, quietHelp)->excludes(jsonFlag);
  purgeApp->footer(helpText::purge());

  CancelCommand cancel;
  CLI::App* cancelApp =
      app.add_subcommand("cancel", "Tell the daemon that the purge named TOKEN is not wanted any more");
  cancelApp->add_option("TOKEN", cancel.token, "As given to or shown by \"purge\"")->required();
  cancelApp->add_flag("-q,--quiet", cancel.quiet, quietHelp);
  cancelApp->footer(helpText::cancel());

  DailyCommand daily;
  CLI::App* dailyApp = app.add_subcommand("run-daily", "Run the daily maintenance of all volumes now; for root");
  dailyApp->add_flag("-q,--quiet", daily.quiet, quietHelp);
  dailyApp->footer(helpText::runDaily());

  QueryCommand query;
  const CLI::App* queryApp = addQuery(app, query);
  StateCommand state;
  const CLI::App* stateApp = addState(app, state);

  if (const auto wrong = unknownCommand(app, {argv + 1, argv + argc})) {
    return Message{ExitStatus::Usage, *wrong};
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream help;
    if (app.exit(error, help, help) == 0) {
      return Message{ExitStatus::Done, help.str()};
    }
    return Message{ExitStatus::Usage, whatIsWrong(app, error)};
  }
  if (cancelApp->parsed()) {
    return cancel;
  }
  if (dailyApp->parsed()) {
    return daily;
  }
  if (queryApp->parsed()) {
    return query;
  }
  if (stateApp->parsed()) {
    return state;
  }
  purge.order.bytes = std::get<std::uint64_t>(parseByteSize(size));
  purge.output = json ? OutputKind::Json : quiet ? OutputKind::Quiet : OutputKind::Text;
  return purge;
}

}  // namespace kelvane::ctl
