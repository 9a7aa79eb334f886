// SPDX-License-Identifier: Apache-2.0
// What services could free, for people and for programs.
#include "tools/kelvanectl/QueryReportText.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "platform/Printable.h"
#include "tools/kelvanectl/ByteSize.h"
#include "tools/kelvanectl/JsonLine.h"
#include "tools/kelvanectl/ReportJson.h"

namespace kelvane::ctl {
namespace {

using Json = nlohmann::ordered_json;
using Output = std::back_insert_iterator<std::string>;

constexpr int widestNames = 44;
constexpr int widestBar = 20;

/// Services may say anything, and their sum wraps.
std::string formatFigure(std::int64_t bytes) {
  const auto size = static_cast<std::uint64_t>(bytes);
  return bytes < 0 ? "-" + formatByteSize(0 - size) : formatByteSize(size);
}

int barLength(std::int64_t bytes, std::int64_t largest, int longest) {
  if (bytes <= 0 || longest == 0) {
    return 0;
  }
  const double share = static_cast<double>(bytes) / static_cast<double>(largest);
  return std::max(1, static_cast<int>(share * longest + 0.5));
}

void addVolume(Output out, const VolumeFigures& figures, int width) {
  const int names = nameColumn(width, widestNames);
  fmt::format_to(out, "{}\n", printable(figures.volume));
  std::vector<ServiceFigure> services = figures.services;
  std::ranges::stable_sort(services, [](const auto& left, const auto& right) { return left.bytes > right.bytes; });
  for (const ServiceFigure& service : services) {
    const std::string figure = service.bytes ? formatFigure(*service.bytes) : "no number";
    const int bar =
        service.bytes ? barLength(*service.bytes, *services.front().bytes, barColumn(width, names, widestBar)) : 0;
    fmt::format_to(out, "{}{:>{}}{:#<{}}\n", tableRow(printable(service.identifier), figure, names), "",
                   bar > 0 ? 2 : 0, "", bar);
  }
  fmt::format_to(
      out, "{}\n",
      tableRow(services.empty() ? "no service has told of anything" : "total", formatFigure(figures.total), names));
}

Json volumeJson(const VolumeFigures& figures) {
  Json services = Json::array();
  for (const ServiceFigure& service : figures.services) {
    services.push_back({{"id", service.identifier}, {"bytes", service.bytes ? Json(*service.bytes) : Json(nullptr)}});
  }
  return {{"volume", figures.volume},
          {"total", figures.total},
          {"complete", figures.isComplete},
          {"services", std::move(services)}};
}

}  // namespace

std::string queryText(const QueryReport& report, int width) {
  std::string text;
  const Output out = std::back_inserter(text);
  for (const VolumeFigures& figures : report.volumes) {
    addVolume(out, figures, width);
  }
  if (!report.volumes.empty()) {
    fmt::format_to(out, "Figures may be up to {} s old, and given at another urgency.\n", figuresStand.count());
  }
  if (!std::ranges::all_of(report.volumes, &VolumeFigures::isComplete)) {
    text += "Some services may not have answered yet.\n";
  }
  return text;
}

std::string queryJson(const QueryReport& report) {
  Json volumes = Json::array();
  for (const VolumeFigures& figures : report.volumes) {
    volumes.push_back(volumeJson(figures));
  }
  const Json json = {{"ending", report.failure ? Json(endingName(report.failure->ending)) : Json("answered")},
                     {"error", report.failure ? Json(failureText(*report.failure)) : Json(nullptr)},
                     {"age_limit_seconds", figuresStand.count()},
                     {"volumes", std::move(volumes)}};
  return jsonLine(json);
}

}  // namespace kelvane::ctl
