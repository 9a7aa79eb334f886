// SPDX-License-Identifier: Apache-2.0
// How simulated connections are made and how they end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "platform/Queues.h"
#include "tests/simulated/IpcTesting.h"

namespace kelvane {
namespace {

using Cause = ipc::CallError::Cause;
using ipcTesting::answerWithArgument;
using ipcTesting::Caller;
using ipcTesting::serve;
using ipcTesting::underManySchedules;
using testing::ElementsAre;
using testing::IsEmpty;

/// A caller of a named service, resumed.
Caller callerOf(const std::string& name) {
  Caller caller(ipc::Connection::toService(name));
  caller.connection().resume();
  return caller;
}

ipc::Listener serveNamed(const std::string& name, ipc::RequestHandler handler = answerWithArgument) {
  ipc::Listener listener = ipc::Listener::named(name, ipcTesting::interface, std::move(handler));
  EXPECT_EQ(listener.resume(), std::nullopt);
  return listener;
}

TEST(APeersDeath, InterruptsOnceAndFailsWhatIsOutstanding) {
  underManySchedules([](Simulation& simulation) {
    std::vector<ipc::Reply> kept;
    const ipc::Listener listener = serve([&](const ipc::Request& request) { kept.push_back(request.reply); });
    const Caller caller(listener);
    caller.echo(Value(1));
    simulation.settle();
    simulation.ipc().kill(caller.connection());
    kept.at(0).send(Value("too late"));
    simulation.settle();
    caller.connection().invalidate();
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
    ASSERT_TRUE(caller.error());
    EXPECT_EQ(caller.error()->cause, Cause::Lost);
    EXPECT_EQ(simulation.ipc().openConnections(), 0);
  });
}

TEST(Invalidating, EndsTheConnectionOnceAndFailsWhatIsOutstanding) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve([](const ipc::Request&) {});
    const Caller caller(listener);
    caller.echo(Value(1));
    caller.connection().invalidate();
    caller.connection().invalidate();
    simulation.ipc().kill(caller.connection());
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("invalidated", "error"));
  });
}

TEST(DeathAndInvalidation, RaceAndOneOfThemWins) {
  std::set<std::string> winners;
  underManySchedules([&](Simulation& simulation) {
    const ipc::Listener listener = serve(answerWithArgument);
    const Caller caller(listener);
    globalQueue::async([&] { simulation.ipc().kill(caller.connection()); });
    globalQueue::async([&] { caller.connection().invalidate(); });
    simulation.settle();
    ASSERT_EQ(caller.events().size(), 1U);
    winners.insert(caller.events()[0]);
  });
  EXPECT_EQ(winners, (std::set<std::string>{"interrupted", "invalidated"}));
}

TEST(AReplyAndADeath, RaceAndOneOfThemWins) {
  std::set<std::vector<std::string>> outcomes;
  underManySchedules([&](Simulation& simulation) {
    std::optional<ipc::Reply> reply;
    const ipc::Listener listener = serve([&](const ipc::Request& request) { reply = request.reply; });
    const Caller caller(listener);
    caller.echo(Value(1));
    simulation.settle();
    globalQueue::async([&] { reply->send(Value(1)); });
    globalQueue::async([&] { simulation.ipc().kill(caller.connection()); });
    simulation.settle();
    std::vector<std::string> events = caller.events();
    std::sort(events.begin(), events.end());
    outcomes.insert(events);
  });
  EXPECT_EQ(outcomes, (std::set<std::vector<std::string>>{{"error", "interrupted"}, {"interrupted", "reply 1"}}));
}

TEST(AnInterruption, HasRunBeforeARequestThatIsReadLaterIsDelivered) {
  underManySchedules([](Simulation& simulation) {
    std::optional<Caller> toService;
    bool delivered = false;
    const ipc::Listener registry = serve([&](const ipc::Request& request) {
      delivered = true;
      EXPECT_THAT(toService->events(), ElementsAre("interrupted"));
      request.reply.send();
    });
    std::optional<ipc::Listener> service = serve(answerWithArgument);
    toService.emplace(*service);
    const Caller restarted(registry);
    simulation.settle();
    simulation.ipc().kill(*service);
    restarted.echo(Value("check-in"));
    simulation.settle();
    EXPECT_TRUE(delivered);
  });
}

