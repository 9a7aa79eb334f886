// SPDX-License-Identifier: Apache-2.0
// What every test of hostile peers begins and ends with.
#include "tests/hostile/HostileTest.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"
#include "tests/linux/testing/Eventually.h"

namespace kelvane::test {

namespace {

/// More would be of no use to a reader.
constexpr std::size_t shownLogBytes = 16 * 1024;

}  // namespace

std::uint64_t availableBytes() {
  struct statvfs status {};
  EXPECT_EQ(statvfs(volume, &status), 0);
  return std::uint64_t{status.f_bavail} * status.f_frsize;
}

bool hasOtherUsers() {
  const char* const kind = std::getenv("KELVANE_SANDBOX");
  return kind != nullptr && std::string_view(kind) == "root";
}

void writeFile(const std::string& path, std::string_view contents) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << contents;
  ASSERT_TRUE(file.flush().good()) << path;
}

void HostileTest::entitleThisUser() {
  writeFile(std::string(entitlementRules) + "root.plist",
            "{ User = 0; Entitlements = (CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT, PURGE_ENTITLEMENT, "
            "PURGEABLE_ENTITLEMENT, ITEMIZED_PURGEABLE_ENTITLEMENT); }");
}

void HostileTest::SetUp() {
  ASSERT_NE(std::getenv("KELVANE_SANDBOX"), nullptr) << "It would clear away what is this system's own";
  std::filesystem::remove_all("/run/test");
  for (const char* directory : {"/run/kelvane", descriptions, entitlementRules, "/var/lib/kelvane"}) {
    std::filesystem::create_directories(directory);
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      std::filesystem::remove_all(entry);
    }
  }
  entitleThisUser();
  std::filesystem::create_directories(volume);
  ASSERT_EQ(mount("test", volume, "tmpfs", 0, "size=16m"), 0);
}

void HostileTest::TearDown() {
  if (daemon_.isRunning()) {
    purgeForAnotherClient();
  }
  EXPECT_TRUE(daemon_.isRunning()) << daemon_.wait();
  if (daemon_.isRunning()) {
    daemon_.send(SIGTERM);
    EXPECT_EQ(daemon_.wait(), "exit 0");
  }
  umount2(volume, MNT_DETACH);
  if (HasFailure()) {
    const std::string log = daemon_.log();
    std::cerr << "The daemon's log:\n" << log.substr(log.size() - std::min(log.size(), shownLogBytes)) << std::endl;
  }
}

void HostileTest::purgeForAnotherClient() const {
  const BehavingService service("com.example.behaving", 4 * mebibyte);
  Client client;
  const std::uint64_t goal = availableBytes() + mebibyte;
  const std::vector<Entry> time = requests_ == 1 ? std::vector{untilAnswered()} : std::vector<Entry>();
  for (int request = 0; request < requests_ && availableBytes() < goal; ++request) {
    const Value result = client.purge(purgeOf(goal - availableBytes(), time));
    EXPECT_GT(result[keys::amount].uint64Value(), 0U) << result.description();
  }
  EXPECT_GE(availableBytes(), goal);
}

bool HostileTest::eventuallyLogs(const std::string& text) const {
  return eventually([&] { return daemon_.log().find(text) != std::string::npos; });
}

void HostileServiceTest::SetUp() {
  HostileTest::SetUp();
  startDaemon();
  service_.emplace("com.example.hostile");
  service_->checkIn();
}

void HostileServiceTest::TearDown() {
  service_.reset();
  HostileTest::TearDown();
}

void HostileServiceTest::expectDeathBySignalIn(const std::string& member, const std::function<void()>& ask) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor reading(ends[0]);
  FileDescriptor writing(ends[1]);
  // Nor must the other process keep it alive.
  service_->hangUp();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Service mortal("com.example.mortal");
    mortal.checkIn();
    [[maybe_unused]] const ssize_t told = write(writing.get(), "x", 1);
    const Message call = mortal.expect(member);
    raise(SIGKILL);
  }
  writing = FileDescriptor();
  char ignored = 0;
  ASSERT_EQ(read(reading.get(), &ignored, 1), 1);
  ask();
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

Message HostileServiceTest::nextPurge(Client& client, std::vector<Entry> more) {
  EXPECT_TRUE(client.send("clientPurge", purgeOf(mebibyte, std::move(more))));
  return service_->expect("servicePurge");
}

}  // namespace kelvane::test
