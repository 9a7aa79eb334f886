// SPDX-License-Identifier: Apache-2.0
// The bus library with nothing round it: what any program that speaks D-Bus pays at least.
#include "bench/BareBus.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kelvane::bench {

namespace {

/// More than anybody has waiting in a measurement.
constexpr int backlog = 4096;

[[noreturn]] void fail(const char* what, int error) {
  std::fprintf(stderr, "bench: %s: %s\n", what, std::strerror(error));
  std::exit(EXIT_FAILURE);
}

}  // namespace

void must(int result, const char* what) {
  if (result < 0) {
    fail(what, -result);
  }
}

int mustCall(int result, const char* what) {
  if (result < 0) {
    fail(what, errno);
  }
  return result;
}

std::uint64_t nanosecondsNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

Bus connectTo(const std::string& path, bool isBroker) {
  sd_bus* made = nullptr;
  must(sd_bus_new(&made), "a bus object");
  Bus bus(made);
  must(sd_bus_set_address(bus.get(), ("unix:path=" + path).c_str()), "an address");
  must(sd_bus_negotiate_fds(bus.get(), 1), "passing descriptors");
  must(sd_bus_set_bus_client(bus.get(), isBroker ? 1 : 0), "being a client");
  must(sd_bus_start(bus.get()), path.c_str());
  while (sd_bus_is_ready(bus.get()) <= 0) {
    const int result = sd_bus_process(bus.get(), nullptr);
    must(result, path.c_str());
    if (result == 0) {
      must(sd_bus_wait(bus.get(), UINT64_MAX), path.c_str());
    }
  }
  return bus;
}

Bus serveOn(int socket) {
  sd_bus* made = nullptr;
  sd_id128_t id;
  must(sd_bus_new(&made), "a bus object");
  Bus bus(made);
  must(sd_id128_randomize(&id), "an identifier");
  must(sd_bus_set_fd(bus.get(), socket, socket), "a socket");
  must(sd_bus_set_server(bus.get(), 1, id), "being a server");
  must(sd_bus_negotiate_fds(bus.get(), 1), "passing descriptors");
  must(sd_bus_set_sender(bus.get(), ":1.0"), "a sender");
  must(sd_bus_start(bus.get()), "a server");
  return bus;
}

int listenAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    fail(path.c_str(), ENAMETOOLONG);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  unlink(path.c_str());
  const int socket = mustCall(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "a socket");
  mustCall(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), path.c_str());
  mustCall(listen(socket, backlog), path.c_str());
  return socket;
}

void raiseDescriptorLimit() {
  rlimit limit{};
  mustCall(getrlimit(RLIMIT_NOFILE, &limit), "the limit of descriptors");
  limit.rlim_cur = limit.rlim_max;
  mustCall(setrlimit(RLIMIT_NOFILE, &limit), "the limit of descriptors");
}

}  // namespace kelvane::bench
