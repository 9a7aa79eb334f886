// SPDX-License-Identifier: Apache-2.0
// Calls straight to the services, beside which the daemon's requests to them are measured.
#include "bench/ServiceCalls.h"

#include <utility>

namespace kelvane::bench {

ServiceCalls::ServiceCalls(const std::string& socket, std::size_t services) {
  for (std::size_t number = 0; number < services; ++number) {
    Bus bus = connectTo(socket);
    services_.push_back(bus.get());
    caller_.add(std::move(bus));
  }
  control_ = connectTo(socket);
}

std::uint64_t ServiceCalls::run(const char* member, std::uint64_t calls, const Fill& fill) {
  answers_ = 0;
  const std::uint64_t begin = nanosecondsNow();
  for (std::uint64_t number = 0; number < calls; ++number) {
    sd_bus* const bus = services_[number % services_.size()];
    sd_bus_message* made = nullptr;
    must(sd_bus_message_new_method_call(bus, &made, nullptr, servicePath, serviceInterface, member), "a bare call");
    const Message call(made);
    fill(made);
    must(sd_bus_call_async(bus, nullptr, made, countAnswer, this, UINT64_MAX), "a bare call");
  }
  while (answers_ < calls) {
    caller_.turn(true);
  }
  return nanosecondsNow() - begin;
}

std::uint64_t ServiceCalls::callProcess(const char* member) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* made = nullptr;
  std::uint64_t requests = 0;
  must(sd_bus_call_method(control_.get(), nullptr, servicePath, serviceInterface, member, &error, &made, ""), member);
  const Message answer(made);
  must(sd_bus_message_read(made, "t", &requests), member);
  return requests;
}

int ServiceCalls::countAnswer(sd_bus_message* answer, void* calls, sd_bus_error*) {
  must(-sd_bus_message_get_errno(answer), "a bare call");
  ++static_cast<ServiceCalls*>(calls)->answers_;
  return 1;
}

}  // namespace kelvane::bench
