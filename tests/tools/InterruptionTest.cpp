// SPDX-License-Identifier: Apache-2.0
// SIGINT and SIGTERM as something to wait for.
#include "tools/kelvanectl/Interruption.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace kelvane::ctl {
namespace {

using namespace std::chrono_literals;

TEST(AnInterruption, ComesWithASignal) {
  const Interruption interruption;
  EXPECT_FALSE(interruption.comesWithin(0ms));
  raise(SIGTERM);
  EXPECT_TRUE(interruption.comesWithin(0ms));
}

}  // namespace
}  // namespace kelvane::ctl
