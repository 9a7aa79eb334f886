// SPDX-License-Identifier: Apache-2.0
// State on a disk without a free block.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/Limits.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"
#include "tests/durability/DurabilityTest.h"

namespace kelvane {
namespace {

using test::dataOf;
using test::StateClient;

/// With a daemon that was there before it was full.
class AFullDisk : public test::DurabilityTest {
 protected:
  void SetUp() override {
    DurabilityTest::SetUp();
    startDaemon();
    EXPECT_EQ(StateClient().set("old", "kept").error, "");
    fillStateDisk();
  }
  void killAndStart() {
    kill();
    startDaemon();
  }
};

TEST_F(AFullDisk, HasNoBlockForAnybody) {
  const FileDescriptor file(
      open((std::string(test::stateDirectory) + "/another").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  errno = 0;
  EXPECT_TRUE(!file || write(file.get(), "x", 1) < 0);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(AFullDisk, TakesAndGivesUpValuesOfAllSizesThatThereIsRoomFor) {
  for (const std::size_t size : {0U, 1U, 27U, 4096U, 65'537U, 120'000U}) {
    SCOPED_TRACE(size);
    const std::string text(size, 'x');
    EXPECT_EQ(StateClient().set("key", text).error, "");
    EXPECT_EQ(StateClient().get("key"), Value(text));
    killAndStart();
    EXPECT_EQ(StateClient().get("key"), Value(text));
    EXPECT_EQ(StateClient().unset("key").error, "");
    EXPECT_EQ(StateClient().get("key"), Value());
    killAndStart();
    EXPECT_EQ(StateClient().all(), (Value::Dictionary{{"old", "kept"}}));
  }
}

TEST_F(AFullDisk, HasRoomForTheLargestRecordOfRecentAnswersBesides) {
  // No client's message is longer.
  constexpr std::size_t largest = limits::requestBytes - 4096;
  EXPECT_EQ(StateClient().set("key", dataOf(200'000)).error, "");
  EXPECT_EQ(StateClient().set(keys::recentServiceStats, dataOf(largest)).error, "");
  killAndStart();
  EXPECT_EQ(StateClient().get("key"), Value(Data(200'000)));
  EXPECT_EQ(StateClient().get(keys::recentServiceStats), Value(Data(largest)));
}

TEST_F(AFullDisk, RefusesWhatItHasNoRoomForAndKeepsWhatIsThere) {
  constexpr std::size_t tooMuch = 600'000;
  StateClient client;
  for (int attempt = 0; attempt < 3; ++attempt) {
    for (const char* key : {"old", "new"}) {
      const auto answer = client.set(key, dataOf(tooMuch));
      EXPECT_EQ(answer.error, "org.freedesktop.DBus.Error.IOError");
      EXPECT_NE(answer.text.find("No space left on device"), std::string::npos) << answer.text;
    }
    EXPECT_EQ(client.all(), (Value::Dictionary{{"old", "kept"}}));
    EXPECT_EQ(client.set("old", "kept").error, "") << "smaller ones still go";
  }
  killAndStart();
  EXPECT_EQ(StateClient().all(), (Value::Dictionary{{"old", "kept"}}));
  std::filesystem::remove(std::string(test::stateDirectory) + "/filling");
  EXPECT_EQ(StateClient().set("new", dataOf(tooMuch)).error, "") << "with space again it goes on";
  killAndStart();
  EXPECT_EQ(StateClient().get("new"), Value(Data(tooMuch)));
}

TEST_F(AFullDisk, LosesNothingWhenTheDaemonIsKilled) {
  kill();
  liveAndDie(test::scaled(100), 2000, [this] { kill(); });
}

TEST_F(AFullDisk, LosesNothingWithThePower) {
  kill();
  liveAndDie(test::scaled(50), 2000, [this] { killOrLosePower(); });
}

}  // namespace
}  // namespace kelvane
