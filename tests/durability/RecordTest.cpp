// SPDX-License-Identifier: Apache-2.0
// What services have answered, and a daemon that ends the moment after.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "protocols/Keys.h"
#include "support/KelvaneRecentInfo.h"
#include "tests/durability/DurabilityTest.h"

namespace kelvane {
namespace {

using test::info;
using test::Message;
using test::reply;
using test::StateClient;

constexpr char identifier[] = "com.example.remembered";

/// A service answers what could be freed, and the client that asked has the answer.
void answerAQuery(std::uint64_t amount) {
  test::Service service(identifier);
  service.checkIn();
  StateClient client;
  ASSERT_TRUE(client.send("clientPurgeableSpace", info({{keys::volume, test::volume}, {keys::urgency, 1}})));
  const Message asked = service.expect("servicePurgeable");
  ASSERT_TRUE(asked);
  service.bus().answer(asked, reply({{keys::amount, amount}}));
  ASSERT_EQ(client.nextResult()[identifier], Value(amount));
}

/// What the store remembers of the service; absent when nothing.
Value remembered() {
  const Value stored = StateClient().get(keys::recentServiceStats);
  const auto record = stored.isData() ? KelvaneRecentInfo::fromArchive(*stored.data()) : nullptr;
  if (!record || record->volumes() == nullptr || !record->volumes()->contains(test::volume)) {
    return {};
  }
  const auto* services = record->volumes()->at(test::volume).services();
  const auto answer = services->find(identifier);
  return answer == services->end() ? Value() : answer->second.amount();
}

class AnAnsweredQuery : public test::DurabilityTest {
 protected:
  /// Ends the daemon after each of some answers, which the next one must know, and has it forget them again.
  void answerAndEnd(int signal) {
    for (std::uint64_t amount = 1; amount <= static_cast<std::uint64_t>(test::scaled(20)) && !HasFailure(); ++amount) {
      SCOPED_TRACE(amount);
      startDaemon();
      EXPECT_EQ(StateClient().unset(keys::recentServiceStats).error, "");
      answerAQuery(amount);
      daemon_.send(signal);
      EXPECT_EQ(daemon_.wait(), signal == SIGTERM ? "exit 0" : "signal 9");
      startDaemon();
      EXPECT_EQ(remembered(), Value(amount));
      kill();
    }
    startDaemon();
  }
};

TEST_F(AnAnsweredQuery, IsRememberedHoweverSoonTheDaemonIsKilled) {
  answerAndEnd(SIGKILL);
}

TEST_F(AnAnsweredQuery, IsRememberedHoweverSoonTheDaemonIsTerminated) {
  answerAndEnd(SIGTERM);
}

TEST_F(AnAnsweredQuery, TakesNothingThatWasAcknowledgedWithItWhenThePowerFails) {
  startDaemon();
  EXPECT_EQ(StateClient().set("key", "acknowledged").error, "");
  answerAQuery(7);
  losePower();
  startDaemon();
  EXPECT_EQ(StateClient().get("key"), Value("acknowledged"));
}

class ASecondDaemon : public test::DurabilityTest {};

TEST_F(ASecondDaemon, SaysSoAndEndsAndChangesNothing) {
  startDaemon();
  EXPECT_EQ(StateClient().set("key", "first").error, "");
  test::DaemonProcess second;
  const std::size_t logged = second.log().size();
  second.launch();
  EXPECT_EQ(second.wait(), "exit 1");
  EXPECT_NE(second.log().find("another daemon is running: locking /var/lib/kelvane/preferences"), std::string::npos)
      << second.log().substr(std::min(logged, second.log().size()));
  EXPECT_EQ(StateClient().get("key"), Value("first"));
  EXPECT_EQ(StateClient().set("key", "still the first's").error, "");
}

class AStoreOfALaterVersion : public test::DurabilityTest {};

TEST_F(AStoreOfALaterVersion, IsDoneWithoutAndLeftAlone) {
  startDaemon();
  EXPECT_EQ(StateClient().set("key", "kept").error, "");
  kill();
  // A header that says so many bytes is not held against its checksum.
  const std::string slot = std::string(test::storeDirectory) + "/slot-a";
  std::fstream file(slot, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(7) << '2';
  file.seekp(22) << '\1';
  file.close();
  startDaemon();
  EXPECT_EQ(StateClient().get("key"), Value());
  EXPECT_EQ(StateClient().set("key", "lost").error, "") << "as without any store";
  EXPECT_EQ(StateClient().get("key"), Value());
  EXPECT_TRUE(eventuallyLogs("slot-a has format 2, and this version knows 1"));
  EXPECT_TRUE(eventuallyLogs("Unable to initialize user defaults!"));
  EXPECT_FALSE(std::filesystem::exists(std::string(test::storeDirectory) + ".damaged-1"));
  kill();
  std::fstream(slot, std::ios::binary | std::ios::in | std::ios::out).seekp(7) << '1';
  startDaemon();
  EXPECT_EQ(StateClient().get("key"), Value("kept")) << "which the other slot holds";
}

}  // namespace
}  // namespace kelvane
