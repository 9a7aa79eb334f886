// SPDX-License-Identifier: Apache-2.0
// Requests that a purge's services have not been sent when the purge ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "operations/KelvanePurgeOperation.h"
#include "platform/Clock.h"
#include "protocols/Keys.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using testing::ElementsAre;

constexpr char identifier[] = "com.example.described";

class ARequestOfAPurge : public OperationTest {
 protected:
  /// Purges what a service has, which needs this long to start, for two seconds.
  void purgeOfServiceThatStartsIn(ScriptedService& service, unsigned microseconds) {
    simulation->ipc().onDemand(identifier, [&service, microseconds] {
      clock::sleepMicroseconds(microseconds);
      service.listenByName();
    });
    const auto record = std::make_shared<KLService>(identifier);
    record->setDoesPurge(true);
    KelvanePurgeOperation::initWithInfo(
        Value::Dictionary{{keys::volume, volume}, {keys::amount, 100}, {keys::urgency, 1}}, tableOf({record}))
        ->startOperation([](const Value&) {});
  }
};

TEST_F(ARequestOfAPurge, ReachesAServiceThatStartsWhileThePurgeLasts) {
  run([&] {
    ScriptedService service(identifier);
    service.onPurge = ScriptedService::gives(1);
    purgeOfServiceThatStartsIn(service, 1'000'000);
    EXPECT_THAT(service.calls(), ElementsAre("servicePurge 1"));
  });
}

TEST_F(ARequestOfAPurge, IsNeverSentToAServiceThatStartsWhenThePurgeHasEnded) {
  for (std::uint64_t seed = 0; seed < 30; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          ScriptedService service(identifier);
          purgeOfServiceThatStartsIn(service, 10'000'000);
          EXPECT_THAT(service.calls(), ElementsAre());
          clock::sleepMicroseconds(20'000'000);
          simulation->settle();
          EXPECT_THAT(service.calls(), ElementsAre("serviceCancelPurge"));
        },
        seed);
  }
}

}  // namespace
}  // namespace kelvane::test
