// SPDX-License-Identifier: Apache-2.0
// What kelvanectl's commands do.
#include "tools/kelvanectl/Commands.h"

#include <fmt/core.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <utility>

#include "platform/Volumes.h"
#include "support/Token.h"
#include "tools/kelvanectl/CommandOutput.h"
#include "tools/kelvanectl/Confirmation.h"
#include "tools/kelvanectl/DaemonSite.h"
#include "tools/kelvanectl/Escalation.h"
#include "tools/kelvanectl/Interruption.h"
#include "tools/kelvanectl/ProgressBar.h"
#include "tools/kelvanectl/ReportJson.h"
#include "tools/kelvanectl/ReportText.h"
#include "tools/kelvanectl/VolumeArgument.h"

namespace kelvane::ctl {
namespace {

constexpr char eraseToEnd[] = "\x1b[K";

/// Redraws one line of the terminal that standard error is; does nothing when it is none.
std::function<void()> progressOf(const PurgeOrder& order) {
  if (isatty(STDERR_FILENO) != 1) {
    return nullptr;
  }
  const auto before = volumes::space(order.volume);
  if (!before) {
    return nullptr;
  }
  const auto start = std::chrono::steady_clock::now();
  return [before = *before, start, order, last = before->available]() mutable {
    winsize size{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    if (const auto now = volumes::space(order.volume); now && now->fileSystem == before.fileSystem) {
      last = now->available;
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    fmt::print(stderr, "\r{}{}",
               progressLine(last > before.available ? last - before.available : 0, order.bytes, elapsed,
                            known ? size.ws_col : 80),
               eraseToEnd);
  };
}

/// Has the person at the terminal asked, if there is one and has not consented beforehand.
Permission permissionFor(const PurgeCommand& command, bool hasProgress, const Interruption& interruption) {
  if (command.isConfirmed || !isSomebodyThere()) {
    return nullptr;
  }
  return [hasProgress, &interruption] {
    if (hasProgress) {
      fmt::print(stderr, "\r{}", eraseToEnd);
    }
    return askFor("Urgency 4 takes all that services can have again, whoever will miss it. Go on?", interruption);
  };
}

PurgeReport purge(PurgeOrder order, const PurgeCommand& command, const Interruption& interruption) {
  auto volume = resolveVolume(order.volume);
  if (const auto* error = std::get_if<VolumeError>(&volume)) {
    PurgeReport report;
    report.order = std::move(order);
    report.ending = Ending::NoVolume;
    report.detail = error->text;
    return report;
  }
  order.volume = std::get<std::string>(std::move(volume));

  std::function<void()> progress;
  if (command.output == OutputKind::Text) {
    if (const auto space = volumes::space(order.volume)) {
      printNow(textHeading(order, space->available));
    }
    progress = progressOf(order);
  }
  DaemonSite site(order.volume, interruption, progress);
  PurgeReport report = freeBytes(order, site, permissionFor(command, progress != nullptr, interruption));
  if (progress) {
    fmt::print(stderr, "\r{}", eraseToEnd);
  }
  return report;
}

/// Whether there is anything to tell of but why there was no answer.
bool wasAnswered(const PurgeReport& report) {
  return !report.requests.empty() && report.ending != Ending::NoDaemon && report.ending != Ending::NotAdmitted;
}

}  // namespace

ExitStatus run(const PurgeCommand& command, const Interruption& interruption) {
  PurgeOrder order = command.order;
  if (order.token.empty()) {
    order.token = createKelvaneToken().description();
  }
  const PurgeReport report = purge(std::move(order), command, interruption);
  if (command.output == OutputKind::Json) {
    print(jsonReport(report) + "\n");
  } else if (command.output == OutputKind::Text && wasAnswered(report)) {
    print(textReport(report, outputWidth()));
  }
  printError(errorText(report));
  return exitStatusOf(report.ending);
}

ExitStatus run(const CancelCommand& command) {
  const auto outcome = sendCancel(command.token);
  if (const auto* failure = std::get_if<RequestFailure>(&outcome)) {
    return reportFailure(*failure);
  }
  if (!command.quiet) {
    print("The daemon has taken note. A purge that is under way goes on.\n");
  }
  return ExitStatus::Done;
}

ExitStatus run(const DailyCommand& command, const Interruption& interruption) {
  if (geteuid() != 0) {
    printError("only root may run the daily maintenance; see systemctl start kelvane-daily.service");
    return ExitStatus::NotEntitled;
  }
  const auto outcome = runDaily(interruption);
  if (const auto* failure = std::get_if<RequestFailure>(&outcome)) {
    if (failure->ending == Ending::Interrupted) {
      printError("interrupted; the daemon goes on by itself");
      return ExitStatus::Interrupted;
    }
    return reportFailure(*failure);
  }
  if (!command.quiet) {
    print("The daily maintenance is done.\n");
  }
  return ExitStatus::Done;
}

ExitStatus run(const Message& message) {
  if (message.status == ExitStatus::Done) {
    print(message.text);
  } else {
    printError(message.text, "\n");
  }
  return message.status;
}

}  // namespace kelvane::ctl
