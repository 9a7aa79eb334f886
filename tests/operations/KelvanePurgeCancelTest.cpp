// SPDX-License-Identifier: Apache-2.0
// Cancelling a purge: when it ends, what its result says, and whom it asks to stop.
#include <gtest/gtest.h>

#include <utility>

#include "operations/KelvanePurgeOperation.h"
#include "protocols/Keys.h"
#include "tests/harness/BeforeEachMessage.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

class ACancelledPurge : public OperationTest {
 protected:
  static Value infoFor(std::uint64_t amount, Value::Dictionary entries = {}) {
    entries[keys::volume] = volume;
    entries[keys::amount] = amount;
    return entries;
  }

  /// Runs a purge to its end and gives what its completion was called with last.
  Value purge(const Value& info, const ServiceTable& services) {
    operation = KelvanePurgeOperation::initWithInfo(info, services);
    const auto last = std::make_shared<Value>();
    operation->startOperation([last](const Value& result) { *last = result; });
    return *last;
  }

  std::shared_ptr<KelvanePurgeOperation> operation;
};

TEST_F(ACancelledPurge, SaysSoAndHasNoOperationInfoWhenItHadNotBegun) {
  run([&] {
    ScriptedService service("a");
    operation = KelvanePurgeOperation::initWithInfo(infoFor(100), tableOf({service.record()}));
    operation->cancelOperation();
    Value result;
    operation->startOperation([&](const Value& value) { result = value; });
    EXPECT_EQ(result["KELVANE_OPERATION_CANCELLED"], Value(true));
    for (int urgency = 1; urgency <= 4; ++urgency) {
      EXPECT_FALSE(result.contains("KELVANE_URGENCY_" + std::to_string(urgency) + "_OPERATION_INFO"));
    }
    EXPECT_TRUE(service.calls().empty());
    EXPECT_TRUE(operation->cancel());
  });
}

TEST_F(ACancelledPurge, EndsWithItsPassAndAsksThoseInFlightToStop) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request&) { operation->cancelOperation(); };
    operation = KelvanePurgeOperation::initWithInfo(infoFor(100), tableOf({service.record()}));
    Value result;
    operation->startOperation([&](const Value& value) { result = value; });
    EXPECT_EQ(result["KELVANE_OPERATION_CANCELLED"], Value(true));
    EXPECT_TRUE(result.contains("KELVANE_URGENCY_1_OPERATION_INFO"));
    EXPECT_FALSE(result.contains("KELVANE_URGENCY_2_OPERATION_INFO"));
    EXPECT_NE(result["KELVANE_URGENCY_1_OPERATION_INFO"]["KELVANE_OPERATION_STATS_URGENCY_1"].description().find(
                  "cancel: TRUE"),
              std::string::npos);
    simulation->settle();
    // Once by the cancel, once because the purge ended short of its amount with the service in flight.
    EXPECT_EQ(service.count("serviceCancelPurge"), 2u);
  });
}

TEST_F(ACancelledPurge, WaitsOutItsLastPassAndThenDoesNotSaySo) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request&) { operation->cancelOperation(); };
    const std::uint64_t start = clock::ticks();
    const Value result = purge(infoFor(100, {{keys::urgency, 1}}), tableOf({service.record()}));
    EXPECT_EQ(secondsSince(start), 2.0);
    EXPECT_TRUE(operation->cancel());
    EXPECT_FALSE(result.contains("KELVANE_OPERATION_CANCELLED"));
  });
}

TEST_F(ACancelledPurge, KeepsNobodyWaitingNotEvenAnItemOfItsCollectionQueue) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::silence();
    bool isCancelled = false;
    const BeforeEachMessage hook([&](std::string_view format) {
      // Written by the update of who is in flight.
      if (format == "%s %s %@" && !std::exchange(isCancelled, true)) {
        operation->cancelOperation();
        EXPECT_TRUE(operation->cancel());
      }
    });
    purge(infoFor(100, {{keys::urgency, 1}}), tableOf({service.record()}));
    simulation->settle();
    EXPECT_TRUE(isCancelled);
    EXPECT_GE(service.count("serviceCancelPurge"), 1u);
  });
}

}  // namespace
}  // namespace kelvane::test
