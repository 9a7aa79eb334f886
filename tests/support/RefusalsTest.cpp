// SPDX-License-Identifier: Apache-2.0
// What the log is told of peers that may not do what they want, and how often.
#include "support/Refusals.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Limits.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

class ARefusal : public OperationTest {
 protected:
  static ipc::Peer peerOf(unsigned uid) {
    const simulated::ActingAs process({.uid = uid});
    const auto listener = ipc::Listener::anonymous(KelvaneServiceProtocol::interface, [](const ipc::Request&) {});
    return ipc::Connection::toEndpoint(*listener.endpoint()).peer();
  }
  void refuse(unsigned uid, const std::string& entitlement = "X") {
    refusals.tellLack("function", "request", peerOf(uid), entitlement);
  }

  Refusals refusals;
};

TEST_F(ARefusal, SaysWhoLacksWhatAndWhatWouldGiveIt) {
  run([&] {
    refuse(7);
    refusals.tellLeftOut("function", peerOf(8), "clientPurge");
    EXPECT_EQ(log().texts(3),
              (std::vector<std::string>{
                  "function refused a request: pid 100, uid 7 lacks X; a rule in /etc/kelvane/entitlements.d gives it, "
                  "such as { User = 7; Entitlements = (X); }",
                  "function refused a request: pid 100, uid 8 meets no rule that allows this clientPurge; a rule in "
                  "/etc/kelvane/entitlements.d does whose Members, Identifiers and StateKeys do not leave it out"}));
  });
}

TEST_F(ARefusal, IsToldOnceInAnIntervalAndThenWithTheirNumber) {
  run([&] {
    for (int time = 0; time < 100; ++time) {
      refuse(7);
    }
    EXPECT_EQ(log().texts(3).size(), 1u);
    simulation->advance(limits::refusalLogInterval);
    refuse(7);
    refuse(7);
    EXPECT_EQ(log().texts(3).size(), 2u);
    EXPECT_EQ(log().texts(3).back().find("function refused 100 requests, the last: pid 100, uid 7 lacks X; "), 0u);
    simulation->advance(limits::refusalLogInterval);
    refuse(7);
    EXPECT_EQ(log().texts(3).back().find("function refused 2 requests, the last: "), 0u);
  });
}

TEST_F(ARefusal, OfOneUserHidesNoOtherUsersAndNoneForAnotherReason) {
  run([&] {
    refuse(7);
    refuse(7);
    refuse(8);
    refuse(7, "Y");
    EXPECT_EQ(log().texts(3).size(), 3u);
  });
}

TEST_F(ARefusal, OfMoreUsersThanAreToldApartIsToldOfAllOfThemTogether) {
  run([&] {
    for (unsigned uid = 0; uid < 2 * limits::toldRefusals; ++uid) {
      refuse(uid);
    }
    EXPECT_EQ(log().texts(3).size(), limits::toldRefusals + 1);
    simulation->advance(limits::refusalLogInterval);
    refuse(1'000'000);
    EXPECT_EQ(log().texts(3).back().find("function refused " + std::to_string(limits::toldRefusals) + " requests, "),
              0u);
  });
}

}  // namespace
}  // namespace kelvane::test
