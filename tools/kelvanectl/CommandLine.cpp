// SPDX-License-Identifier: Apache-2.0
// kelvanectl's command line.
#include "tools/kelvanectl/CommandLine.h"

#include <CLI/CLI.hpp>
#include <sstream>

#include "tools/kelvanectl/ByteSize.h"

namespace kelvane::ctl {
namespace {

constexpr char footer[] =
    "Sizes: K, M, G, T and P, alone or as KiB, MiB, ..., are powers of 1024; kB, MB, ... are powers of 1000;\n"
    "fractions are allowed, as in 1.5G.\n"
    "\n"
    "Exit status: 0 freed what was asked or done, 1 freed less or no such value, 2 wrong command line, 3 no daemon or\n"
    "connection lost, 4 not entitled, 5 no such volume, 6 the daemon answered with an error, 130 interrupted.";

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
  return command;
}

CLI::App* addState(CLI::App& app, StateCommand& state) {
  using Action = StateCommand::Action;
  CLI::App* command = app.add_subcommand("state", "Read and change what clients keep in the daemon");
  command->require_subcommand(1);
  const auto add = [&](const char* name, Action action, const char* description) {
    return command->add_subcommand(name, description)->callback([&state, action] { state.action = action; });
  };
  CLI::App* get = add("get", Action::Get, "Show the value under KEY");
  CLI::App* set = add("set", Action::Set, "Put VALUE under KEY");
  CLI::App* unset = add("unset", Action::Unset, "Remove KEY and its value");
  CLI::App* list = add("list", Action::List, "Show all keys");
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

}  // namespace

Command parseCommandLine(int argc, const char* const* argv) {
  CLI::App app("Asks the services of this device to give disk space back.", "kelvanectl");
  app.require_subcommand(1);
  app.set_version_flag("--version", KELVANE_VERSION);
  app.footer(footer);

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
  CLI::Option* jsonFlag = purgeApp->add_flag("--json", json, jsonHelp);
  purgeApp->add_flag("-q,--quiet", quiet, quietHelp)->excludes(jsonFlag);
  purgeApp->footer(footer);

  CancelCommand cancel;
  CLI::App* cancelApp =
      app.add_subcommand("cancel", "Tell the daemon that the purge named TOKEN is not wanted any more");
  cancelApp->add_option("TOKEN", cancel.token, "As given to or shown by \"purge\"")->required();
  cancelApp->add_flag("-q,--quiet", cancel.quiet, quietHelp);

  DailyCommand daily;
  CLI::App* dailyApp = app.add_subcommand("run-daily", "Run the daily maintenance of all volumes now; for root");
  dailyApp->add_flag("-q,--quiet", daily.quiet, quietHelp);

  QueryCommand query;
  const CLI::App* queryApp = addQuery(app, query);
  StateCommand state;
  const CLI::App* stateApp = addState(app, state);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream text;
    const int status = app.exit(error, text, text);
    return Message{status == 0 ? ExitStatus::Done : ExitStatus::Usage, text.str()};
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
