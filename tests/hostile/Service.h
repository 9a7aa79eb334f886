// SPDX-License-Identifier: Apache-2.0
// The peers of a test: clients and services.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <thread>

#include "protocols/KelvaneClientProtocol.h"
#include "tests/hostile/Info.h"
#include "tests/hostile/Places.h"
#include "tests/linux/testing/BusClient.h"
#include "tests/linux/testing/BusServer.h"

namespace kelvane::test {

class Client : public BusClient {
 public:
  Client() : BusClient(daemonSocket, KelvaneClientProtocol::interface) {}

  /// Whether the daemon answers it.
  [[nodiscard]] bool isServed();
  /// Waits for an answer: what is in it; absent too when the connection ends or it is an error.
  Value nextResult();
  /// A purge and its result.
  Value purge(const Append& info);
};

/// A check-in's arguments.
Append checkin(const std::string& identifier, int endpoint, const Append& info);
/// Of a service that purges.
Append purging();

/// A service whose every step is the test's.
class Service {
 public:
  explicit Service(std::string identifier);

  /// Whether the daemon answers what it asks as a client.
  [[nodiscard]] bool isServed() { return client_.isServed(); }
  /// Asks to be checked in, and leaves all that follows to the test.
  void beginCheckIn(const Append& info = purging());
  /// The answer to its check-in; absent when there was none.
  Value endCheckIn() { return client_.nextResult(); }
  /// The name of the error that answers its check-in; empty when something else does.
  std::string checkInError();
  /// Checks in as it should.
  void checkIn();

  /// Waits for a call, which is to be of this member.
  Message expect(const std::string& member);
  BusServer& bus() { return *bus_; }
  /// Sends bytes that need be no message.
  void sendBytes(std::string_view bytes);
  /// Dies, as far as the daemon can see.
  void hangUp() { bus_->close(); }

 private:
  const std::string identifier_;
  Client client_;
  int endpoint_ = -1;
  std::optional<BusServer> bus_;
};

/// A service that frees what it is asked for, from a file of its own on the test's volume, on a thread of its own. The
/// daemon must not hang up on it.
class BehavingService {
 public:
  BehavingService(std::string identifier, std::size_t bytes);
  ~BehavingService();
  BehavingService(const BehavingService&) = delete;
  BehavingService& operator=(const BehavingService&) = delete;

 private:
  void serve();
  std::uint64_t free(std::uint64_t bytes);

  const std::string file_;
  std::uint64_t left_;
  Service service_;
  std::atomic<bool> isLeaving_ = false;
  std::thread thread_;
};

}  // namespace kelvane::test
