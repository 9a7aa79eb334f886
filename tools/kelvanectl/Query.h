// SPDX-License-Identifier: Apache-2.0
// Asks what services could free, until their figures have settled.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "tools/kelvanectl/Requests.h"

namespace kelvane::ctl {

/// For so long the daemon may answer with what a service said before.
inline constexpr std::chrono::seconds figuresStand{120};

struct QueryOrder {
  std::vector<std::string> volumes;
  /// 1 to maximumUrgency; the daemon's own when absent.
  std::optional<int> urgency;
};

struct ServiceFigure {
  std::string identifier;
  /// Absent when the service answered with something else than a number; it counts for nothing then.
  std::optional<std::int64_t> bytes;
};

struct VolumeFigures {
  std::string volume;
  std::vector<ServiceFigure> services;
  std::int64_t total = 0;
  /// Whether all services that were asked had answered. Those that had not count for nothing, or for what they said
  /// before.
  bool isComplete = false;
};

struct QueryReport {
  std::vector<VolumeFigures> volumes;
  std::optional<RequestFailure> failure;
};

/// The daemon and the time, as a query sees them.
class QuerySite {
 public:
  using Time = std::chrono::steady_clock::time_point;

  virtual ~QuerySite() = default;
  virtual Outcome query(const Value& info) = 0;
  virtual Time now() = 0;
  /// False when the process was interrupted meanwhile.
  virtual bool pause(std::chrono::milliseconds duration) = 0;
};

/// Asks for each volume in turn. The daemon does not wait long, and what a service answers later counts the next time;
/// so this asks again, a few times, where somebody had not answered and the figures grew since the time before. It
/// begins nothing more than 3 seconds after the first answers. One volume that the daemon refuses (its name may be
/// no text that a request can carry) keeps no other from being asked. Any other failure ends it; what was told before
/// that stands.
QueryReport askForSpace(const QueryOrder& order, QuerySite& site);

}  // namespace kelvane::ctl
