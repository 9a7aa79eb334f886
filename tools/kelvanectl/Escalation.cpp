// SPDX-License-Identifier: Apache-2.0
// Frees an amount with no more urgency than it takes.
#include "tools/kelvanectl/Escalation.h"

#include <algorithm>

#include "protocols/Keys.h"
#include "support/Format.h"

namespace kelvane::ctl {
namespace {

using SteadyClock = std::chrono::steady_clock;

std::uint64_t gain(std::uint64_t before, std::uint64_t after) {
  return after > before ? after - before : 0;
}

Value requestInfo(const PurgeOrder& order, int urgencyLimit, std::uint64_t bytes) {
  Value::Dictionary info = {
      {keys::volume, order.volume}, {keys::amount, bytes}, {keys::urgency, urgencyLimit}, {keys::token, order.token}};
  if (order.timeoutSeconds) {
    info.emplace(keys::purgeTimeout, *order.timeoutSeconds);
  }
  return Value(std::move(info));
}

PassReport passReport(int urgency, const Value& operationInfo) {
  PassReport pass{urgency, {}, {}};
  if (const auto answers = operationInfo[keys::reportingServices].dictionary()) {
    for (const auto& [identifier, bytes] : *answers) {
      pass.answers.push_back({identifier, bytes.uint64Value()});
    }
  }
  const Value unanswered = operationInfo[keys::servicesInFlight];
  if (const Value::Array* identifiers = unanswered.array()) {
    for (const Value& identifier : *identifiers) {
      pass.unanswered.push_back(identifier.description());
    }
  }
  return pass;
}

/// An answer may also be a single service's, which came last and has no final free space: it tells of no passes.
void addDetails(RequestReport& request, const Value& answer) {
  if (!answer.contains(keys::freespaceEnd)) {
    return;
  }
  request.reported = answer[keys::amountReported].uint64Value();
  for (int urgency = 1; urgency <= request.urgencyLimit; ++urgency) {
    const Value operationInfo = answer[formatted(keys::urgencyOperationInfoFormat, urgency)];
    if (operationInfo.isDictionary()) {
      request.passes.push_back(passReport(urgency, operationInfo));
    }
  }
}

/// Whether the daemon told of the request's passes, and nobody was asked in any.
bool hadNobodyToAsk(const RequestReport& request) {
  return !request.passes.empty() && std::ranges::all_of(request.passes, [](const PassReport& pass) {
    return pass.answers.empty() && pass.unanswered.empty();
  });
}

}  // namespace

PurgeReport freeBytes(const PurgeOrder& order, PurgeSite& site, const Permission& permission) {
  PurgeReport report;
  report.order = order;
  const auto available = site.available();
  if (!available) {
    report.ending = Ending::NoVolume;
    report.detail = order.volume + " does not answer";
    return report;
  }
  report.availableBefore = report.availableAfter = *available;
  const auto start = SteadyClock::now();

  for (int limit = order.single ? order.urgency : 1; limit <= order.urgency; ++limit) {
    if (limit == maximumUrgency && permission) {
      if (const Consent consent = permission(); consent != Consent::Given) {
        report.ending = consent == Consent::Interrupted ? Ending::Interrupted : Ending::Declined;
        break;
      }
    }
    const std::uint64_t before = report.availableAfter;
    RequestReport request{limit, order.bytes - report.freed(), 0, {}, {}, {}};
    const auto requestStart = SteadyClock::now();
    const auto outcome = site.purge(requestInfo(order, limit, request.asked));
    request.elapsed = SteadyClock::now() - requestStart;
    // While it does not answer it has gained what it had.
    report.availableAfter = site.available().value_or(report.availableAfter);
    request.freed = gain(before, report.availableAfter);

    if (const auto* failure = std::get_if<RequestFailure>(&outcome)) {
      // Bytes that are there are there, also when the daemon is gone.
      const bool freed = failure->ending == Ending::ConnectionLost && report.freed() >= order.bytes;
      report.ending = freed ? Ending::Freed : failure->ending;
      report.detail = failure->detail;
      report.requests.push_back(std::move(request));
      break;
    }
    const Value& answer = std::get<Value>(outcome);
    if (!answer.isDictionary()) {
      report.ending = Ending::Refused;
      break;
    }
    addDetails(request, answer);
    report.requests.push_back(std::move(request));
    if (report.freed() >= order.bytes) {
      report.ending = Ending::Freed;
      break;
    }
    // Nor is anybody asked when the daemon has seen the volume gain enough, which then was lost again.
    const bool sawEnough = answer[keys::amount].uint64Value() >= report.requests.back().asked;
    if (!sawEnough && hadNobodyToAsk(report.requests.back())) {
      report.ending = Ending::NoServices;
      break;
    }
  }
  report.elapsed = SteadyClock::now() - start;
  return report;
}

}  // namespace kelvane::ctl
