// SPDX-License-Identifier: Apache-2.0
// Times the same call to several peers, turn and turn about, so that whatever disturbs one disturbs all.
#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "bench/BareBus.h"

namespace kelvane::bench {

namespace {

/// One of those whose answers are timed.
struct Contender {
  std::string name;
  std::string member;
  const char* destination;
  Bus bus;
  /// Connections that are open beside it while it is called.
  std::size_t idle = 0;
  std::string path = {};
  std::vector<std::uint64_t> times = {};
  /// The median of each block.
  std::vector<std::uint64_t> medians = {};
};

struct Plan {
  int blocks = 20;
  int callsOfBlock = 100;
  std::vector<Contender> contenders = {};
};

std::uint64_t quantile(std::vector<std::uint64_t> times, double share) {
  std::sort(times.begin(), times.end());
  return times.at(static_cast<std::size_t>(static_cast<double>(times.size() - 1) * share));
}

/// The call that every contender gets. It names no purge, so the daemon has nothing to cancel, and a volume, which it
/// can be asked about.
Message makeCall(const Contender& contender) {
  sd_bus_message* made = nullptr;
  must(sd_bus_message_new_method_call(contender.bus.get(), &made, contender.destination, daemonPath, daemonInterface,
                                      contender.member.c_str()),
       "a call");
  Message call(made);
  must(sd_bus_message_append(made, "a{sv}", 4, "KELVANE_AMOUNT", "t", std::uint64_t{1} << 30, "KELVANE_TOKEN", "s",
                             "b1f7f5a2-3c55-4f7e-9a55-0d9c5f1f0c77", "KELVANE_URGENCY", "x", std::int64_t{3},
                             "KELVANE_VOLUME", "s", "/volumes/bench"),
       "a call");
  return call;
}

void callOnce(Contender& contender) {
  const Message call = makeCall(contender);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* answer = nullptr;
  const std::uint64_t begin = nanosecondsNow();
  const int result = sd_bus_call(contender.bus.get(), call.get(), UINT64_MAX, &error, &answer);
  contender.times.push_back(nanosecondsNow() - begin);
  must(result, contender.name.c_str());
  sd_bus_message_unref(answer);
}

void runBlock(Contender& contender, int calls) {
  // The first call finds cold what the others left.
  callOnce(contender);
  contender.times.pop_back();
  const std::size_t begin = contender.times.size();
  for (int call = 0; call < calls; ++call) {
    callOnce(contender);
  }
  contender.medians.push_back(
      quantile({contender.times.begin() + static_cast<std::ptrdiff_t>(begin), contender.times.end()}, 0.5));
}

void runBlocks(Plan& plan) {
  std::vector<Bus> idle;
  for (int block = 0; block < plan.blocks; ++block) {
    for (Contender& contender : plan.contenders) {
      while (idle.size() > contender.idle) {
        idle.pop_back();
      }
      while (idle.size() < contender.idle) {
        idle.push_back(connectTo(contender.path));
      }
      runBlock(contender, plan.callsOfBlock);
    }
  }
}

nlohmann::json report(const Plan& plan) {
  nlohmann::json result = nlohmann::json::object();
  for (const Contender& contender : plan.contenders) {
    result[contender.name] = {{"calls", contender.times.size()},
                              {"p50_ns", quantile(contender.times, 0.5)},
                              {"p99_ns", quantile(contender.times, 0.99)},
                              {"block_medians_ns", contender.medians}};
  }
  return result;
}

/// The member of a kind of call; empty when there is no such kind.
std::string memberOf(const std::string& kind) {
  static const std::map<std::string, std::string> members = {
      {"call", "clientCancelPurge"}, {"query", "clientPurgeableSpace"}, {"echo", "Echo"}};
  const auto found = members.find(kind);
  return found != members.end() ? found->second : kind.starts_with("entries") ? kind : "";
}

/// NAME,KIND,SOCKET[,IDLE]: KIND is call (an answer of nothing), query, echo, or entriesN (an answer of so many), and
/// "brokered-" before it when the socket is a broker's.
bool addContender(Plan& plan, std::string text) {
  std::vector<std::string> fields;
  for (std::size_t end = 0; end != std::string::npos;) {
    end = text.find(',');
    fields.push_back(text.substr(0, end));
    text.erase(0, end + 1);
  }
  if (fields.size() < 3) {
    return false;
  }
  const std::string brokered = "brokered-";
  const bool isBroker = fields[1].starts_with(brokered);
  const std::string member = memberOf(isBroker ? fields[1].substr(brokered.size()) : fields[1]);
  if (member.empty()) {
    return false;
  }
  Contender contender{.name = fields[0],
                      .member = member,
                      .destination = isBroker ? brokeredName : nullptr,
                      .bus = connectTo(fields[2], isBroker),
                      .path = fields[2]};
  if (fields.size() > 3) {
    contender.idle = std::stoul(fields[3]);
  }
  plan.contenders.push_back(std::move(contender));
  return true;
}

}  // namespace

}  // namespace kelvane::bench

int main(int count, char** arguments) {
  kelvane::bench::raiseDescriptorLimit();
  kelvane::bench::Plan plan;
  bool isUsable = count > 3;
  for (int index = 3; index < count && isUsable; ++index) {
    isUsable = addContender(plan, arguments[index]);
  }
  if (!isUsable) {
    std::fprintf(stderr, "Usage: bench-round-trips BLOCKS CALLS NAME,KIND,SOCKET[,IDLE]...\n");
    return 2;
  }
  plan.blocks = std::stoi(arguments[1]);
  plan.callsOfBlock = std::stoi(arguments[2]);
  runBlocks(plan);
  std::puts(report(plan).dump().c_str());
}
