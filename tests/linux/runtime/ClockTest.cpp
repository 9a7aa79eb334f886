// SPDX-License-Identifier: Apache-2.0
// The tick clock, the date and sleeps.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "platform/Clock.h"

namespace kelvane {
namespace {

using namespace std::chrono_literals;

TEST(TheTickClock, CountsNanosecondsOfTheMonotonicClock) {
  const auto timebase = clock::timebase();
  ASSERT_TRUE(timebase);
  EXPECT_EQ(timebase->numerator, 1U);
  EXPECT_EQ(timebase->denominator, 1U);
  const std::uint64_t before = clock::ticks();
  const auto between = std::chrono::steady_clock::now().time_since_epoch();
  const std::uint64_t after = clock::ticks();
  EXPECT_LE(before, static_cast<std::uint64_t>(std::chrono::nanoseconds(between).count()));
  EXPECT_GE(after, static_cast<std::uint64_t>(std::chrono::nanoseconds(between).count()));
}

TEST(TheDate, IsThatOfTheSystemClock) {
  const std::chrono::duration<double> system = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_NEAR(clock::now().secondsSince1970, system.count(), 60);
}

TEST(ASleep, TakesAtLeastItsTime) {
  for (const std::uint32_t microseconds : {0U, 1U, 999U, 20'000U}) {
    const std::uint64_t start = clock::ticks();
    clock::sleepMicroseconds(microseconds);
    EXPECT_GE(clock::ticks() - start, std::uint64_t{microseconds} * 1000);
  }
}

TEST(ASleep, MayBeLongerThanASecond) {
  const std::uint64_t start = clock::ticks();
  clock::sleepMicroseconds(1'000'001);
  EXPECT_GE(clock::ticks() - start, 1'000'001'000U);
  EXPECT_LT(clock::ticks() - start, 30'000'000'000U);
}

TEST(ASleep, IsNotCutShortBySignals) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction former {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &former), 0);
  std::atomic<bool> over = false;
  std::thread sleeper([&] {
    const std::uint64_t start = clock::ticks();
    clock::sleepMicroseconds(100'000);
    EXPECT_GE(clock::ticks() - start, 100'000'000U);
    over = true;
  });
  while (!over) {
    pthread_kill(sleeper.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  sleeper.join();
  sigaction(SIGUSR1, &former, nullptr);
}

}  // namespace
}  // namespace kelvane
