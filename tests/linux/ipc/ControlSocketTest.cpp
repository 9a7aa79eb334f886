// SPDX-License-Identifier: Apache-2.0
// The service manager's door, as a stock client finds it.
#include "platform/linux/ipc/ControlSocket.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "platform/Control.h"
#include "platform/Process.h"
#include "platform/Queues.h"
#include "platform/linux/ipc/Readiness.h"
#include "platform/linux/system/Paths.h"

namespace kelvane {
namespace {

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

/// One connection to the socket.
class Caller {
 public:
  Caller() {
    sd_bus* bus = nullptr;
    EXPECT_EQ(sd_bus_new(&bus), 0);
    bus_.reset(bus);
    EXPECT_GE(sd_bus_set_address(bus, (std::string("unix:path=") + paths::controlSocket).c_str()), 0);
    EXPECT_GE(sd_bus_start(bus), 0);
  }

  /// Makes a call and waits for the answer: empty, or the error's name and text.
  template <typename... Arguments>
  std::string call(const char* member, const char* types, Arguments... arguments) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call_method(bus_.get(), nullptr, "/com/tessaly/KelvanePlatform",
                                          "com.tessaly.KelvanePlatform", member, &error, &reply, types, arguments...);
    const std::string answer = result >= 0 ? "" : std::string(error.name) + ": " + error.message;
    EXPECT_TRUE(reply == nullptr || sd_bus_message_is_empty(reply) == 1);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return answer;
  }

 private:
  std::unique_ptr<sd_bus, CloseBus> bus_;
};

/// Opens the door as entering the main loop does, once for all tests.
class TheControlSocket : public testing::Test {
 protected:
  TheControlSocket() {
    setEventStreamHandler("control test", [](const Value&) {});
    if (!std::filesystem::exists(paths::controlSocket)) {
      announceReadiness();
    }
  }
};

TEST_F(TheControlSocket, IsForRootAlone) {
  struct stat status;
  ASSERT_EQ(stat(paths::controlSocket, &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(status.st_uid, 0u);
}

TEST_F(TheControlSocket, AnswersWhenTheActivityHasReturned) {
  std::atomic<bool> returned = false;
  const Semaphore entered(0);
  const Semaphore released(0);
  registerActivity("com.tessaly.Kelvane.daily", [&returned, entered, released](const Activity& activity) {
    if (activity.state == ActivityState::Run) {
      entered.signal();
      released.wait();
      returned = true;
    }
  });
  std::thread releaser([entered, released] {
    entered.wait();
    released.signal();
  });
  EXPECT_EQ(Caller().call("runActivity", "s", "com.tessaly.Kelvane.daily"), "");
  EXPECT_TRUE(returned);
  releaser.join();
}

/// What comes of a request by this library's own means: nothing, or the error's text.
std::string outcomeOf(const std::string& activity) {
  std::string outcome = "none";
  const Semaphore finished(0);
  control::requestActivity(activity, [&outcome, finished](const std::optional<ipc::CallError>& error) {
    outcome = error ? error->text : "";
    finished.signal();
  });
  finished.wait();
  return outcome;
}

TEST_F(TheControlSocket, RunsActivitiesForWhoeverHoldsThisLibrary) {
  std::atomic<int> runs = 0;
  registerActivity("counted", [&runs](const Activity& activity) { runs += activity.state == ActivityState::Run; });
  EXPECT_EQ(outcomeOf("counted"), "");
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(outcomeOf("weekly"), "com.tessaly.KelvanePlatform.Error.Unknown: No activity named weekly");
}

TEST_F(TheControlSocket, DeliversEventsWithTheirEntries) {
  Value received;
  setEventStreamHandler("com.tessaly.dispatch.test", [&received](const Value& event) { received = event; });
  EXPECT_EQ(Caller().call("postEvent", "sa{sv}", "com.tessaly.dispatch.test", 2, "_Flags", "t", std::uint64_t{4},
                          "Volume", "s", "/data"),
            "");
  EXPECT_EQ(received, Value(Value::Dictionary{{"_Flags", std::uint64_t{4}}, {"Volume", "/data"}}));
  setEventStreamHandler("com.tessaly.dispatch.test", [](const Value&) {});
}

TEST_F(TheControlSocket, RefusesNamesThatNobodyRegistered) {
  EXPECT_EQ(Caller().call("runActivity", "s", "weekly"),
            "com.tessaly.KelvanePlatform.Error.Unknown: No activity named weekly");
  EXPECT_EQ(Caller().call("postEvent", "sa{sv}", "com.tessaly.other", 0),
            "com.tessaly.KelvanePlatform.Error.Unknown: No event stream named com.tessaly.other");
}

TEST_F(TheControlSocket, RefusesCallsOfTheWrongForm) {
  EXPECT_NE(Caller().call("runActivity", "i", 5), "");
  EXPECT_NE(Caller().call("postEvent", "s", "com.tessaly.dispatch.vfs"), "");
  EXPECT_NE(Caller().call("stop", ""), "");
}

}  // namespace
}  // namespace kelvane
