// SPDX-License-Identifier: Apache-2.0
// What is known of the process at the other end.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "platform/linux/ipc/ControlGroup.h"
#include "platform/linux/ipc/PeerState.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

/// A socket and the peer that is known at its other end: this process, or a child that connected it.
class APeer : public testing::Test {
 protected:
  APeer() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    near_ = FileDescriptor(ends[0]);
    far_ = FileDescriptor(ends[1]);
    state_->read(near_.get());
  }

  FileDescriptor near_;
  FileDescriptor far_;
  const std::shared_ptr<ipc::Peer::State> state_ = std::make_shared<ipc::Peer::State>();
  const ipc::Peer peer{state_};
};

TEST_F(APeer, IsAUserByNameAndNumber) {
  EXPECT_TRUE(peer.isUser(std::to_string(getuid())));
  EXPECT_TRUE(peer.isUser(getpwuid(getuid())->pw_name));
  EXPECT_FALSE(peer.isUser(std::to_string(getuid() + 1)));
  EXPECT_FALSE(peer.isUser("no such user"));
  EXPECT_FALSE(peer.isUser(""));
}

TEST_F(APeer, IsAUserByANameThatWasLookedUpJustBefore) {
  const std::string name = getpwuid(getuid())->pw_name;
  EXPECT_TRUE(peer.isUser(name));
  EXPECT_TRUE(peer.isUser(name));
  EXPECT_FALSE(peer.isUser(name + "x"));
}

TEST_F(APeer, IsInItsGroupsByNameAndNumber) {
  EXPECT_TRUE(peer.isInGroup(std::to_string(getgid())));
  EXPECT_TRUE(peer.isInGroup(getgrgid(getgid())->gr_name));
  EXPECT_TRUE(peer.isInGroup(getgrgid(getgid())->gr_name)) << "known by now";
  EXPECT_FALSE(peer.isInGroup("54321"));
  EXPECT_FALSE(peer.isInGroup("no such group"));
}

TEST_F(APeer, RunsItsExecutableWhateverThatIsCalled) {
  const std::string own = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_TRUE(peer.runsExecutable(own));
  const test::TemporaryDirectory directory;
  std::filesystem::create_symlink(own, directory.path("alias"));
  EXPECT_TRUE(peer.runsExecutable(directory.path("alias")));
  std::filesystem::copy_file(own, directory.path("copy"));
  EXPECT_FALSE(peer.runsExecutable(directory.path("copy")));
  EXPECT_FALSE(peer.runsExecutable("/bin/true"));
  EXPECT_FALSE(peer.runsExecutable("/nowhere"));
}

TEST_F(APeer, RunsNothingOnceItsConnectionHasEnded) {
  const std::string own = std::filesystem::read_symlink("/proc/self/exe");
  state_->release();
  EXPECT_FALSE(peer.runsExecutable(own));
  EXPECT_TRUE(peer.isUser(std::to_string(getuid())));
}

TEST_F(APeer, IsDescribedByProcessAndUser) {
  EXPECT_EQ(peer.description(), "pid " + std::to_string(getpid()) + ", uid " + std::to_string(getuid()));
}

TEST_F(APeer, HasNoLabelThatIsEmpty) {
  EXPECT_FALSE(peer.hasSecurityLabel(""));
  EXPECT_FALSE(peer.hasSecurityLabel("no such label"));
}

TEST(APeerThatIsUnknown, MatchesNothing) {
  const ipc::Peer peer(std::make_shared<ipc::Peer::State>());
  EXPECT_FALSE(peer.isUser("4294967295"));
  EXPECT_FALSE(peer.isInGroup("4294967295"));
  EXPECT_FALSE(peer.runsExecutable("/proc/self/exe"));
  EXPECT_FALSE(peer.runsInUnit("any.service"));
  EXPECT_EQ(peer.description(), "nobody");
}

/// A process that connects to a socket and waits until it is killed.
class ChildProcess {
 public:
  explicit ChildProcess(const std::string& path) : pid_(fork()) {
    if (pid_ == 0) {
      const int socket = test::connectedSocket(path);
      while (socket >= 0) {
        pause();
      }
      _exit(1);
    }
  }
  ~ChildProcess() { end(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void end() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

 private:
  pid_t pid_;
};

TEST(APeerThatHasDied, RunsNothing) {
  const test::TemporaryDirectory directory;
  const FileDescriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  directory.path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listening.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listening.get(), 1), 0);
  ChildProcess child(directory.path("socket"));
  const FileDescriptor accepted(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
  ASSERT_TRUE(accepted);
  const auto state = std::make_shared<ipc::Peer::State>();
  state->read(accepted.get());
  const ipc::Peer peer(state);
  EXPECT_EQ(peer.description(), "pid " + std::to_string(child.pid()) + ", uid " + std::to_string(getuid()));
  EXPECT_TRUE(peer.runsExecutable("/proc/self/exe"));
  const auto pinned = state->pinned();
  EXPECT_TRUE(pinned.isAlive());
  child.end();
  EXPECT_FALSE(pinned.isAlive());
  EXPECT_FALSE(peer.runsExecutable("/proc/self/exe"));
}

TEST(AUnit, IsTheFirstThatAControlGroupsPathNames) {
  EXPECT_EQ(ipc::unitOfControlGroup("/system.slice/kelvane.service"), "kelvane.service");
  EXPECT_EQ(ipc::unitOfControlGroup("/system.slice/kelvane.service/worker"), "kelvane.service");
  EXPECT_EQ(ipc::unitOfControlGroup("/user.slice/user-1000.slice/session-3.scope"), "session-3.scope");
  EXPECT_EQ(ipc::unitOfControlGroup("/system.slice/system-getty.slice/getty@tty1.service"), "getty@tty1.service");
  EXPECT_EQ(ipc::unitOfControlGroup("/system.slice/_cpu.service"), "cpu.service");
  EXPECT_EQ(ipc::unitOfControlGroup("/"), "");
  EXPECT_EQ(ipc::unitOfControlGroup(""), "");
  EXPECT_EQ(ipc::unitOfControlGroup("/user.slice"), "");
  EXPECT_EQ(ipc::unitOfControlGroup("/init.scope"), "init.scope");
}

TEST(AUnit, IsNotWhatAUsersOwnManagerCallsIt) {
  EXPECT_EQ(ipc::unitOfControlGroup("/user.slice/user-1000.slice/user@1000.service/app.slice/kelvane.service"),
            "user@1000.service");
  EXPECT_EQ(ipc::unitOfControlGroup("/machine.slice/box.scope/system.slice/kelvane.service"), "box.scope");
  EXPECT_EQ(ipc::unitOfControlGroup("/containers/box/kelvane.service"), "");
  EXPECT_EQ(ipc::unitOfControlGroup("/containers/box.slice/kelvane.service"), "");
  EXPECT_EQ(ipc::unitOfControlGroup("/../kelvane.service"), "");
}

}  // namespace
}  // namespace kelvane
