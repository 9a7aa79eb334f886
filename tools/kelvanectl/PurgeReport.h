// SPDX-License-Identifier: Apache-2.0
// What a purge by kelvanectl was asked to do and what came of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "tools/kelvanectl/Failure.h"

namespace kelvane::ctl {

inline constexpr int maximumUrgency = 4;
inline constexpr int defaultUrgency = 3;

struct PurgeOrder {
  std::string volume;
  std::uint64_t bytes = 0;
  /// The highest urgency that services may be asked at, 1 to maximumUrgency.
  int urgency = defaultUrgency;
  /// Of each pass, 1 to 300; the daemon's own times when absent.
  std::optional<std::uint32_t> timeoutSeconds;
  std::string token;
  /// One request with the whole limit instead of requests of rising limit.
  bool single = false;
};

/// What one service said it gave, in the last of its answers of one pass.
struct ServiceAnswer {
  std::string identifier;
  std::uint64_t bytes;
};

/// One pass of a request, as the daemon tells of it.
struct PassReport {
  int urgency;
  std::vector<ServiceAnswer> answers;
  /// Services that had not answered when the pass ran out of time.
  std::vector<std::string> unanswered;
};

/// One request to the daemon.
struct RequestReport {
  int urgencyLimit;
  std::uint64_t asked;
  /// By what the volume's available bytes grew meanwhile.
  std::uint64_t freed;
  std::chrono::duration<double> elapsed;
  /// Bytes that services said they gave; absent when the daemon's answer does not tell.
  std::optional<std::uint64_t> reported;
  std::vector<PassReport> passes;
};

struct PurgeReport {
  PurgeOrder order;
  std::uint64_t availableBefore = 0;
  std::uint64_t availableAfter = 0;
  std::chrono::duration<double> elapsed{0};
  std::vector<RequestReport> requests;
  Ending ending = Ending::Short;
  /// Why, in words, where the ending alone does not tell.
  std::string detail;

  std::uint64_t freed() const { return availableAfter > availableBefore ? availableAfter - availableBefore : 0; }
};

}  // namespace kelvane::ctl
