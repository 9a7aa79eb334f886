// SPDX-License-Identifier: Apache-2.0
// A system that refuses the daemon descriptors, space and readers.
#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <deque>
#include <filesystem>

#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/RawConnection.h"
#include "tests/linux/testing/DatagramSocket.h"
#include "tests/linux/testing/Eventually.h"

namespace kelvane {
namespace {

using test::Client;
using test::eventually;
using test::purgeOf;
using test::RawConnection;

class ASystem : public test::HostileTest {};

/// With a daemon that can have no more than a few descriptors.
class ASystemWithoutDescriptors : public ASystem {
 protected:
  void SetUp() override {
    if (test::sanitizers.find("undefined") != std::string_view::npos) {
      GTEST_SKIP() << "That sanitizer needs descriptors for its own checks and takes their absence for an error";
    }
    ASystem::SetUp();
    startDaemon({.descriptors = descriptors});
  }
  void TearDown() override {
    if (!IsSkipped()) {
      ASystem::TearDown();
    }
  }
  /// Connects more often than the daemon can accept. What is left over waits until others go.
  void takeAllDescriptors() {
    connections_.resize(2 * descriptors);
    // One may be gone again in a moment, such as that of a file being read, and it takes until the daemon accepts the
    // next connection before that has its place. A connection takes two, so that one may be left over.
    using Clock = std::chrono::steady_clock;
    auto fullSince = Clock::now();
    ASSERT_TRUE(eventually([this, &fullSince] {
      if (daemon_.openDescriptors() + 1 < descriptors) {
        fullSince = Clock::now();
      }
      return Clock::now() - fullSince > std::chrono::milliseconds(500);
    }));
    daemon_.limitDescriptors(STDERR_FILENO + 1);
  }
  void giveThemBack() {
    daemon_.limitDescriptors(descriptors);
    connections_.clear();
    EXPECT_TRUE(eventually([this] { return !daemon_.isRunning() || Client().isServed(); }));
  }

 private:
  static constexpr int descriptors = 64;
  std::deque<RawConnection> connections_;
};

TEST_F(ASystemWithoutDescriptors, StillServesTheConnectionsThereAre) {
  Client client;
  // From then on the daemon knows what is mounted, for it could not read that without a descriptor.
  ASSERT_FALSE(client.purge(purgeOf(test::mebibyte)).isAbsent());
  takeAllDescriptors();
  EXPECT_TRUE(client.isServed());
  EXPECT_FALSE(client.purge(purgeOf(test::mebibyte)).isAbsent());
  giveThemBack();
  EXPECT_TRUE(client.isServed());
}

TEST_F(ASystemWithoutDescriptors, CannotCheckInAService) {
  test::Service service("com.example.hostile");
  ASSERT_TRUE(service.isServed());
  takeAllDescriptors();
  service.beginCheckIn();
  // The endpoint is lost on its way.
  const test::Message ping = service.bus().nextCall();
  EXPECT_EQ(ping, nullptr);
  if (ping) {
    service.bus().answer(ping);
  }
  giveThemBack();
}

/// The directory that the daemon publishes in has no block left.
class AFullDirectory : public ASystem {
 protected:
  void SetUp() override {
    ASystem::SetUp();
    ASSERT_EQ(mount("test", "/run/kelvane", "tmpfs", 0, "size=64k"), 0);
  }
  void TearDown() override {
    ASystem::TearDown();
    umount2("/run/kelvane", MNT_DETACH);
  }

  static constexpr char filling[] = "/run/kelvane/filling";
  static void fill() {
    const FileDescriptor file(open(filling, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string page(4096, 'x');
    while (write(file.get(), page.data(), page.size()) > 0) {
    }
    ASSERT_EQ(errno, ENOSPC);
  }
};

TEST_F(AFullDirectory, FromTheStartCostsNoMoreThanNotifications) {
  fill();
  startDaemon();
  EXPECT_TRUE(eventuallyLogs("vox_post failed: No space left on device"));
}

TEST_F(AFullDirectory, CostsNoMoreThanStatistics) {
  startDaemon();
  fill();
  purgeForAnotherClient();
  EXPECT_TRUE(eventuallyLogs(
      "Unable to write /run/kelvane/metrics.prom: writing /run/kelvane/.metrics.prom.new: No space left on device"));
  std::filesystem::remove(filling);
  purgeForAnotherClient();
  EXPECT_TRUE(eventually([] { return std::filesystem::exists("/run/kelvane/metrics.prom"); }));
}

TEST_F(ASystem, ThatDoesNotReadTheLogEndsNobody) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  FileDescriptor reading(ends[0]);
  const FileDescriptor writing(ends[1]);
  startDaemon({.standardError = writing.get()});
  reading = FileDescriptor();
  // Each has a line in the log: there is no number in it.
  Client client;
  for (int line = 0; line < 10; ++line) {
    EXPECT_TRUE(client.purge(purgeOf(0, {{keys::amount, "none"}})).isDictionary());
  }
}

TEST_F(ASystem, WhoseLogIsFullEndsNobody) {
  const FileDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  startDaemon({.standardError = full.get()});
  EXPECT_TRUE(Client().purge(purgeOf(0, {{keys::amount, "none"}})).isDictionary());
}

TEST_F(ASystem, WhoseServiceManagerDoesNotReadHoldsUpNobody) {
  const test::DatagramSocket manager("/run/test/notify");
  startDaemon({.environment = {"NOTIFY_SOCKET=/run/test/notify", "WATCHDOG_USEC=2000"}});
  const FileDescriptor another(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/test/notify"};
  ASSERT_EQ(connect(another.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  // Full of what nobody has read.
  EXPECT_TRUE(eventually([&another] {
    pollfd state{.fd = another.get(), .events = POLLOUT, .revents = 0};
    return poll(&state, 1, 0) == 0;
  }));
  // Long enough for the next that has to wait.
  for (int purge = 0; purge < 10; ++purge) {
    purgeForAnotherClient();
  }
}

TEST_F(ASystem, WhoseClientsGoBeforeTheirAnswersEndsNobody) {
  startDaemon();
  for (int purge = 0; purge < 3; ++purge) {
    Client client;
    ASSERT_TRUE(client.send("clientPurge", purgeOf(test::mebibyte)));
  }
  EXPECT_TRUE(Client().isServed());
}

}  // namespace
}  // namespace kelvane