TEST(ACallAfterTheEnd, RunsItsErrorHandler) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve(answerWithArgument);
    const Caller caller(listener);
    caller.connection().invalidate();
    simulation.settle();
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("invalidated", "error"));
  });
}

TEST(CallsBeforeResuming, Wait) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serveNamed("service");
    const Caller named(ipc::Connection::toService("service"));
    const Caller direct(ipc::Connection::toEndpoint(*listener.endpoint()));
    named.echo(Value(1));
    direct.echo(Value(2));
    simulation.settle();
    EXPECT_THAT(named.events(), IsEmpty());
    EXPECT_THAT(direct.events(), IsEmpty());
    named.connection().resume();
    direct.connection().resume();
    simulation.settle();
    EXPECT_THAT(named.events(), ElementsAre("reply 1"));
    EXPECT_THAT(direct.events(), ElementsAre("reply 2"));
  });
}

TEST(InvalidatingBeforeResuming, EndsTheConnectionToo) {
  Simulation simulation;
  simulation.run([&] {
    const Caller caller(ipc::Connection::toService("service"));
    caller.echo(Value(1));
    caller.connection().invalidate();
    caller.connection().resume();
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("invalidated", "error"));
  });
}

TEST(ANameThatNobodyListensOn, InterruptsAndIsNeverReachedAtOnce) {
  underManySchedules([](Simulation& simulation) {
    const Caller caller(ipc::Connection::toService("nobody"));
    caller.echo(Value(1));
    caller.connection().resume();
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
    EXPECT_EQ(caller.error()->cause, Cause::NotReached);
  });
}

TEST(AnImpossibleName, InterruptsAndCannotBeListenedOn) {
  Simulation simulation;
  simulation.run([&] {
    for (const std::string& name :
         {std::string(), std::string(".hidden"), std::string("a/b"), std::string("a\0b", 3), std::string(91, 'x')}) {
      EXPECT_FALSE(ipc::isServiceName(name));
      simulation.ipc().onDemand(name, [] { ADD_FAILURE() << "started"; });
      const Caller caller = callerOf(name);
      simulation.settle();
      EXPECT_THAT(caller.events(), ElementsAre("interrupted"));
      EXPECT_NE(ipc::Listener::named(name, ipcTesting::interface, answerWithArgument).resume(), std::nullopt);
    }
    EXPECT_TRUE(ipc::isServiceName(std::string(90, 'x')));
  });
}

TEST(AName, IsListenedOnOnceAtATime) {
  Simulation simulation;
  simulation.run([&] {
    {
      const ipc::Listener first = serveNamed("service");
      EXPECT_TRUE(simulation.ipc().isListening("service"));
      EXPECT_NE(ipc::Listener::named("service", ipcTesting::interface, answerWithArgument).resume(), std::nullopt);
      EXPECT_TRUE(simulation.ipc().isListening("service"));
    }
    EXPECT_FALSE(simulation.ipc().isListening("service"));
    const ipc::Listener second = serveNamed("service");
    simulation.ipc().refuse("refused", "no socket");
    EXPECT_EQ(ipc::Listener::named("refused", ipcTesting::interface, answerWithArgument).resume(), "no socket");
  });
}

TEST(AServiceOnDemand, IsStartedOnceByItsFirstCaller) {
  underManySchedules([](Simulation& simulation) {
    std::vector<ipc::Listener> listeners;
    simulation.ipc().onDemand("service", [&] { listeners.push_back(serveNamed("service")); });
    const Caller first = callerOf("service");
    const Caller second = callerOf("service");
    first.echo(Value(1));
    second.echo(Value(2));
    simulation.settle();
    EXPECT_EQ(listeners.size(), 1U);
    EXPECT_THAT(first.events(), ElementsAre("reply 1"));
    EXPECT_THAT(second.events(), ElementsAre("reply 2"));
    listeners.clear();
    simulation.settle();
    EXPECT_THAT(first.events(), ElementsAre("reply 1", "interrupted"));
    const Caller third = callerOf("service");
    third.echo(Value(3));
    simulation.settle();
    EXPECT_THAT(third.events(), ElementsAre("reply 3"));
  });
}

