// SPDX-License-Identifier: Apache-2.0
// Calls straight to the services, beside which the daemon's requests to them are measured.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench/BareServer.h"

namespace kelvane::bench {

/// One connection to each of the services that listen in turn on a socket, and one to the process they are in. For one
/// thread.
class ServiceCalls {
 public:
  /// Appends a call's contents.
  using Fill = std::function<void(sd_bus_message* call)>;

  ServiceCalls(const std::string& socket, std::size_t services);

  /// Makes so many calls, to one service after the other, and sends all before it looks at an answer. Returns the
  /// nanoseconds until all are answered.
  std::uint64_t run(const char* member, std::uint64_t calls, const Fill& fill);

  /// How many requests the services have answered since the last time.
  std::uint64_t countRequests() { return callProcess("CountRequests"); }
  /// The same, and gives the services everything back.
  std::uint64_t refill() { return callProcess("Refill"); }

 private:
  std::uint64_t callProcess(const char* member);
  static int countAnswer(sd_bus_message* answer, void* calls, sd_bus_error* error);

  Bus control_;
  BareServer caller_{[](std::size_t, sd_bus_message*) {}};
  std::vector<sd_bus*> services_;
  std::uint64_t answers_ = 0;
};

}  // namespace kelvane::bench
