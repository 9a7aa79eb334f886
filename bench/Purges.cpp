// SPDX-License-Identifier: Apache-2.0
// Times purges in which many services give, turn and turn about with as many calls straight to those services.
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <thread>

#include "bench/ServiceCalls.h"

namespace kelvane::bench {

namespace {

constexpr std::uint64_t pageBytes = 4096;
/// Far longer than a pass of services that all answer.
constexpr std::uint64_t passSeconds = 1;
/// A purge that gained less of its amount tells nothing, for most of the services were not asked.
constexpr double leastShare = 0.9;
/// A round that is of no use is made up for, so often.
constexpr std::size_t attemptsPerRound = 3;

struct Plan {
  std::size_t services;
  std::size_t rounds;
  std::string volume;
  /// What each service is to give.
  std::uint64_t pages;
  std::string daemonSocket;
  std::string bareSocket;
};

class Purges {
 public:
  explicit Purges(const Plan& plan)
      : plan_(plan),
        amount_(plan.services * plan.pages * pageBytes),
        daemon_(connectTo(plan.daemonSocket)),
        services_(plan.bareSocket, plan.services) {}

  nlohmann::json run() {
    nlohmann::json calls = nlohmann::json::array();
    nlohmann::json purgeTimes = nlohmann::json::array();
    nlohmann::json bareTimes = nlohmann::json::array();
    // The first round finds everything cold.
    runRound();
    nlohmann::json incomplete = nlohmann::json::array();
    for (std::size_t left = plan_.rounds * attemptsPerRound; left > 0 && calls.size() < plan_.rounds; --left) {
      const Round round = runRound();
      if (round.isComplete) {
        calls.push_back(round.calls);
        purgeTimes.push_back(round.purgeTime);
        bareTimes.push_back(round.bareTime);
      } else {
        incomplete.push_back(round.share);
      }
    }
    return {{"calls", calls}, {"purge_ns", purgeTimes}, {"bare_ns", bareTimes}, {"incomplete", incomplete}};
  }

 private:
  struct Round {
    /// False for a purge that gained too little and for one that waited for its time to pass.
    bool isComplete;
    /// Of the amount, what the volume gained.
    double share;
    std::uint64_t calls;
    std::uint64_t purgeTime;
    std::uint64_t bareTime;
  };

  Round runRound() {
    services_.refill();
    const std::uint64_t begin = nanosecondsNow();
    const std::uint64_t purged = purge();
    const std::uint64_t purgeTime = nanosecondsNow() - begin;
    const std::uint64_t calls = services_.countRequests();
    const double share = static_cast<double>(purged) / static_cast<double>(amount_);
    if (purged < amount_) {
      awaitStragglers();
    }
    services_.refill();
    if (share < leastShare || purgeTime >= passSeconds * 1'000'000'000) {
      return {.isComplete = false, .share = share, .calls = 0, .purgeTime = 0, .bareTime = 0};
    }
    return {.isComplete = true, .share = share, .calls = calls, .purgeTime = purgeTime, .bareTime = runBare(calls)};
  }

  /// What a purge has queued goes on after its end, and would count for the next.
  void awaitStragglers() {
    do {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (services_.countRequests() != 0);
  }

  /// Asks the services for the same amount by this many calls.
  std::uint64_t runBare(std::uint64_t calls) {
    return services_.run("servicePurge", calls, [&](sd_bus_message* call) {
      must(
          sd_bus_message_append(call, "ia{sv}", 1, 5, "KELVANE_AMOUNT", "t", amount_ / calls, "KELVANE_FREESPACE_BEGIN",
                                "t", std::uint64_t{1} << 30, "KELVANE_PURGE_TIMEOUT", "t", passSeconds,
                                "KELVANE_URGENCY", "x", std::int64_t{1}, "KELVANE_VOLUME", "s", plan_.volume.c_str()),
          "a bare call");
    });
  }

  /// Bytes that the volume gained, as the daemon says.
  std::uint64_t purge() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* call = nullptr;
    sd_bus_message* answer = nullptr;
    must(sd_bus_message_new_method_call(daemon_.get(), &call, nullptr, daemonPath, daemonInterface, "clientPurge"),
         "a purge");
    must(sd_bus_message_append(call, "a{sv}", 4, "KELVANE_AMOUNT", "t", amount_, "KELVANE_PURGE_TIMEOUT", "t",
                               passSeconds, "KELVANE_URGENCY", "x", std::int64_t{1}, "KELVANE_VOLUME", "s",
                               plan_.volume.c_str()),
         "a purge");
    must(sd_bus_call(daemon_.get(), call, UINT64_MAX, &error, &answer), "a purge");
    const std::uint64_t purged = amountOf(answer);
    sd_bus_message_unref(call);
    sd_bus_message_unref(answer);
    return purged;
  }

  static std::uint64_t amountOf(sd_bus_message* answer) {
    std::uint64_t amount = 0;
    must(sd_bus_message_enter_container(answer, 'v', "a{sv}"), "a purge's result");
    must(sd_bus_message_enter_container(answer, 'a', "{sv}"), "a purge's result");
    while (sd_bus_message_enter_container(answer, 'e', "sv") > 0) {
      const char* key = nullptr;
      must(sd_bus_message_read_basic(answer, 's', &key), "a key");
      if (std::string_view(key) == "KELVANE_AMOUNT") {
        must(sd_bus_message_read(answer, "v", "t", &amount), "an amount");
      } else {
        must(sd_bus_message_skip(answer, "v"), "a value");
      }
      must(sd_bus_message_exit_container(answer), "an entry");
    }
    return amount;
  }

  const Plan plan_;
  const std::uint64_t amount_;
  const Bus daemon_;
  ServiceCalls services_;
};

}  // namespace

}  // namespace kelvane::bench

int main(int count, char** arguments) {
  if (count != 7) {
    std::fprintf(stderr, "Usage: bench-purges SERVICES ROUNDS VOLUME PAGES DAEMON-SOCKET BARE-SOCKET\n");
    return 2;
  }
  kelvane::bench::raiseDescriptorLimit();
  kelvane::bench::Purges purges({std::stoul(arguments[1]), std::stoul(arguments[2]), arguments[3],
                                 std::stoul(arguments[4]), arguments[5], arguments[6]});
  std::puts(purges.run().dump().c_str());
}
