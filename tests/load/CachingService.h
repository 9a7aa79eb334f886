// SPDX-License-Identifier: Apache-2.0
// A service with a cache, which dies and comes back.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>

#include "platform/linux/runtime/FileDescriptor.h"
#include "tests/linux/testing/BusServer.h"
#include "tests/load/Ledger.h"

namespace kelvane::test {

/// Does what the daemon asks of it, from a file on the test's volume that it fills again when it has little left. At
/// some of the calls it dies: before the call is carried out, before it is answered, in the middle of the answer or
/// after it. Belongs to one thread, which polls its socket.
class CachingService {
 public:
  /// Fills its file up to capacity. What it frees is entered under the account.
  CachingService(std::string identifier, std::uint64_t capacity, Ledger& ledger, std::size_t account, unsigned seed);

  /// What it tells when it checks in.
  static Append capabilities();
  /// Gives the daemon's end of a connection on which it serves.
  FileDescriptor open();
  /// Answers the calls that are there. False when the daemon has hung up.
  bool serve();
  /// From now on it dies by this at one call out of so many. What dies before its check-in is answered leaves the
  /// daemon waiting for good, as it is to.
  void mayDie(unsigned calls, std::function<void()> die);
  /// Dies as far as the daemon can see: a connection is there no longer.
  void cut();

  bool isOpen() const { return bus_.has_value(); }
  /// Of the connection that is open.
  bool wasPinged() const { return wasPinged_; }
  int socket() const { return bus_ ? bus_->socket() : -1; }
  const std::string& identifier() const { return identifier_; }

 private:
  enum class Moment { BeforeWork, BeforeAnswer, InAnswer, AfterAnswer, Never };

  void take(const Message& call);
  Append carryOut(const Message& call);
  void fill();
  std::uint64_t free(std::uint64_t bytes);

  const std::string identifier_;
  const std::string file_;
  const std::uint64_t capacity_;
  std::uint64_t left_ = 0;
  Ledger& ledger_;
  const std::size_t account_;
  std::minstd_rand random_;
  unsigned callsToADeath_ = 0;
  std::function<void()> die_;
  std::optional<BusServer> bus_;
  bool wasPinged_ = false;
};

}  // namespace kelvane::test