TEST(ARefusedProcess, IsInterrupted) {
  underManySchedules([](Simulation& simulation) {
    ipc::Listener listener = ipc::Listener::named("service", ipcTesting::interface, answerWithArgument);
    listener.setAdmission([](const ipc::Peer& peer) { return peer.isUser("friend"); });
    EXPECT_EQ(listener.resume(), std::nullopt);
    const Caller refused = callerOf("service");
    refused.echo(Value(1));
    const simulated::ActingAs scope({.user = "friend"});
    const Caller admitted = callerOf("service");
    admitted.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(refused.events(), ElementsAre("interrupted", "error"));
    EXPECT_EQ(refused.error()->cause, Cause::NotAdmitted);
    EXPECT_THAT(admitted.events(), ElementsAre("reply 1"));
  });
}

TEST(APeer, IsWhoActedWhenTheConnectionWasMade) {
  Simulation simulation;
  simulation.ipc().setPeer({.pid = 7, .uid = 1000, .user = "somebody"});
  simulation.run([&] {
    std::vector<ipc::Peer> peers;
    const ipc::Listener listener = serveNamed("service", [&](const ipc::Request& request) {
      peers.push_back(request.connection.peer());
      request.reply.send();
    });
    const Caller somebody = callerOf("service");
    somebody.echo(Value());
    simulation.settle();
    {
      const simulated::ActingAs scope({.pid = 8,
                                       .uid = 0,
                                       .user = "root",
                                       .groups = {"wheel", "0"},
                                       .executable = "/usr/bin/tool",
                                       .unit = "tool.service",
                                       .label = "trusted"});
      const Caller root = callerOf("service");
      root.echo(Value());
      simulation.settle();
    }
    const Caller again = callerOf("service");
    again.echo(Value());
    simulation.settle();
    ASSERT_EQ(peers.size(), 3U);
    EXPECT_EQ(peers[0].description(), "pid 7, uid 1000");
    EXPECT_TRUE(peers[0].isUser("somebody"));
    EXPECT_TRUE(peers[0].isUser("1000"));
    EXPECT_FALSE(peers[0].isUser("root"));
    EXPECT_FALSE(peers[0].isInGroup("wheel"));
    EXPECT_FALSE(peers[0].runsInUnit(""));
    EXPECT_TRUE(peers[1].isUser("0"));
    EXPECT_TRUE(peers[1].isInGroup("wheel"));
    EXPECT_TRUE(peers[1].runsExecutable("/usr/bin/tool"));
    EXPECT_FALSE(peers[1].runsExecutable("/usr/bin/other"));
    EXPECT_TRUE(peers[1].runsInUnit("tool.service"));
    EXPECT_TRUE(peers[1].hasSecurityLabel("trusted"));
    EXPECT_EQ(peers[2].description(), "pid 7, uid 1000");
    EXPECT_EQ(again.connection().peer().description(), "pid 7, uid 1000");
  });
}

TEST(AListenerThatIsDropped, EndsItsConnections) {
  underManySchedules([](Simulation& simulation) {
    std::optional<ipc::Listener> listener = serve([](const ipc::Request&) {});
    const Caller caller(*listener);
    caller.echo(Value(1));
    simulation.settle();
    listener.reset();
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
  });
}

TEST(AConnectionThatIsDropped, EndsAtTheListener) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve(answerWithArgument);
    int ended = 0;
    listener.setDisconnectHandler([&](const ipc::Connection&) { ++ended; });
    {
      const Caller caller(listener);
      caller.echo(Value(1));
      simulation.settle();
      EXPECT_EQ(ended, 0);
      EXPECT_EQ(simulation.ipc().openConnections(), 1);
    }
    simulation.settle();
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(simulation.ipc().openConnections(), 0);
  });
}

