// SPDX-License-Identifier: Apache-2.0
// kelvanectl's command line.
#pragma once

#include <string>
#include <variant>

#include "tools/kelvanectl/ExitStatus.h"
#include "tools/kelvanectl/PurgeReport.h"
#include "tools/kelvanectl/Query.h"

namespace kelvane::ctl {

enum class OutputKind { Text, Json, Quiet };

/// The order's volume is as typed, its token empty unless one was given.
struct PurgeCommand {
  PurgeOrder order;
  /// Nobody is to be asked whether services may be asked at the highest urgency.
  bool isConfirmed = false;
  OutputKind output = OutputKind::Text;
};

struct CancelCommand {
  std::string token;
  bool quiet = false;
};

struct DailyCommand {
  bool quiet = false;
};

/// The order's volumes are as typed; none stand for all.
struct QueryCommand {
  QueryOrder order;
  bool isItemized = false;
  bool json = false;
};

struct StateCommand {
  enum class Action { Get, Set, Unset, List };
  Action action = Action::List;
  std::string key;
  /// As typed: "-" stands for standard input.
  std::string value;
  /// The value is the text itself.
  bool isString = false;
  bool json = false;
};

/// Nothing to run: help or the version was asked for, or the command line is wrong.
struct Message {
  ExitStatus status;
  std::string text;
};

using Command = std::variant<PurgeCommand, CancelCommand, DailyCommand, QueryCommand, StateCommand, Message>;

[[nodiscard]] Command parseCommandLine(int argc, const char* const* argv);

}  // namespace kelvane::ctl
