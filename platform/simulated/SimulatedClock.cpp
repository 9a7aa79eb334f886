// SPDX-License-Identifier: Apache-2.0
// The clock in virtual time.
#include "platform/simulated/SimulatedClock.h"

#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

namespace simulated {

std::uint64_t Clock::ticks(std::uint64_t nanoseconds) const {
  const clock::Timebase base = timebase_.value_or(clock::Timebase{1, 1});
  // Whole and broken units apart, so that the product does not overflow.
  return nanoseconds / base.numerator * base.denominator +
         nanoseconds % base.numerator * base.denominator / base.numerator;
}

void Clock::setDate(Date date, std::uint64_t nanoseconds) {
  dateAtZero_ = date.secondsSince1970 - static_cast<double>(nanoseconds) / 1e9;
}

Date Clock::date(std::uint64_t nanoseconds) const {
  return Date{dateAtZero_ + static_cast<double>(nanoseconds) / 1e9};
}

}  // namespace simulated

std::optional<clock::Timebase> clock::timebase() {
  return simulated::world().clock.timebase();
}

std::uint64_t clock::ticks() {
  const simulated::World& world = simulated::world();
  return world.clock.ticks(world.scheduler.now());
}

Date clock::now() {
  const simulated::World& world = simulated::world();
  return world.clock.date(world.scheduler.now());
}

void clock::sleepMicroseconds(std::uint32_t microseconds) {
  simulated::Scheduler& scheduler = simulated::scheduler();
  const std::uint64_t deadline = scheduler.deadlineIn(std::int64_t{microseconds} * 1000);
  scheduler.yield();
  simulated::WaitList nobody;
  while (scheduler.now() < deadline) {
    scheduler.wait(nobody, "the end of a sleep", {}, deadline);
  }
}

}  // namespace kelvane
