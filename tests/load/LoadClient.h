// SPDX-License-Identifier: Apache-2.0
// One client of many, which asks for everything a client can ask for.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/load/CachingService.h"
#include "tests/load/Ledger.h"
#include "tests/load/Requester.h"

namespace kelvane::test {

/// So many may be under way at once, over all clients.
class Allowance {
 public:
  explicit Allowance(int places) : free_(places) {}
  [[nodiscard]] bool take() {
    if (free_.fetch_sub(1) > 0) {
      return true;
    }
    ++free_;
    return false;
  }
  void giveBack() { ++free_; }

 private:
  std::atomic<int> free_;
};

inline constexpr char describedService[] = "com.example.described";

/// What the clients of a test have in common.
struct Load {
  Ledger ledger;
  /// Held while a process is being started, which has all sockets of this one until it is another program: no socket
  /// that is closed meanwhile ends for its peer.
  std::mutex starting = {};
  /// Bytes that each service has at most, by its identifier.
  std::map<std::string, std::uint64_t> capacities = {};
  std::atomic<bool> hasFailed = false;
  /// They are carried out one after the other, and each may take seconds.
  Allowance purges{4};
  /// The bytes that all clients of one user may have the daemon hold are limited.
  Allowance longMessages{4};

  // What came of it
  std::atomic<int> purgesThatFreed = 0;
  std::atomic<int> queriesThatCounted = 0;
  std::atomic<int> checkins = 0;
  std::atomic<int> cuts = 0;
  std::atomic<int> errors = 0;
};

/// Keeps a few requests open at a time on a connection of its own. Some clients have a service, whose connection they
/// cut now and then.
class LoadClient {
 public:
  static constexpr std::uint64_t capacity = 256 * 1024;

  LoadClient(int number, bool hasService, Load& load);

  /// Until then, and until all is answered.
  void run(std::chrono::steady_clock::time_point end);
  void expectNothingMore() { requester_.expectNothingMore(); }
  /// What it has stored is there, as another client sees it.
  void expectStored(Client& reader) const;
  std::size_t answered() const { return requester_.answered(); }

  static std::string identifier(int number) { return "com.example.client" + std::to_string(number); }

 private:
  void step();
  // Requests
  void query();
  void purge();
  void cancel();
  void setState();
  void getState();
  void getWholeState();
  void changeSharedState();
  void refresh();
  void checkIn();
  void checkInAnew();
  void checkInAgain();
  void checkInAsDescribed();
  void die();
  void blunder();

  std::string checkQuery(const Value& result) const;
  std::string checkPurge(const Value& result, std::uint64_t freedBefore) const;
  void expectError(const std::string& member, const Append& arguments, const std::string& errorName);
  Requester::Check countedError(const std::string& errorName);
  void sendLong(const std::string& member, const Append& arguments, Requester::Check check);
  void sendPurge(const Append& arguments, Requester::Check check);

  [[nodiscard]] unsigned pick(unsigned count) { return static_cast<unsigned>(random_() % count); }
  std::string ownKey();
  Value randomValue();

  Load& load_;
  std::minstd_rand random_;
  std::optional<CachingService> service_;
  bool isCheckedIn_ = false;
  bool isCheckingIn_ = false;
  Requester requester_;
  /// What was last set under each of its keys; absent where that was removed.
  std::map<std::string, Value> state_;
};

}  // namespace kelvane::test
