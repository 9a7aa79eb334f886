// SPDX-License-Identifier: Apache-2.0
// What every test of the state's durability begins and ends with.
#include "tests/durability/DurabilityTest.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::test {

namespace {

constexpr char diskImage[] = "/run/state.image";
constexpr std::size_t diskBytes = 48 * mebibyte;
constexpr std::uint64_t clients = 4;
/// What is acknowledged at most before the daemon dies, but for what is acknowledged meanwhile.
constexpr std::uint64_t acknowledgements = 40;
/// A little longer than a start takes.
constexpr std::uint64_t startMicroseconds = sanitizers.empty() ? 4000 : 60'000;

/// Passes a time too short for a timer.
void spin(std::uint64_t microseconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds);
  while (std::chrono::steady_clock::now() < end) {
  }
}

}  // namespace

void DurabilityTest::SetUp() {
  HostileTest::SetUp();
  writeFile(std::string(entitlementRules) + "queries.plist", "{ User = 0; Entitlements = (PURGEABLE_ENTITLEMENT); }");
  hasDisk_ = hasOtherUsers() && makeDisk(diskImage, diskBytes) && mountDisk(diskImage, stateDirectory);
  if (!hasDisk_) {
    std::cerr << "No loop devices: tmpfs takes the place of ext4, and the power does not fail." << std::endl;
    ASSERT_EQ(mount("test", stateDirectory, "tmpfs", 0, "size=32m"), 0);
  }
}

void DurabilityTest::TearDown() {
  HostileTest::TearDown();
  EXPECT_EQ(umount(stateDirectory), 0);
  if (HasFailure()) {
    std::cerr << "Its choices again: KELVANE_TEST_SEED=" << seed() << std::endl;
  }
}

void DurabilityTest::kill() {
  daemon_.send(SIGKILL);
  EXPECT_EQ(daemon_.wait(), "signal 9");
}

void DurabilityTest::losePower() {
  for (StateWriter& writer : writers_) {
    writer.expectErrors();
  }
  EXPECT_TRUE(!hasDisk_ || test::losePower(stateDirectory));
  kill();
  if (hasDisk_) {
    EXPECT_EQ(umount(stateDirectory), 0);
    ASSERT_TRUE(mountDisk(diskImage, stateDirectory));
  }
}

void DurabilityTest::removeStores() {
  std::filesystem::remove_all(std::string(stateDirectory) + "/preferences");
  const FileDescriptor disk(open(stateDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(syncfs(disk.get()), 0);
}

void DurabilityTest::startInVain() {
  daemon_.launch();
  spin(chance_.upTo(startMicroseconds));
}

void DurabilityTest::liveAndDie(int lives, std::size_t mostBytes, const std::function<void()>& end) {
  for (std::uint64_t number = 1; number <= clients; ++number) {
    writers_.emplace_back("client" + std::to_string(number), number, mostBytes, progress_);
  }
  for (int life = 0; life < lives && !HasFailure(); ++life) {
    SCOPED_TRACE("life " + std::to_string(life));
    if (chance_.oneIn(10)) {
      startInVain();
      end();
    } else {
      liveOnce(end);
    }
  }
  startDaemon();
  expectWhatWasAcknowledged();
  std::uint64_t acknowledged = 0;
  for (const StateWriter& writer : writers_) {
    acknowledged += writer.acknowledged();
  }
  // Else there was nothing to lose.
  EXPECT_GT(acknowledged, static_cast<std::uint64_t>(lives));
  EXPECT_GT(record_.given(), 0U);
  RecordProperty("acknowledged", std::to_string(acknowledged));
  RecordProperty("answers", std::to_string(record_.given()));
}

void DurabilityTest::liveOnce(const std::function<void()>& end) {
  startDaemon();
  ASSERT_TRUE(daemon_.isRunning());
  expectWhatWasAcknowledged();
  progress_.restart();
  record_.begin();
  for (StateWriter& writer : writers_) {
    writer.begin();
  }
  EXPECT_TRUE(progress_.reaches(static_cast<int>(chance_.upTo(acknowledgements))));
  spin(chance_.upTo(1000));
  end();
  for (StateWriter& writer : writers_) {
    writer.join();
  }
  record_.join();
}

void DurabilityTest::expectWhatWasAcknowledged() {
  const Value::Dictionary state = StateClient().all();
  for (StateWriter& writer : writers_) {
    EXPECT_TRUE(writer.agreesWith(state));
  }
  EXPECT_TRUE(record_.agreesWith(state));
  EXPECT_FALSE(std::filesystem::exists(std::string(storeDirectory) + ".damaged-1"));
}

}  // namespace kelvane::test
