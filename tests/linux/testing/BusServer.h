// SPDX-License-Identifier: Apache-2.0
// A server that speaks D-Bus without this system's own code, and need not behave.
#pragma once

#include <systemd/sd-bus.h>

#include <string>

#include "tests/linux/testing/BusMessage.h"

namespace kelvane::test {

/// Takes the calls of one connection, one at a time, in the calling thread; what becomes of each is the test's.
class BusServer {
 public:
  /// On a socket that is connected, which it owns from now on.
  explicit BusServer(int socket);
  ~BusServer() { close(); }
  BusServer(const BusServer&) = delete;
  BusServer& operator=(const BusServer&) = delete;

  /// Returns when calls can come; false when the connection ends before.
  [[nodiscard]] bool shakeHands();
  /// Waits until something has arrived that was not read; false when the connection ends.
  [[nodiscard]] bool hasArrival() const;
  /// Waits for one call; null when the connection ends. Gives up after a minute, as an end.
  Message nextCall();
  /// The call that is there already, if any.
  Message pendingCall();
  bool answer(const Message& call, const Append& append = nothing);
  bool answerWithError(const Message& call, const std::string& name, const std::string& text);
  /// Everything unanswered stays so.
  void close();
  int socket() const { return sd_bus_get_fd(bus_); }

 private:
  sd_bus* bus_ = nullptr;
};

}  // namespace kelvane::test
