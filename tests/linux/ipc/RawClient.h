// SPDX-License-Identifier: Apache-2.0
// A client that speaks D-Bus without this system's own code.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelvane::test {

/// A socket connected to the listener at path; negative when that fails.
int connectedSocket(const std::string& path);

/// Calls the sample interface of a listener, and waits for its answers in the calling thread.
class RawClient {
 public:
  explicit RawClient(const std::string& path);
  /// On a socket that is connected, which it owns from now on.
  explicit RawClient(int socket);
  ~RawClient() { close(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  using Append = std::function<int(sd_bus_message*)>;

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
  /// Waits for one message and gives the cookie of the call that it answers; 0 when the connection ends.
  std::uint64_t nextReply();
  std::uint64_t lastCookie() const { return lastCookie_; }
  void close();
  int socket() const { return sd_bus_get_fd(bus_); }
  sd_bus* bus() { return bus_; }

  static int nothing(sd_bus_message*) { return 0; }

 private:
  sd_bus_message* make(const std::string& path, const std::string& interface, const std::string& member,
                       const Append& append);
  void start(int socket);

  sd_bus* bus_ = nullptr;
  bool isRefused_ = false;
  std::uint64_t lastCookie_ = 0;
};

}  // namespace kelvane::test
