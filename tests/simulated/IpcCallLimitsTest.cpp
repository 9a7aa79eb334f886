// SPDX-License-Identifier: Apache-2.0
// Simulated calls that are to be answered within a time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/simulated/IpcTesting.h"

namespace kelvane {
namespace {

using ipcTesting::Caller;
using ipcTesting::serve;
using ipcTesting::underManySchedules;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr seconds limit{30};
constexpr seconds moment{1};

/// Keeps its requests unanswered.
class Silence {
 public:
  ipc::RequestHandler handler() {
    return [this](const ipc::Request& request) { replies_.push_back(request.reply); };
  }
  const ipc::Reply& reply() const { return replies_.back(); }

 private:
  std::vector<ipc::Reply> replies_;
};

TEST(ACallWithALimit, IsAnsweredWithNothingWhenThatIsOverAndItsConnectionIsCut) {
  underManySchedules([](Simulation& simulation) {
    Silence silence;
    int ended = 0;
    const ipc::Listener listener = serve(silence.handler());
    listener.setDisconnectHandler([&](const ipc::Connection&) { ++ended; });
    const Caller caller(listener);
    caller.call(ipcTesting::echo, {Value(1)}, limit);
    simulation.advance(limit - moment);
    simulation.settle();
    EXPECT_THAT(caller.events(), IsEmpty());
    simulation.advance(moment);
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("invalidated", "error", "reply (null)"));
    EXPECT_EQ(caller.error()->cause, ipc::CallError::Cause::Unanswered);
    EXPECT_EQ(ended, 1);
    silence.reply().send(Value(2));
    simulation.settle();
    EXPECT_EQ(caller.events().size(), 3U);
  });
}

TEST(ACallWithALimit, IsAnsweredOnceByAnAnswerInTime) {
  underManySchedules([](Simulation& simulation) {
    Silence silence;
    const ipc::Listener listener = serve(silence.handler());
    const Caller caller(listener);
    caller.call(ipcTesting::echo, {Value(1)}, limit);
    simulation.advance(limit - moment);
    silence.reply().send(Value(2));
    simulation.advance(2 * limit);
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("reply 2"));
  });
}

TEST(ACallWithALimit, IsAnsweredWithNothingAtOnceWhenItsConnectionFails) {
  underManySchedules([](Simulation& simulation) {
    Silence silence;
    const ipc::Listener listener = serve(silence.handler());
    const Caller caller(listener);
    caller.call(ipcTesting::echo, {Value(1)}, limit);
    simulation.settle();
    simulation.ipc().kill(listener);
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error", "reply (null)"));
    caller.call(ipcTesting::echo, {Value(1)}, limit);
    simulation.settle();
    EXPECT_EQ(caller.events().back(), "reply (null)");
  });
}

TEST(ACallWithoutALimit, IsNotAnsweredWhenItsConnectionFails) {
  underManySchedules([](Simulation& simulation) {
    Silence silence;
    const ipc::Listener listener = serve(silence.handler());
    const Caller caller(listener);
    caller.echo(Value(1));
    simulation.advance(10 * limit);
    EXPECT_THAT(caller.events(), IsEmpty());
    simulation.ipc().kill(listener);
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
  });
}

}  // namespace
}  // namespace kelvane
