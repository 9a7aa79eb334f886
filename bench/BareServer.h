// SPDX-License-Identifier: Apache-2.0
// An event loop that serves bus connections and does nothing else.
#pragma once

#include <sys/epoll.h>

#include <functional>
#include <memory>
#include <vector>

#include "bench/BareBus.h"

namespace kelvane::bench {

/// Serves connections on the thread that calls run(), each driven by hand from one epoll, which is the cheapest way
/// the library allows. All functions are for that thread.
class BareServer {
 public:
  /// Answers a call that came on the connection of this number, counted from 0 in the order they were added.
  using Handler = std::function<void(std::size_t connection, sd_bus_message* call)>;

  explicit BareServer(Handler handler);
  BareServer(const BareServer&) = delete;
  BareServer& operator=(const BareServer&) = delete;

  /// Returns the connection's number.
  std::size_t add(Bus bus);
  /// Takes connections in from a listening socket; each is told as it is added.
  void acceptFrom(int listener, std::function<void(std::size_t connection)> accepted = {});
  /// Has a task run whenever the descriptor is readable.
  void watch(int descriptor, std::function<void()> task);

  /// Serves what there is to serve, and waits for it first if so wished.
  void turn(bool wait);
  [[noreturn]] void run();

  /// Sends an answer and frees it.
  void send(sd_bus_message* answer);

 private:
  struct Connection {
    BareServer& server;
    std::size_t number;
    Bus bus;
    int socket;
    std::uint32_t events;
  };
  struct Watch {
    std::function<void()> task;
    std::unique_ptr<Connection> connection;
  };
  static int receive(sd_bus_message* call, void* connection, sd_bus_error* error);
  void process(Watch& watch);
  void refreshEvents(Watch& watch);

  const Handler handler_;
  const int poll_;
  /// Never removed, as the numbers count.
  std::vector<std::unique_ptr<Watch>> watches_;
  std::size_t connections_ = 0;
};

}  // namespace kelvane::bench
