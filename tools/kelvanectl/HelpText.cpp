// SPDX-License-Identifier: Apache-2.0
// What stands beneath the options in the help of each command: examples and exit statuses.
#include "tools/kelvanectl/HelpText.h"

#include <fmt/format.h>

#include <initializer_list>
#include <iterator>
#include <string_view>
#include <vector>

#include "tools/kelvanectl/ExitStatus.h"

namespace kelvane::ctl::helpText {
namespace {

struct Example {
  std::string_view command;
  std::string_view effect;
};

struct Meaning {
  ExitStatus status;
  std::string_view text;
};

constexpr std::string_view sizes =
    "Sizes: K, M, G, T and P, alone or as KiB, MiB, ..., are powers of 1024; kB, MB, ... are powers of 1000;\n"
    "fractions are allowed, as in 1.5G.";

// What may become of any request.
constexpr Meaning usage = {ExitStatus::Usage, "the command line is wrong"};
constexpr Meaning noDaemon = {ExitStatus::NoDaemon, "the daemon does not run, or the connection to it was lost"};
constexpr Meaning notEntitled = {ExitStatus::NotEntitled,
                                 "not entitled: the daemon does not talk to this user, or refused"};
constexpr Meaning noVolume = {ExitStatus::NoVolume, "no such volume, or none that the daemon would work on"};
constexpr Meaning failed = {ExitStatus::Failed, "the daemon answered with an error, such as a limit that was passed"};
constexpr Meaning unwritten = {ExitStatus::Unwritten, "standard output did not take what there was to say"};
constexpr Meaning interrupted = {ExitStatus::Interrupted, "interrupted by SIGINT or SIGTERM"};

std::string footer(std::initializer_list<Example> examples, const std::vector<Meaning>& meanings) {
  std::string text;
  const auto out = std::back_inserter(text);
  if (examples.size() > 0) {
    fmt::format_to(out, "Examples:\n");
    for (const Example& example : examples) {
      fmt::format_to(out, "  {}\n      {}\n", example.command, example.effect);
    }
    fmt::format_to(out, "\n");
  }
  fmt::format_to(out, "Exit status:\n");
  for (const Meaning& meaning : meanings) {
    fmt::format_to(out, "  {:<3}  {}\n", static_cast<int>(meaning.status), meaning.text);
  }
  text.pop_back();
  return text;
}

Meaning done(std::string_view text) {
  return {ExitStatus::Done, text};
}

/// With all that may become of a request about a volume.
std::vector<Meaning> andWhatVolumesMayMeet(std::vector<Meaning> meanings) {
  meanings.insert(meanings.end(), {usage, noDaemon, notEntitled, noVolume, failed, unwritten, interrupted});
  return meanings;
}

}  // namespace

std::string general() {
  return fmt::format(
      "{}\n\n{}\n\n\"kelvanectl COMMAND --help\" tells more about a command, and kelvanectl(1) about all of them.",
      sizes,
      footer({{"kelvanectl purgeable", "what could be freed on each volume"},
              {"kelvanectl purge /home 2G", "free 2 GiB on /home"}},
             andWhatVolumesMayMeet(
                 {done("done: the volume gained SIZE, the figures or the state were shown, the state was changed"),
                  {ExitStatus::Short, "the volume gained less, or there is no such value"}})));
}

std::string purge() {
  return fmt::format(
      "{}\n\n{}", sizes,
      footer(
          {{"kelvanectl purge /home 2G", "free 2 GiB, asking no more urgently than it takes, up to 3"},
           {"kelvanectl purge --urgency 1 /home 500M", "only what nobody would miss"},
           {"kelvanectl purge --json /var 1.5G", "for programs"}},
          andWhatVolumesMayMeet(
              {done("the volume gained SIZE"),
               {ExitStatus::Short, "it gained less, also as there was no service to ask or urgency 4 was declined"}})));
}

std::string cancel() {
  return footer({{"kelvanectl cancel 0a7f64f0-6a3c-4d0e-9a4e-6f0a1a1c7d55", "the token that \"purge\" has shown"}},
                {done("the daemon has taken note; it does not say whether it knew TOKEN"), usage, noDaemon, notEntitled,
                 failed, unwritten});
}

std::string runDaily() {
  return footer({{"kelvanectl run-daily", "what kelvane-daily.timer does once a day"}},
                {done("the maintenance is done"),
                 usage,
                 noDaemon,
                 {ExitStatus::NotEntitled, "not root"},
                 failed,
                 unwritten,
                 interrupted});
}

std::string purgeable() {
  return footer({{"kelvanectl purgeable", "of all local volumes"},
                 {"kelvanectl purgeable --urgency 1 /home", "what nobody would miss there"},
                 {"kelvanectl purgeable --json /home /var", "for programs"}},
                andWhatVolumesMayMeet({done("the figures were shown")}));
}

std::string state() {
  return "\"kelvanectl state COMMAND --help\" tells more about a command.";
}

std::string stateGet() {
  return footer({{"kelvanectl state get KELVANE_CACHE_ENABLED", "one value"},
                 {"kelvanectl state get --json com.example.key", "for programs"}},
                {done("the value was shown"),
                 {ExitStatus::Short, "there is no value under KEY"},
                 usage,
                 noDaemon,
                 notEntitled,
                 failed,
                 unwritten,
                 interrupted});
}

std::string stateSet() {
  return footer({{"kelvanectl state set com.example.key 5", "a number"},
                 {"kelvanectl state set com.example.key '(1, \"two words\")'", "a property list"},
                 {"kelvanectl state set com.example.key - <value.plist", "a property list from a file"}},
                {done("the value is on disk"),
                 {ExitStatus::Usage, "the command line or VALUE is wrong"},
                 noDaemon,
                 notEntitled,
                 failed,
                 interrupted});
}

std::string stateUnset() {
  return footer({{"kelvanectl state unset com.example.key", "it need not be there"}},
                {done("there is no value under KEY any more"), usage, noDaemon, notEntitled, failed, interrupted});
}

std::string stateList() {
  return footer({{"kelvanectl state list --json", "all keys and values, for programs"}},
                {done("the keys were shown"), usage, noDaemon, notEntitled, failed, unwritten, interrupted});
}

}  // namespace kelvane::ctl::helpText
