// SPDX-License-Identifier: Apache-2.0
// Counts what the state store answers to clients that always want more, turn and turn about with the least that could.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/BareServer.h"
#include "bench/GroupFlush.h"
#include "bench/ProcessorTime.h"

namespace kelvane::bench {

namespace {

/// What a client stores is this long, and no other client's.
constexpr std::size_t valueBytes = 100;

struct Plan {
  int blocks;
  std::uint64_t blockNanoseconds;
  std::size_t clients;
  pid_t daemon;
  std::string daemonSocket;
  std::string directSocket;
  std::string hopSocket;
  /// A slot of the daemon's preferences store, and a file beside it.
  std::string slot;
  std::string flushed;
};

/// Clients on connections of their own, of which each makes its next call when the last is answered.
class Clients {
 public:
  Clients(const std::string& socket, std::size_t count, const char* member) : member_(member) {
    for (std::size_t number = 0; number < count; ++number) {
      Bus bus = connectTo(socket);
      const std::string key = "bench." + std::to_string(number);
      clients_.push_back({*this, bus.get(), key, key + std::string(valueBytes - key.size(), '.')});
      caller_.add(std::move(bus));
    }
  }

  /// Calls answered in the last run.
  double answers() const { return static_cast<double>(answers_); }

  /// Returns how many calls were answered each second.
  double run(std::uint64_t nanoseconds) {
    const std::uint64_t begin = nanosecondsNow();
    end_ = begin + nanoseconds;
    answers_ = 0;
    for (Client& client : clients_) {
      call(client);
    }
    while (waiting_ > 0) {
      caller_.turn(true);
    }
    return static_cast<double>(answers_) * 1e9 / static_cast<double>(nanosecondsNow() - begin);
  }

 private:
  struct Client {
    Clients& clients;
    sd_bus* bus;
    std::string key;
    std::string value;
  };

  void call(Client& client) {
    sd_bus_message* made = nullptr;
    must(sd_bus_message_new_method_call(client.bus, &made, nullptr, daemonPath, daemonInterface, member_), "a call");
    const Message call(made);
    if (std::string_view(member_) == "clientGetState") {
      must(sd_bus_message_append(made, "s", client.key.c_str()), "a call");
    } else {
      must(sd_bus_message_append(made, "vs", "s", client.value.c_str(), client.key.c_str()), "a call");
    }
    must(sd_bus_call_async(client.bus, nullptr, made, answered, &client, UINT64_MAX), "a call");
    ++waiting_;
  }

  static int answered(sd_bus_message* answer, void* asked, sd_bus_error*) {
    must(-sd_bus_message_get_errno(answer), "a call");
    Client& client = *static_cast<Client*>(asked);
    --client.clients.waiting_;
    ++client.clients.answers_;
    if (nanosecondsNow() < client.clients.end_) {
      client.clients.call(client);
    }
    return 1;
  }

  const char* const member_;
  BareServer caller_{[](std::size_t, sd_bus_message*) {}};
  std::vector<Client> clients_;
  std::uint64_t end_ = 0;
  std::size_t waiting_ = 0;
  std::uint64_t answers_ = 0;
};

/// What the daemon writes to make a change durable: the length of the record in the slot.
std::size_t recordBytes(const std::string& slot) {
  constexpr std::size_t headerBytes = 28;
  constexpr off_t lengthOffset = 16;
  std::array<std::uint8_t, 8> bytes{};
  const int file = mustCall(open(slot.c_str(), O_RDONLY | O_CLOEXEC), slot.c_str());
  mustCall(static_cast<int>(pread(file, bytes.data(), bytes.size(), lengthOffset)), slot.c_str());
  close(file);
  std::size_t length = 0;
  for (std::size_t index = bytes.size(); index > 0; --index) {
    length = length << 8 | bytes[index - 1];
  }
  return headerBytes + length;
}

nlohmann::json measure(const Plan& plan) {
  Clients set(plan.daemonSocket, plan.clients, "clientSetState");
  Clients get(plan.daemonSocket, plan.clients, "clientGetState");
  Clients direct(plan.directSocket, plan.clients, "Echo");
  Clients hop(plan.hopSocket, plan.clients, "Echo");
  // From here on every client has its value, and the record its length.
  set.run(plan.blockNanoseconds);
  set.run(plan.blockNanoseconds);
  const std::size_t bytes = recordBytes(plan.slot);
  const GroupFlush flush(plan.flushed, bytes);
  const ProcessorTime processorTime(plan.daemon);
  nlohmann::json result = {{"record_bytes", bytes}};
  for (int block = 0; block < plan.blocks; ++block) {
    for (auto [name, clients] : {std::pair("set", &set), std::pair("get", &get)}) {
      const std::uint64_t begin = processorTime.now();
      result[name].push_back(clients->run(plan.blockNanoseconds));
      result[name + std::string("_daemon_ns")].push_back(static_cast<double>(processorTime.now() - begin) /
                                                         clients->answers());
    }
    result["direct_echo"].push_back(direct.run(plan.blockNanoseconds));
    result["hop_echo"].push_back(hop.run(plan.blockNanoseconds));
    result["flush"].push_back(flush.run(plan.clients, plan.blockNanoseconds));
  }
  return result;
}

}  // namespace

}  // namespace kelvane::bench

int main(int count, char** arguments) {
  if (count != 10) {
    std::fprintf(stderr,
                 "Usage: bench-state BLOCKS MILLISECONDS CLIENTS DAEMON-PROCESS DAEMON-SOCKET DIRECT-SOCKET HOP-SOCKET "
                 "SLOT FILE\n");
    return 2;
  }
  kelvane::bench::raiseDescriptorLimit();
  const kelvane::bench::Plan plan = {std::stoi(arguments[1]),
                                     std::stoul(arguments[2]) * 1'000'000,
                                     std::stoul(arguments[3]),
                                     std::stoi(arguments[4]),
                                     arguments[5],
                                     arguments[6],
                                     arguments[7],
                                     arguments[8],
                                     arguments[9]};
  std::puts(kelvane::bench::measure(plan).dump().c_str());
}
