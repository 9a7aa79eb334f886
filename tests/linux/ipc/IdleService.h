// SPDX-License-Identifier: Apache-2.0
// A service that reads and answers when the test has it do so.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "platform/Ipc.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/testing/BusServer.h"

namespace kelvane::test {

/// As a caller whose other end is a service of the daemon's, with all its limits.
namespace sample {
inline constexpr ipc::Interface serviceInterface = [] {
  ipc::Interface own = KelvaneServiceProtocol::interface;
  own.objectPath = interface.objectPath;
  own.name = interface.name;
  own.operations = operations;
  return own;
}();
}  // namespace sample

/// What is told: one entry.
[[nodiscard]] Value notification(const std::string& name, const Value& value);

/// The other end of an endpoint, and the caller that was given it: connected, with the handshake behind them.
class IdleService {
 public:
  explicit IdleService(const ipc::Interface& interface = sample::serviceInterface);

  SampleCaller& caller() { return *caller_; }
  BusServer& bus() { return *server_; }

  void ping() { caller().call(sample::ping, {}); }
  void tell(const Value& notification) { caller().call(sample::tell, {notification}); }
  void tell(int number, const std::string& name = "name") { tell(notification(name, Value(number))); }
  /// Has it owe as many answers as it may, all read.
  void oweAllItMay();
  /// Answers the oldest of those.
  void answerOne();
  /// Reads and answers a call, which is to be tell; the number that it is told, or -1.
  int takeNumber();
  /// As takeNumber(), and the name before it: "name 7".
  std::string takeNotification();
  /// How many bytes have arrived that it has not read.
  [[nodiscard]] int unreadBytes() const;
  /// Looks at it as its caller will after this time.
  void lookAfter(std::chrono::seconds time);
  /// Of those that the calls that failed were given: the next.
  [[nodiscard]] std::string nextError();

 private:
  const int mostOwed_;
  std::optional<BusServer> server_;
  std::optional<SampleCaller> caller_;
  std::deque<Message> owed_;
};

}  // namespace kelvane::test
