// SPDX-License-Identifier: Apache-2.0
// A purge's report for programs.
#include "tools/kelvanectl/ReportJson.h"

#include <nlohmann/json.hpp>

#include "tools/kelvanectl/JsonLine.h"
#include "tools/kelvanectl/ReportText.h"

namespace kelvane::ctl {
namespace {

using Json = nlohmann::ordered_json;

Json passJson(const PassReport& pass) {
  Json services = Json::array();
  for (const ServiceAnswer& answer : pass.answers) {
    services.push_back({{"id", answer.identifier}, {"reported", answer.bytes}});
  }
  return {{"urgency", pass.urgency}, {"services", std::move(services)}, {"unanswered", pass.unanswered}};
}

Json requestJson(const RequestReport& request) {
  Json passes = Json::array();
  for (const PassReport& pass : request.passes) {
    passes.push_back(passJson(pass));
  }
  return {{"urgency_limit", request.urgencyLimit},
          {"asked", request.asked},
          {"freed", request.freed},
          {"reported", request.reported ? Json(*request.reported) : Json(nullptr)},
          {"elapsed_seconds", request.elapsed.count()},
          {"passes", std::move(passes)}};
}

}  // namespace

std::string_view endingName(Ending ending) {
  switch (ending) {
    case Ending::Freed:
      return "freed";
    case Ending::Short:
      return "short";
    case Ending::Interrupted:
      return "interrupted";
    case Ending::Refused:
      return "refused";
    case Ending::NotAdmitted:
      return "not-admitted";
    case Ending::NoDaemon:
      return "no-daemon";
    case Ending::ConnectionLost:
      return "connection-lost";
    case Ending::Failed:
      return "failed";
    case Ending::NoVolume:
      return "no-volume";
    case Ending::NoServices:
      return "no-services";
    case Ending::Declined:
      return "declined";
  }
  return "";
}

std::string jsonReport(const PurgeReport& report) {
  Json requests = Json::array();
  for (const RequestReport& request : report.requests) {
    requests.push_back(requestJson(request));
  }
  const std::string error = errorText(report);
  const Json json = {{"volume", report.order.volume},
                     {"token", report.order.token},
                     {"ending", endingName(report.ending)},
                     {"error", error.empty() ? Json(nullptr) : Json(error)},
                     {"asked", report.order.bytes},
                     {"freed", report.freed()},
                     {"available_before", report.availableBefore},
                     {"available_after", report.availableAfter},
                     {"elapsed_seconds", report.elapsed.count()},
                     {"requests", std::move(requests)}};
  return jsonLine(json);
}

}  // namespace kelvane::ctl
