// SPDX-License-Identifier: Apache-2.0
// The thread that does the input and output of the IPC facility.
#include "platform/linux/ipc/EventLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

namespace sample = test::sample;
using ipc::EventLoop;

/// Whether the thread waits in the kernel for events that may never come.
bool sleepsWithoutLimit(const std::filesystem::path& thread) {
  long call = 0;
  std::string poll, events, count;
  std::uint64_t timeout = 0;
  std::ifstream(thread / "syscall") >> call >> poll >> events >> count >> std::hex >> timeout;
  // The time-out is an int, -1 for none.
  return (call == SYS_epoll_wait || call == SYS_epoll_pwait) && static_cast<std::int32_t>(timeout) == -1;
}

/// The thread that runs the loop; none while one hands over to another.
std::optional<std::filesystem::path> loopThread() {
  std::optional<std::filesystem::path> found;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    if (name == "kelvane-ipc") {
      if (found) {
        return std::nullopt;
      }
      found = task.path();
    }
  }
  return found;
}

bool loopSleepsWithoutLimit() {
  const auto thread = loopThread();
  return thread && sleepsWithoutLimit(*thread);
}

TEST(TheEventLoop, SleepsWithoutLimitWhenNothingIsUnderWay) {
  test::SampleListener listener([](const ipc::Request& request) { request.reply.send(); });
  listener.resume();
  test::RawClient client(listener.path());
  ASSERT_EQ(client.call("ping").error, "");
  test::SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  ASSERT_TRUE(caller.ask(sample::ping, {}));
  // The connections stay, idle.
  EXPECT_TRUE(test::eventually(loopSleepsWithoutLimit));
}

TEST(TheEventLoop, GoesOnInAnotherThreadWhenItHasComeToRestAfterMuchWork) {
  EventLoop& loop = EventLoop::shared();
  test::Mailbox<std::string> events;
  loop.post([&] { events.put("first"); });
  ASSERT_EQ(events.take(), "first");
  // Another test's work may just have had the same effect.
  std::optional<std::filesystem::path> before;
  ASSERT_TRUE(test::eventually([&before] { return (before = loopThread()).has_value(); }));
  for (int task = 0; task < 1000; ++task) {
    loop.post([] {});
  }
  // Nothing is posted meanwhile: that would be work.
  EXPECT_TRUE(test::eventually([&before] { return loopSleepsWithoutLimit() && loopThread() != before; }));
  loop.post([&] {
    EXPECT_TRUE(loop.isCurrent());
    loop.runAt(EventLoop::Clock::now(), [&] { events.put("timer"); });
  });
  EXPECT_EQ(events.take(), "timer");
}

TEST(TheEventLoop, RunsTasksInTheOrderPostedAndTimersWhenTheyAreDue) {
  EventLoop& loop = EventLoop::shared();
  test::Mailbox<std::string> events;
  EXPECT_FALSE(loop.isCurrent());
  loop.post([&] {
    EXPECT_TRUE(loop.isCurrent());
    const auto now = EventLoop::Clock::now();
    loop.runAt(now + std::chrono::milliseconds(2), [&] { events.put("second timer"); });
    loop.runAt(now + std::chrono::milliseconds(1), [&] { events.put("first timer"); });
    loop.cancel(loop.runAt(now, [&] { events.put("cancelled timer"); }));
    loop.afterReading([&] { events.put("after reading"); });
    events.put("first task");
  });
  loop.post([&] { events.put("second task"); });
  EXPECT_EQ(events.take(), "first task");
  // The second task may have been posted in time for the first one's turn, or not.
  std::multiset<std::string> next{*events.take(), *events.take()};
  EXPECT_EQ(next, (std::multiset<std::string>{"second task", "after reading"}));
  EXPECT_EQ(events.take(), "first timer");
  EXPECT_EQ(events.take(), "second timer");
}

TEST(TheEventLoop, TriesAgainWhereTheQueueOfConnectionsIsFull) {
  const test::TemporaryDirectory directory;
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  directory.path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  const auto* const where = reinterpret_cast<const sockaddr*>(&address);
  const FileDescriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listening.get(), where, sizeof address), 0);
  ASSERT_EQ(listen(listening.get(), 0), 0);
  std::vector<FileDescriptor> filling;
  do {
    filling.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  } while (connect(filling.back().get(), where, sizeof address) == 0);
  ASSERT_EQ(errno, EAGAIN);
  test::SampleCaller caller(ipc::connectAt(directory.path("socket")));
  caller.connection().resume();
  test::settleEventLoop();
  EXPECT_EQ(caller.ends().size(), 0U);
  // As many as were queued, and then the one that waited.
  for (std::size_t accepted = 0; accepted < filling.size(); ++accepted) {
    const FileDescriptor connection(accept(listening.get(), nullptr, nullptr));
    EXPECT_TRUE(connection);
  }
  EXPECT_EQ(caller.ends().take(), "interruption") << "when the last one was closed";
}

}  // namespace
}  // namespace kelvane
