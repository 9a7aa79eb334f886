// SPDX-License-Identifier: Apache-2.0
// Check-ins whose pings have a limit in the settings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "platform/Clock.h"
#include "protocols/Keys.h"
#include "support/Settings.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint32_t second = 1'000'000;
constexpr std::uint32_t limitSeconds = 30;

class APingWithALimit : public DaemonTest {
 protected:
  void SetUp() override { settings.pingLimitSeconds = limitSeconds; }
  void TearDown() override { settings.pingLimitSeconds = 0; }

  /// Whether a purge is answered, which needs the queue that pings hold.
  bool purges() {
    const Value info = Value::Dictionary{{keys::volume, volume}, {keys::amount, 0}, {keys::urgency, 1}};
    return TestClient().purge(info).isDictionary();
  }
  std::vector<std::string> warnings() {
    std::vector<std::string> texts = log().texts(3);
    std::erase_if(texts, [](const std::string& text) { return text.find("ping") == std::string::npos; });
    return texts;
  }
};

TEST_F(APingWithALimit, HoldsTheQueueForNoLongerThanThatAndCutsTheServiceOff) {
  runDaemon([&] {
    ScriptedService silent("com.example.silent");
    silent.onPing = ScriptedService::silence();
    const auto answer = TestClient().checkIn("com.example.silent", silent.endpoint(), Value::Dictionary{});
    clock::sleepMicroseconds((limitSeconds - 1) * second);
    EXPECT_FALSE(answer->arrived);
    EXPECT_TRUE(kelvane->services()->contains("com.example.silent"));
    clock::sleepMicroseconds(second);
    simulation->settle();
    EXPECT_TRUE(answer->arrived);
    EXPECT_FALSE(recordOf("com.example.silent"));
    EXPECT_TRUE(purges());
    EXPECT_THAT(warnings(), ElementsAre(HasSubstr("com.example.silent has not answered its ping: ")));
  });
}

TEST_F(APingWithALimit, OfAServiceThatDiesBeforeItsPongHoldsNothing) {
  runDaemon([&] {
    ScriptedService dead("com.example.dead");
    dead.onPing = ScriptedService::dies();
    const auto answer = TestClient().checkIn("com.example.dead", dead.endpoint(), Value::Dictionary{});
    simulation->settle();
    EXPECT_TRUE(answer->arrived);
    EXPECT_FALSE(recordOf("com.example.dead"));
    EXPECT_TRUE(purges());
  });
}

TEST_F(APingWithALimit, ThatIsAnsweredInTimeLeavesTheServiceAsItIs) {
  runDaemon([&] {
    ScriptedService slow("com.example.slow");
    std::optional<ipc::Reply> pong;
    slow.onPing = [&](const ScriptedService::Request& request) { pong = request.reply; };
    const auto answer = TestClient().checkIn("com.example.slow", slow.endpoint(), Value::Dictionary{{"PURGE", true}});
    clock::sleepMicroseconds((limitSeconds - 1) * second);
    pong->send();
    clock::sleepMicroseconds(10 * limitSeconds * second);
    EXPECT_TRUE(answer->arrived);
    ASSERT_TRUE(recordOf("com.example.slow"));
    EXPECT_TRUE(recordOf("com.example.slow")->doesPurge());
    EXPECT_TRUE(warnings().empty());
  });
}

}  // namespace
}  // namespace kelvane::test
