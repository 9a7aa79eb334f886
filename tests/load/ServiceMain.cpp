// SPDX-License-Identifier: Apache-2.0
// load_service IDENTIFIER CAPACITY ACCOUNT SEED: a service in a process of its own.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "protocols/Keys.h"
#include "tests/hostile/Service.h"
#include "tests/load/CachingService.h"
#include "tests/load/ServiceProcesses.h"

namespace {

using namespace kelvane;

/// A call out of so many is the last.
constexpr unsigned callsToADeath = 200;

int fail(const std::string& identifier, const char* what) {
  std::fprintf(stderr, "%s: %s\n", identifier.c_str(), what);
  return EXIT_FAILURE;
}

/// Until standard input ends, or a signal ends it. Tells on standard output that its check-in was answered; before that
/// it must not go, for the daemon waits for the answer to its ping.
int serve(test::CachingService& service) {
  test::Client client;
  if (!client.send("clientCheckin",
                   test::checkin(service.identifier(), service.open().get(), test::CachingService::capabilities()))) {
    return fail(service.identifier(), "its check-in could not be sent");
  }
  bool isCheckedIn = false;
  for (;;) {
    std::array<pollfd, 3> states = {
        {{isCheckedIn ? STDIN_FILENO : -1, POLLIN, 0}, {client.socket(), POLLIN, 0}, {service.socket(), POLLIN, 0}}};
    if (poll(states.data(), states.size(), -1) < 0) {
      return fail(service.identifier(), "it cannot wait");
    }
    if (states[0].revents != 0) {
      return EXIT_SUCCESS;
    }
    if (!service.serve()) {
      return fail(service.identifier(), "the daemon has hung up on it");
    }
    if (states[1].revents != 0) {
      if (isCheckedIn || client.nextResult()[keys::id] != Value(service.identifier())) {
        return fail(service.identifier(), "its check-in was not answered as it should be");
      }
      if (!service.wasPinged()) {
        return fail(service.identifier(), "it was not pinged");
      }
      isCheckedIn = true;
      service.mayDie(callsToADeath, [] { raise(SIGKILL); });
      if (write(STDOUT_FILENO, "x", 1) != 1) {
        return fail(service.identifier(), "it cannot tell that it serves");
      }
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 5) {
    return EXIT_FAILURE;
  }
  test::Ledger ledger(test::ledgerFile);
  test::CachingService service(arguments[1], std::strtoull(arguments[2], nullptr, 10), ledger,
                               std::strtoull(arguments[3], nullptr, 10),
                               static_cast<unsigned>(std::strtoul(arguments[4], nullptr, 10)));
  return serve(service);
}
