// SPDX-License-Identifier: Apache-2.0
// State writes of users who write more often than the settings let them.
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/Clock.h"
#include "protocols/KelvaneClientProtocol.h"
#include "support/Settings.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

namespace protocol = KelvaneClientProtocol;

constexpr int perSecond = 10;

class AStateWrite : public DaemonTest {
 protected:
  void SetUp() override { settings.stateWritesPerSecond = perSecond; }
  void TearDown() override { settings.stateWritesPerSecond = 0; }

  /// Has a client write so often, one write after the other, and gives how many seconds that takes.
  double secondsFor(int writes, const TestClient& client) {
    const std::uint64_t start = clock::ticks();
    for (int write = 0; write < writes; ++write) {
      EXPECT_EQ(client.setState("key", write), std::nullopt);
    }
    return secondsSince(start);
  }
};

TEST_F(AStateWrite, WaitsForItsTurnAndIsNeverRefused) {
  runDaemon([&] {
    EXPECT_NEAR(secondsFor(perSecond, clientOf("client")), 0.0, 1e-3);
    EXPECT_NEAR(secondsFor(2 * perSecond, clientOf("client")), 2.0, 1e-3);
    EXPECT_EQ(TestClient().state("key"), Value(2 * perSecond - 1));
  });
}

TEST_F(AStateWrite, OfOneUserWaitsForItsTurnOnWhateverConnectionItComes) {
  runDaemon([&] {
    const std::uint64_t start = clock::ticks();
    std::vector<std::shared_ptr<Answer>> answers;
    for (int write = 0; write < 3 * perSecond; ++write) {
      answers.push_back(clientOf("client").send(protocol::clientSetState, {Value(1), Value("key")}));
    }
    const auto arrived = [&] {
      return std::count_if(answers.begin(), answers.end(), [](const auto& answer) { return answer->arrived; });
    };
    simulation->settle();
    EXPECT_EQ(arrived(), perSecond);
    EXPECT_EQ(secondsSince(start), 0.0);
    simulation->advance(std::chrono::milliseconds(1050));
    EXPECT_EQ(arrived(), 2 * perSecond);
    simulation->advance(std::chrono::seconds(1));
    EXPECT_EQ(arrived(), 3 * perSecond);
  });
}

TEST_F(AStateWrite, HoldsUpNeitherOtherUsersNorOtherRequests) {
  runDaemon([&] {
    const TestClient writer = clientOf("client");
    secondsFor(perSecond, writer);
    const auto late = writer.send(protocol::clientSetState, {Value(1), Value("key")});
    simulation->settle();
    EXPECT_FALSE(late->arrived);
    const std::uint64_t start = clock::ticks();
    EXPECT_EQ(clientOf("client").state("key"), Value(perSecond - 1));
    const simulated::ActingAs another({.uid = 1001, .user = "client"});
    secondsFor(perSecond, TestClient());
    EXPECT_EQ(secondsSince(start), 0.0);
  });
}

TEST_F(AStateWrite, OfRootNeverWaits) {
  runDaemon([&] { EXPECT_EQ(secondsFor(10 * perSecond, TestClient()), 0.0); });
}

TEST_F(AStateWrite, NeverWaitsAsBuiltIn) {
  settings.stateWritesPerSecond = 0;
  runDaemon([&] { EXPECT_EQ(secondsFor(100 * perSecond, clientOf("client")), 0.0); });
}

}  // namespace
}  // namespace kelvane::test
