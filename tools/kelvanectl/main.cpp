// SPDX-License-Identifier: Apache-2.0
// kelvanectl, the administrator's command.
#include "tools/kelvanectl/Commands.h"
#include "tools/kelvanectl/Interruption.h"

using namespace kelvane::ctl;

int main(int argc, char** argv) {
  const Interruption interruption;
  const Command command = parseCommandLine(argc, argv);
  ExitStatus status = ExitStatus::Usage;
  if (const auto* purge = std::get_if<PurgeCommand>(&command)) {
    status = run(*purge, interruption);
  } else if (const auto* cancel = std::get_if<CancelCommand>(&command)) {
    status = run(*cancel);
  } else {
    status = run(std::get<Message>(command));
  }
  return static_cast<int>(status);
}
