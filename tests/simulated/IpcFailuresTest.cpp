// SPDX-License-Identifier: Apache-2.0
// Failures that a script puts into simulated IPC.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "platform/Clock.h"
#include "tests/simulated/IpcTesting.h"

namespace kelvane {
namespace {

using ipcTesting::answerWithArgument;
using ipcTesting::Caller;
using ipcTesting::serve;
using ipcTesting::underManySchedules;
using simulated::CallFailure;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

TEST(ACallThatFailsBefore, IsNotDelivered) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve([](const ipc::Request&) { ADD_FAILURE() << "delivered"; });
    int ended = 0;
    listener.setDisconnectHandler([&](const ipc::Connection&) { ++ended; });
    const Caller caller(listener);
    simulation.ipc().failNextCall(listener, CallFailure::Before);
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
    EXPECT_EQ(ended, 1);
  });
}

TEST(ACallThatFailsDuring, IsDeliveredAndItsAnswerLost) {
  underManySchedules([](Simulation& simulation) {
    int delivered = 0;
    const ipc::Listener listener = serve([&](const ipc::Request& request) {
      ++delivered;
      request.reply.send(Value(1));
    });
    const Caller caller(listener);
    simulation.ipc().failNextCall(listener, CallFailure::During);
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_EQ(delivered, 1);
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
  });
}

TEST(ACallThatFailsDuring, FailsWhenItsHandlerReturnsWithoutAnAnswer) {
  underManySchedules([](Simulation& simulation) {
    std::vector<ipc::Reply> kept;
    const ipc::Listener listener = serve([&](const ipc::Request& request) {
      clock::sleepMicroseconds(10);
      kept.push_back(request.reply);
    });
    const Caller caller(listener);
    simulation.ipc().failNextCall(listener, CallFailure::During);
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_TRUE(caller.events().empty());
    simulation.advance(std::chrono::microseconds(10));
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
  });
}

TEST(ACallThatFailsAfter, IsAnsweredFirst) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve(answerWithArgument);
    const Caller caller(listener);
    simulation.ipc().failNextCall(listener, CallFailure::After);
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(caller.events(), UnorderedElementsAre("reply 1", "interrupted"));
  });
}

TEST(AFailure, IsForOneCallOfWhatItNames) {
  underManySchedules([](Simulation& simulation) {
    const auto answer = [](const ipc::Request& request) { request.reply.send(Value("answer")); };
    const ipc::Listener listener = serve(answer);
    const ipc::Listener other = serve(answer);
    const Caller first(listener);
    const Caller second(listener);
    const Caller third(other);
    simulation.ipc().failNextCall(std::string(ipcTesting::echo.name), CallFailure::Before);
    first.call(ipcTesting::hand, {*listener.endpoint()});
    simulation.settle();
    second.echo(Value(2));
    simulation.settle();
    third.echo(Value(3));
    simulation.settle();
    EXPECT_THAT(first.events(), ElementsAre("reply answer"));
    EXPECT_THAT(second.events(), ElementsAre("interrupted", "error"));
    EXPECT_THAT(third.events(), ElementsAre("reply answer"));
  });
}

TEST(RandomFailures, DependOnTheSeedAndLeaveOneOutcomeEach) {
  std::set<std::vector<std::string>> outcomes;
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    std::optional<std::vector<std::string>> before;
    for (int repetition = 0; repetition < 2; ++repetition) {
      Simulation simulation(seed);
      simulation.ipc().setFailureRate(0.5);
      simulation.run([&] {
        const ipc::Listener listener = serve(answerWithArgument);
        const Caller caller(listener);
        caller.echo(Value(1));
        simulation.settle();
        std::vector<std::string> events = caller.events();
        std::sort(events.begin(), events.end());
        EXPECT_EQ(events, before.value_or(events));
        before = events;
        outcomes.insert(events);
      });
    }
  }
  EXPECT_EQ(outcomes,
            (std::set<std::vector<std::string>>{{"reply 1"}, {"error", "interrupted"}, {"interrupted", "reply 1"}}));
}

TEST(AListenersDeath, TakesItsRequestsAndRepliesAlong) {
  underManySchedules([](Simulation& simulation) {
    int delivered = 0;
    std::vector<ipc::Reply> kept;
    const ipc::Listener listener = serve([&](const ipc::Request& request) {
      ++delivered;
      kept.push_back(request.reply);
      clock::sleepMicroseconds(10);
    });
    const Caller caller(listener);
    caller.echo(Value(1));
    caller.echo(Value(2));
    simulation.settle();
    simulation.ipc().kill(listener);
    ASSERT_EQ(kept.size(), 1U);
    kept[0].send(Value("from the dead"));
    simulation.advance(std::chrono::microseconds(20));
    EXPECT_EQ(delivered, 1);
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error", "error"));
  });
}

TEST(ADeadListener, GivesItsNameToTheNext) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener dead = ipc::Listener::named("service", ipcTesting::interface, [](const ipc::Request&) {});
    EXPECT_EQ(dead.resume(), std::nullopt);
    simulation.ipc().kill(dead);
    EXPECT_FALSE(simulation.ipc().isListening("service"));
    const ipc::Listener next = ipc::Listener::named("service", ipcTesting::interface, answerWithArgument);
    EXPECT_EQ(next.resume(), std::nullopt);
    const Caller caller(ipc::Connection::toService("service"));
    caller.connection().resume();
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("reply 1"));
  });
}

}  // namespace
}  // namespace kelvane
