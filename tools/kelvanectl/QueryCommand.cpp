// SPDX-License-Identifier: Apache-2.0
// "kelvanectl purgeable": what services could free.
#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/Volumes.h"
#include "protocols/Keys.h"
#include "tools/kelvanectl/CommandOutput.h"
#include "tools/kelvanectl/Commands.h"
#include "tools/kelvanectl/Interruption.h"
#include "tools/kelvanectl/Query.h"
#include "tools/kelvanectl/QueryReportText.h"
#include "tools/kelvanectl/VolumeArgument.h"

namespace kelvane::ctl {
namespace {

/// The real daemon and the real time. Lives on the main thread.
class DaemonQuerySite : public QuerySite {
 public:
  DaemonQuerySite(bool isItemized, const Interruption& interruption)
      : isItemized_(isItemized), interruption_(interruption) {}

  Outcome query(const Value& info) override {
    const auto send = [&](KelvaneClient::Handler handler) {
      if (isItemized_) {
        client_.itemizedPurgeableSpace(info, std::move(handler));
      } else {
        client_.purgeableSpace(info, std::move(handler));
      }
    };
    Outcome outcome = await(send, interruption_);
    if (auto* failure = std::get_if<RequestFailure>(&outcome); failure && failure->ending == Ending::Refused) {
      failure->detail =
          fmt::format("the daemon refused: {}; or {} is no volume to the daemon",
                      lacksEntitlement(isItemized_ ? "ITEMIZED_PURGEABLE_ENTITLEMENT" : "PURGEABLE_ENTITLEMENT"),
                      info[keys::volume].description());
    }
    return outcome;
  }
  Time now() override { return std::chrono::steady_clock::now(); }
  bool pause(std::chrono::milliseconds duration) override { return !interruption_.comesWithin(duration); }

 private:
  const bool isItemized_;
  const Interruption& interruption_;
  const KelvaneClient client_;
};

QueryReport ask(const QueryCommand& command, const Interruption& interruption) {
  QueryOrder order = command.order;
  const std::vector<std::string> all = order.volumes.empty() ? volumes::local() : std::vector<std::string>();
  for (std::string& path : order.volumes) {
    auto volume = resolveVolume(path);
    if (auto* error = std::get_if<VolumeError>(&volume)) {
      return {{}, RequestFailure{Ending::NoVolume, std::move(error->text)}};
    }
    path = std::get<std::string>(std::move(volume));
  }
  order.volumes.insert(order.volumes.end(), all.begin(), all.end());
  DaemonQuerySite site(command.isItemized, interruption);
  return askForSpace(order, site);
}

}  // namespace

ExitStatus run(const QueryCommand& command, const Interruption& interruption) {
  const QueryReport report = ask(command, interruption);
  if (command.json) {
    print(queryJson(report) + "\n");
  } else {
    print(queryText(report, outputWidth()));
  }
  return report.failure ? reportFailure(*report.failure) : ExitStatus::Done;
}

}  // namespace kelvane::ctl