TEST(AListener, MayInvalidateAConnectionItServes) {
  underManySchedules([](Simulation& simulation) {
    int ended = 0;
    const ipc::Listener listener = serve([](const ipc::Request& request) { request.connection.invalidate(); });
    listener.setDisconnectHandler([&](const ipc::Connection&) { ++ended; });
    const Caller caller(listener);
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("interrupted", "error"));
    EXPECT_EQ(ended, 1);
  });
}

TEST(AnEndpoint, IsClosedWithItsLastReferenceUnlessUsed) {
  underManySchedules([](Simulation& simulation) {
    int ended = 0;
    const ipc::Listener listener = serve(answerWithArgument);
    listener.setDisconnectHandler([&](const ipc::Connection&) { ++ended; });
    std::optional<ipc::Endpoint> unused = listener.endpoint();
    std::optional<ipc::Endpoint> used = listener.endpoint();
    const Caller caller(ipc::Connection::toEndpoint(*used));
    unused.reset();
    used.reset();
    caller.connection().resume();
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_EQ(ended, 1);
    EXPECT_THAT(caller.events(), ElementsAre("reply 1"));
  });
}

TEST(AnEndpoint, ServesOneConnection) {
  Simulation simulation;
  simulation.run([&] {
    const ipc::Listener listener = serve(answerWithArgument);
    const std::optional<ipc::Endpoint> endpoint = listener.endpoint();
    const Caller first(ipc::Connection::toEndpoint(*endpoint));
    const Caller second(ipc::Connection::toEndpoint(*endpoint));
    first.connection().resume();
    second.connection().resume();
    first.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(first.events(), ElementsAre("reply 1"));
    EXPECT_THAT(second.events(), ElementsAre("interrupted"));
  });
}

TEST(AnEndpoint, WhoseListenerIsGoneInterrupts) {
  underManySchedules([](Simulation& simulation) {
    std::optional<ipc::Listener> listener = serve(answerWithArgument);
    const std::optional<ipc::Endpoint> endpoint = listener->endpoint();
    const Caller before(ipc::Connection::toEndpoint(*listener->endpoint()));
    listener.reset();
    simulation.settle();
    const Caller after(ipc::Connection::toEndpoint(*endpoint));
    before.connection().resume();
    after.connection().resume();
    simulation.settle();
    EXPECT_THAT(before.events(), ElementsAre("interrupted"));
    EXPECT_THAT(after.events(), ElementsAre("interrupted"));
  });
}

TEST(Endpoints, MayRunOut) {
  Simulation simulation;
  simulation.run([&] {
    const ipc::Listener listener = serve(answerWithArgument);
    simulation.ipc().setEndpointsExhausted(true);
    EXPECT_FALSE(listener.endpoint());
    simulation.ipc().setEndpointsExhausted(false);
    EXPECT_TRUE(listener.endpoint());
  });
}

TEST(ARequest, WaitsUntilItsListenerIsResumed) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = ipc::Listener::anonymous(ipcTesting::interface, answerWithArgument);
    const Caller caller(listener);
    caller.echo(Value(1));
    simulation.settle();
    EXPECT_THAT(caller.events(), IsEmpty());
    EXPECT_EQ(listener.resume(), std::nullopt);
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("reply 1"));
  });
}

TEST(AHandlerOfAConnectionsEnd, MustNotBlock) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Simulation simulation;
        simulation.run([&] {
          const ipc::Connection connection = ipc::Connection::toService("nobody");
          connection.setInterruptionHandler([] { Semaphore(0).wait(); });
          connection.resume();
          simulation.settle();
        });
      },
      "blocked in a handler of a connection's end: semaphore");
}

TEST(ARestart, BeginsWithoutNamesAndConnections) {
  Simulation simulation(3);
  std::optional<ipc::Listener> abandoned;
  simulation.run([&] {
    abandoned = serveNamed("service");
    const Caller caller = callerOf("service");
    caller.echo(Value(1));
  });
  simulation.run([&] {
    EXPECT_FALSE(simulation.ipc().isListening("service"));
    const ipc::Listener listener = serveNamed("service");
    const Caller caller = callerOf("service");
    caller.echo(Value(2));
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("reply 2"));
  });
}

}  // namespace
}  // namespace kelvane
