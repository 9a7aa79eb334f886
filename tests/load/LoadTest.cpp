// SPDX-License-Identifier: Apache-2.0
// Many clients that ask for everything at once, while services are killed and come back.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>

#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/linux/testing/Eventually.h"
#include "tests/load/LoadClient.h"
#include "tests/load/ServiceProcesses.h"

namespace kelvane {
namespace {

using test::CachingService;
using test::Client;
using test::eventually;
using test::LoadClient;
using test::mebibyte;
using test::ServiceProcesses;

constexpr int clientCount = 64;
constexpr int processCount = 6;
constexpr std::uint64_t processCapacity = mebibyte;

/// Half a minute, or a few seconds under sanitizers; KELVANE_LOAD_SECONDS says otherwise.
std::chrono::milliseconds duration() {
  const char* const seconds = std::getenv("KELVANE_LOAD_SECONDS");
  return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : test::sanitizers.empty() ? 30 : 7);
}

/// Every fourth client has a service, too.
bool hasService(int client) {
  return client % 4 == 0;
}

class Load : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    test::writeFile(std::string(test::descriptions) + "described",
                    std::string("{ KELVANE_ID = \"") + test::describedService + "\"; KELVANE_SERVICES = (); }");
    // Passes whose services died otherwise last as long as they may, one after the other.
    test::writeFile(test::configuration, "{ EndPassesEarly = YES; }");
    startDaemon();
    threads_ = daemon_.threads();
  }

  void apply(std::chrono::milliseconds time) {
    test::Load load{.ledger = test::Ledger(test::ledgerFile)};
    for (int number = 0; number < processCount; ++number) {
      load.capacities[ServiceProcesses::identifier(number)] = processCapacity;
    }
    for (int number = 0; number < clientCount; ++number) {
      if (hasService(number)) {
        load.capacities[LoadClient::identifier(number)] = LoadClient::capacity;
      }
    }
    int deaths = 0;
    std::size_t answered = 0;
    {
      const ServiceProcesses processes(processCount, processCapacity, load.ledger, load.starting);
      std::deque<LoadClient> clients;
      for (int number = 0; number < clientCount; ++number) {
        clients.emplace_back(number, hasService(number), load);
      }
      const auto end = std::chrono::steady_clock::now() + time;
      std::vector<std::thread> threads;
      for (LoadClient& client : clients) {
        threads.emplace_back([&client, end] { client.run(end); });
      }
      for (std::thread& thread : threads) {
        thread.join();
      }
      Client reader;
      for (LoadClient& client : clients) {
        client.expectNothingMore();
        client.expectStored(reader);
        answered += client.answered();
      }
      deaths = processes.deaths();
    }
    std::cout << answered << " answers, " << load.errors << " of them errors; " << load.purgesThatFreed
              << " purges that freed, " << load.queriesThatCounted << " queries that counted, " << load.checkins
              << " check-ins, " << load.cuts << " cuts, " << deaths << " kills" << std::endl;
    isOfAllKinds_ = std::min({load.purgesThatFreed.load(), load.queriesThatCounted.load(), load.checkins.load(),
                              load.cuts.load(), load.errors.load(), deaths}) > 0;
    for (const auto& [identifier, capacity] : load.capacities) {
      std::filesystem::remove(std::string(test::volume) + "/" + identifier);
    }
  }

  /// Whether everything that is to happen under load happened in the last one.
  [[nodiscard]] bool wasOfAllKinds() const { return isOfAllKinds_; }

  /// Until the daemon's threads that have nothing to do have ended. One may not have begun when they were counted.
  void expectCalm() {
    EXPECT_TRUE(eventually([this] { return daemon_.threads() <= threads_ + 1; })) << daemon_.threads();
  }

  /// Of what the daemon has to tell of such a load.
  void expectNothingElseInTheLog() {
    const std::initializer_list<const char*> expected = {// Services that died or were asked for less than a byte
                                                         "timed out waiting for: ", "cancelling purge",
                                                         // A service that is asked again before it has been taken out
                                                         "which is already inFlight",
                                                         // What clients asked for that there is not
                                                         "Unable to validate volume: /proc/none",
                                                         "amount is not a number: much"};
    std::istringstream log(daemon_.log());
    for (std::string line; std::getline(log, line);) {
      EXPECT_TRUE(std::any_of(expected.begin(), expected.end(), [&line](const char* text) {
        return line.find(text) != std::string::npos;
      })) << line;
    }
  }

 private:
  std::size_t threads_ = 0;
  bool isOfAllKinds_ = false;
};

TEST_F(Load, OfManyClientsIsAnsweredAndLeavesNothingBehindWhileServicesAreKilledAndComeBack) {
  // What is made once and kept is there after this.
  apply(duration() / 10);
  expectCalm();
  const std::size_t descriptors = daemon_.openDescriptors();
  const std::size_t resident = daemon_.residentBytes();
  apply(duration());
  EXPECT_TRUE(wasOfAllKinds());
  expectCalm();
  EXPECT_TRUE(eventually([&] { return daemon_.openDescriptors() == descriptors; }))
      << daemon_.openDescriptors() << " instead of " << descriptors;
  // A sanitizer's allocator keeps what was freed.
  EXPECT_TRUE(!test::sanitizers.empty() || eventually([&] {
    return daemon_.residentBytes() < resident + 8 * mebibyte;
  })) << daemon_.residentBytes()
      << " instead of " << resident;
  std::cout << "threads " << daemon_.threads() << ", descriptors " << descriptors << ", resident " << resident / 1024
            << " KiB, then " << daemon_.residentBytes() / 1024 << " KiB" << std::endl;
  expectNothingElseInTheLog();
}

}  // namespace
}  // namespace kelvane
