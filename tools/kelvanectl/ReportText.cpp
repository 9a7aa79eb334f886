// SPDX-License-Identifier: Apache-2.0
// A purge's report for people.
#include "tools/kelvanectl/ReportText.h"

#include <fmt/format.h>

#include <iterator>
#include <string_view>

#include "platform/Printable.h"
#include "tools/kelvanectl/ByteSize.h"

namespace kelvane::ctl {
namespace {

using Output = std::back_insert_iterator<std::string>;

constexpr int widestNames = 55;

std::string formatElapsed(std::chrono::duration<double> elapsed) {
  const double seconds = elapsed.count();
  return seconds < 1 ? fmt::format("{:.0f} ms", seconds * 1000) : fmt::format("{:.1f} s", seconds);
}

void addRow(Output out, std::string_view name, const std::string& figure, int width) {
  fmt::format_to(out, "{}\n", tableRow(name, figure, nameColumn(width, widestNames)));
}

void addPass(Output out, const PassReport& pass, int width) {
  const auto add = [&](const std::string& identifier, const std::string& figure) {
    addRow(out, fmt::format("urgency {}  {}", pass.urgency, printable(identifier)), figure, width);
  };
  for (const ServiceAnswer& answer : pass.answers) {
    if (answer.bytes > 0) {
      add(answer.identifier, formatByteSize(answer.bytes));
    }
  }
  for (const std::string& identifier : pass.unanswered) {
    add(identifier, "no answer");
  }
}

void addRequest(Output out, const RequestReport& request, int width) {
  fmt::format_to(out, "Up to urgency {}: {} asked, {} freed in {}\n", request.urgencyLimit,
                 formatByteSize(request.asked), formatByteSize(request.freed), formatElapsed(request.elapsed));
  std::uint64_t shown = 0;
  for (const PassReport& pass : request.passes) {
    addPass(out, pass, width);
    for (const ServiceAnswer& answer : pass.answers) {
      shown += answer.bytes;
    }
  }
  // A service that gave all it was asked for is asked again, and its last answer replaces the ones before.
  if (request.reported && *request.reported > shown && !request.passes.empty()) {
    addRow(out, "answers before these", formatByteSize(*request.reported - shown), width);
    addRow(out, "all answers", formatByteSize(*request.reported), width);
  }
}

}  // namespace

std::string textHeading(const PurgeOrder& order, std::uint64_t available) {
  return fmt::format("Freeing {} on {} ({} available), token {}\n", formatByteSize(order.bytes),
                     printable(order.volume), formatByteSize(available), printable(order.token));
}

std::string textReport(const PurgeReport& report, int width) {
  std::string text;
  const Output out = std::back_inserter(text);
  for (const RequestReport& request : report.requests) {
    addRequest(out, request, width);
  }
  fmt::format_to(out, "{} {} of {} in {}: {} available before, {} now\n",
                 report.ending == Ending::Freed ? "Freed" : "Freed only", formatByteSize(report.freed()),
                 formatByteSize(report.order.bytes), formatElapsed(report.elapsed),
                 formatByteSize(report.availableBefore), formatByteSize(report.availableAfter));
  return text;
}

std::string errorText(const PurgeReport& report) {
  switch (report.ending) {
    case Ending::Freed:
    case Ending::Short:
      return "";
    case Ending::Interrupted:
      return "interrupted; what services were already asked for, they may still free";
    case Ending::Refused:
      return fmt::format("the daemon refused: {}; or {} is no volume to the daemon",
                         lacksEntitlement("PURGE_ENTITLEMENT"), report.order.volume);
    case Ending::NoServices:
      return "there is no service to ask: none that purges is registered, or none can be reached; see "
             "kelvane-directory-cache(8)";
    case Ending::Declined:
      return fmt::format("nothing was asked at urgency {}", maximumUrgency);
    case Ending::NotAdmitted:
    case Ending::NoDaemon:
    case Ending::ConnectionLost:
    case Ending::Failed:
    case Ending::NoVolume:
      break;
  }
  return failureText({report.ending, report.detail});
}

}  // namespace kelvane::ctl
