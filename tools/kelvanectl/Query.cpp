// SPDX-License-Identifier: Apache-2.0
// Asks what services could free, until their figures have settled.
#include "tools/kelvanectl/Query.h"

#include <utility>
#include <variant>

#include "protocols/Keys.h"

namespace kelvane::ctl {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 3s;
constexpr auto interval = 400ms;
/// The daemon waits at least so long while a service has not answered, and not at all when none is asked.
constexpr auto daemonsWait = 150ms;

VolumeFigures figuresOf(const std::string& volume, const Value& answer) {
  VolumeFigures figures;
  figures.volume = volume;
  figures.total = answer[keys::totalAvailable].int64Value();
  if (const auto entries = answer.dictionary()) {
    for (const auto& [key, amount] : *entries) {
      if (key != keys::totalAvailable && key != keys::volume) {
        figures.services.push_back(
            {key, amount.isNumber() ? std::optional<std::int64_t>(amount.int64Value()) : std::nullopt});
      }
    }
  }
  return figures;
}

std::variant<VolumeFigures, RequestFailure> ask(const std::string& volume, const QueryOrder& order, QuerySite& site) {
  Value::Dictionary info = {{keys::volume, volume}};
  if (order.urgency) {
    info.emplace(keys::urgency, *order.urgency);
  }
  const QuerySite::Time start = site.now();
  const Outcome outcome = site.query(Value(std::move(info)));
  if (const auto* failure = std::get_if<RequestFailure>(&outcome)) {
    return *failure;
  }
  VolumeFigures figures = figuresOf(volume, std::get<Value>(outcome));
  figures.isComplete = site.now() - start < daemonsWait;
  return figures;
}

bool hasGrown(const VolumeFigures& before, const VolumeFigures& now) {
  return now.total > before.total || now.services.size() > before.services.size();
}

/// Asks for all that may grow. Why that ended early, if it did.
std::optional<RequestFailure> askAgain(QueryReport& report, std::vector<std::size_t>& growing, const QueryOrder& order,
                                       QuerySite& site) {
  std::vector<std::size_t> stillGrowing;
  for (const std::size_t index : growing) {
    VolumeFigures& before = report.volumes[index];
    auto now = ask(before.volume, order, site);
    if (const auto* failure = std::get_if<RequestFailure>(&now)) {
      return *failure;
    }
    VolumeFigures& figures = std::get<VolumeFigures>(now);
    if (!figures.isComplete && hasGrown(before, figures)) {
      stillGrowing.push_back(index);
    }
    before = std::move(figures);
  }
  growing = std::move(stillGrowing);
  return std::nullopt;
}

}  // namespace

QueryReport askForSpace(const QueryOrder& order, QuerySite& site) {
  QueryReport report;
  std::vector<std::size_t> growing;
  std::optional<RequestFailure> unasked;
  for (const std::string& volume : order.volumes) {
    auto figures = ask(volume, order, site);
    if (auto* failure = std::get_if<RequestFailure>(&figures)) {
      if (failure->ending != Ending::Refused && failure->ending != Ending::Failed) {
        report.failure = std::move(*failure);
        return report;
      }
      if (!unasked) {
        unasked = std::move(*failure);
      }
      continue;
    }
    report.volumes.push_back(std::get<VolumeFigures>(std::move(figures)));
    if (!report.volumes.back().isComplete) {
      growing.push_back(report.volumes.size() - 1);
    }
  }
  const QuerySite::Time end = site.now() + patience;
  while (!growing.empty() && !report.failure && site.now() + interval <= end) {
    report.failure = site.pause(interval) ? askAgain(report, growing, order, site)
                                          : std::optional(RequestFailure{Ending::Interrupted, ""});
  }
  if (!report.failure) {
    report.failure = std::move(unasked);
  }
  return report;
}

}  // namespace kelvane::ctl
