// SPDX-License-Identifier: Apache-2.0
// A client that speaks D-Bus without this system's own code.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

#include "platform/IpcInterface.h"
#include "tests/linux/testing/BusMessage.h"

namespace kelvane::test {

/// A socket connected to the listener at path; negative when that fails.
int connectedSocket(const std::string& path);

/// Calls one interface of a listener, and waits for its answers in the calling thread.
class BusClient {
 public:
  BusClient(const std::string& path, const ipc::Interface& interface);
  /// On a socket that is connected, which it owns from now on.
  BusClient(int socket, const ipc::Interface& interface);
  ~BusClient() { close(); }
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  using Append = test::Append;

  /// What came back: the reply's signature and, when it is one string (in a variant or not), that; or the
  /// name and the text of an error.
  struct Answer {
    std::string signature;
    std::string text;
    std::string error;
  };
  Answer call(const std::string& member, const Append& append = nothing);
  Answer callAt(const std::string& path, const std::string& interface, const std::string& member,
                const Append& append = nothing);
  /// Sends without waiting for the answer; true when it went out.
  bool send(const std::string& member, const Append& append = nothing, bool expectReply = true);
  /// Waits for one answer; null when the connection ends.
  Message nextAnswer();
  /// Waits for one answer and gives the cookie of the call that it is to; 0 when the connection ends.
  std::uint64_t nextReply();
  std::uint64_t lastCookie() const { return lastCookie_; }
  void close();
  int socket() const { return sd_bus_get_fd(bus_); }
  sd_bus* bus() { return bus_; }

  static int nothing(sd_bus_message* message) { return test::nothing(message); }

 private:
  Message make(const std::string& path, const std::string& interface, const std::string& member, const Append& append);

  sd_bus* bus_ = nullptr;
  const ipc::Interface& interface_;
  bool isRefused_ = false;
  std::uint64_t lastCookie_ = 0;
};

}  // namespace kelvane::test
