// SPDX-License-Identifier: Apache-2.0
// An event loop that serves bus connections and does nothing else.
#include "bench/BareServer.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <utility>

namespace kelvane::bench {

BareServer::BareServer(Handler handler)
    : handler_(std::move(handler)), poll_(mustCall(epoll_create1(EPOLL_CLOEXEC), "epoll")) {}

std::size_t BareServer::add(Bus bus) {
  const std::size_t number = connections_++;
  const int socket = sd_bus_get_fd(bus.get());
  must(socket, "a connection's socket");
  auto watch = std::make_unique<Watch>();
  watch->connection = std::make_unique<Connection>(Connection{*this, number, std::move(bus), socket, EPOLLIN});
  must(sd_bus_add_filter(watch->connection->bus.get(), nullptr, receive, watch->connection.get()), "a filter");
  epoll_event event{.events = EPOLLIN, .data = {.ptr = watch.get()}};
  mustCall(epoll_ctl(poll_, EPOLL_CTL_ADD, socket, &event), "epoll");
  process(*watch);
  watches_.push_back(std::move(watch));
  return number;
}

void BareServer::acceptFrom(int listener, std::function<void(std::size_t connection)> accepted) {
  watch(listener, [this, listener, accepted = std::move(accepted)] {
    const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket >= 0) {
      const std::size_t number = add(serveOn(socket));
      if (accepted) {
        accepted(number);
      }
    }
  });
}

void BareServer::watch(int descriptor, std::function<void()> task) {
  auto watch = std::make_unique<Watch>();
  watch->task = std::move(task);
  epoll_event event{.events = EPOLLIN, .data = {.ptr = watch.get()}};
  mustCall(epoll_ctl(poll_, EPOLL_CTL_ADD, descriptor, &event), "epoll");
  watches_.push_back(std::move(watch));
}

void BareServer::turn(bool wait) {
  std::array<epoll_event, 256> ready;
  const int count = epoll_wait(poll_, ready.data(), static_cast<int>(ready.size()), wait ? -1 : 0);
  for (int index = 0; index < count; ++index) {
    auto& watch = *static_cast<Watch*>(ready[static_cast<std::size_t>(index)].data.ptr);
    if (watch.task) {
      watch.task();
    } else {
      process(watch);
    }
  }
}

void BareServer::run() {
  for (;;) {
    turn(true);
  }
}

void BareServer::process(Watch& watch) {
  if (!watch.connection->bus) {
    return;
  }
  int result = 1;
  while (result > 0) {
    result = sd_bus_process(watch.connection->bus.get(), nullptr);
  }
  if (result < 0 || sd_bus_is_open(watch.connection->bus.get()) <= 0) {
    watch.connection->bus.reset();
    return;
  }
  refreshEvents(watch);
}

void BareServer::refreshEvents(Watch& watch) {
  const int wanted = sd_bus_get_events(watch.connection->bus.get());
  const std::uint32_t events = EPOLLIN | (wanted > 0 && (wanted & POLLOUT) != 0 ? EPOLLOUT : 0U);
  if (events != watch.connection->events) {
    watch.connection->events = events;
    epoll_event event{.events = events, .data = {.ptr = &watch}};
    epoll_ctl(poll_, EPOLL_CTL_MOD, watch.connection->socket, &event);
  }
}

int BareServer::receive(sd_bus_message* call, void* connection, sd_bus_error*) {
  auto& receiver = *static_cast<Connection*>(connection);
  std::uint8_t type = 0;
  sd_bus_message_get_type(call, &type);
  if (type != SD_BUS_MESSAGE_METHOD_CALL) {
    return 0;
  }
  receiver.server.handler_(receiver.number, call);
  return 1;
}

void BareServer::send(sd_bus_message* answer) {
  must(sd_bus_send(sd_bus_message_get_bus(answer), answer, nullptr), "an answer");
  sd_bus_message_unref(answer);
}

}  // namespace kelvane::bench
