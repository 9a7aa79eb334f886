// SPDX-License-Identifier: Apache-2.0
// kelvanectl, the administrator's command.
#include "platform/Process.h"
#include "tools/kelvanectl/CommandOutput.h"
#include "tools/kelvanectl/Commands.h"
#include "tools/kelvanectl/Interruption.h"

using namespace kelvane::ctl;

int main(int argc, char** argv) {
  kelvane::holdStandardDescriptors();
  const Interruption interruption;
  const Command command = parseCommandLine(argc, argv);
  ExitStatus status = ExitStatus::Usage;
  if (const auto* purge = std::get_if<PurgeCommand>(&command)) {
    status = run(*purge, interruption);
  } else if (const auto* cancel = std::get_if<CancelCommand>(&command)) {
    status = run(*cancel);
  } else if (const auto* daily = std::get_if<DailyCommand>(&command)) {
    status = run(*daily, interruption);
  } else if (const auto* query = std::get_if<QueryCommand>(&command)) {
    status = run(*query, interruption);
  } else if (const auto* state = std::get_if<StateCommand>(&command)) {
    status = run(*state, interruption);
  } else {
    status = run(std::get<Message>(command));
  }
  return static_cast<int>(finishOutput(status));
}
