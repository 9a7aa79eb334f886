// SPDX-License-Identifier: Apache-2.0
// Times queries that find no answer in the record, turn and turn about with as many calls straight to the services.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "bench/ProcessorTime.h"
#include "bench/ServiceCalls.h"

namespace kelvane::bench {

namespace {

/// More than the change in free space that recent answers survive.
constexpr off_t ballastBytes = 6 * 1024 * 1024;
/// A round in which somebody was not asked is made up for, so often.
constexpr std::size_t attemptsPerRound = 3;
constexpr std::int64_t urgency = 3;

struct Plan {
  std::size_t services;
  std::size_t rounds;
  std::string volume;
  pid_t daemon;
  std::string daemonSocket;
  std::string bareSocket;
};

/// A file whose coming and going changes the volume's free space.
class Ballast {
 public:
  explicit Ballast(const std::string& volume)
      : file_(mustCall(open((volume + "/ballast").c_str(), O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0600), "a file")) {}

  void change() {
    isThere_ = !isThere_;
    mustCall(isThere_ ? fallocate(file_, 0, 0, ballastBytes) : ftruncate(file_, 0), "a file");
  }

 private:
  const int file_;
  bool isThere_ = false;
};

class Queries {
 public:
  explicit Queries(const Plan& plan)
      : plan_(plan),
        ballast_(plan.volume),
        processorTime_(plan.daemon),
        daemon_(connectTo(plan.daemonSocket)),
        services_(plan.bareSocket, plan.services) {}

  nlohmann::json run() {
    nlohmann::json queryTimes = nlohmann::json::array();
    nlohmann::json daemonTimes = nlohmann::json::array();
    nlohmann::json bareTimes = nlohmann::json::array();
    std::size_t incomplete = 0;
    // The first round finds everything cold.
    runRound();
    for (std::size_t left = plan_.rounds * attemptsPerRound; left > 0 && queryTimes.size() < plan_.rounds; --left) {
      const Round round = runRound();
      if (!round.isComplete) {
        ++incomplete;
        continue;
      }
      queryTimes.push_back(round.queryTime);
      daemonTimes.push_back(round.daemonTime);
      bareTimes.push_back(round.bareTime);
    }
    return {{"query_ns", queryTimes}, {"daemon_ns", daemonTimes}, {"bare_ns", bareTimes}, {"incomplete", incomplete}};
  }

 private:
  struct Round {
    /// Every service was asked, and had answered when the query was.
    bool isComplete;
    std::uint64_t queryTime;
    /// On processors, in the daemon.
    std::uint64_t daemonTime;
    std::uint64_t bareTime;
  };

  Round runRound() {
    ballast_.change();
    // The daemon may take the space of the last millisecond for the present one, and what is remembered for valid.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    services_.refill();
    Round round{};
    const std::uint64_t daemonBegin = processorTime_.now();
    const std::uint64_t begin = nanosecondsNow();
    query();
    round.queryTime = nanosecondsNow() - begin;
    round.daemonTime = processorTime_.now() - daemonBegin;
    round.isComplete = services_.refill() == plan_.services;
    round.bareTime = services_.run("servicePurgeable", plan_.services, [this](sd_bus_message* call) {
      must(sd_bus_message_append(call, "ia{sv}", std::int32_t{urgency}, 2, "KELVANE_URGENCY", "x", urgency,
                                 "KELVANE_VOLUME", "s", plan_.volume.c_str()),
           "a bare call");
    });
    return round;
  }

  void query() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* call = nullptr;
    sd_bus_message* answer = nullptr;
    must(sd_bus_message_new_method_call(daemon_.get(), &call, nullptr, daemonPath, daemonInterface,
                                        "clientPurgeableSpace"),
         "a query");
    must(sd_bus_message_append(call, "a{sv}", 2, "KELVANE_URGENCY", "x", urgency, "KELVANE_VOLUME", "s",
                               plan_.volume.c_str()),
         "a query");
    must(sd_bus_call(daemon_.get(), call, UINT64_MAX, &error, &answer), "a query");
    sd_bus_message_unref(call);
    sd_bus_message_unref(answer);
  }

  const Plan plan_;
  Ballast ballast_;
  const ProcessorTime processorTime_;
  const Bus daemon_;
  ServiceCalls services_;
};

}  // namespace

}  // namespace kelvane::bench

int main(int count, char** arguments) {
  if (count != 7) {
    std::fprintf(stderr, "Usage: bench-queries SERVICES ROUNDS VOLUME DAEMON-PROCESS DAEMON-SOCKET BARE-SOCKET\n");
    return 2;
  }
  kelvane::bench::raiseDescriptorLimit();
  kelvane::bench::Queries queries({std::stoul(arguments[1]), std::stoul(arguments[2]), arguments[3],
                                   std::stoi(arguments[4]), arguments[5], arguments[6]});
  std::puts(queries.run().dump().c_str());
}
