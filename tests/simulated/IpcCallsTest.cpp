// SPDX-License-Identifier: Apache-2.0
// Calls, requests and replies between simulated connections.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "platform/Limits.h"
#include "platform/MutableDictionary.h"
#include "platform/Queues.h"
#include "tests/simulated/IpcTesting.h"

namespace kelvane {
namespace {

using ipcTesting::answerWithArgument;
using ipcTesting::Caller;
using ipcTesting::serve;
using ipcTesting::underManySchedules;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ACall, IsDeliveredWithItsArgumentsAndAnsweredOnce) {
  underManySchedules([](Simulation& simulation) {
    int delivered = 0;
    const ipc::Listener listener = serve([&](const ipc::Request& request) {
      ++delivered;
      EXPECT_EQ(&request.operation, &ipcTesting::echo);
      request.reply.send(request.value(0));
      request.reply.send(Value("again"));
      request.reply.sendError("com.tessaly.Error", "again");
    });
    const Caller caller(listener);
    caller.echo(Value("hello"));
    simulation.settle();
    EXPECT_EQ(delivered, 1);
    EXPECT_THAT(caller.events(), ElementsAre("reply hello"));
  });
}

TEST(ACall, CarriesAValueAsItWasWhenSent) {
  underManySchedules([](Simulation& simulation) {
    std::vector<Value> received;
    const ipc::Listener listener = serve([&](const ipc::Request& request) { received.push_back(request.value(0)); });
    const Caller caller(listener);
    MutableDictionary dictionary;
    dictionary.set("key", Value("before"));
    caller.echo(Value::Dictionary{{"array", Value::Array{dictionary}}});
    dictionary.set("key", Value("after"));
    simulation.settle();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ((*received[0]["array"].array())[0]["key"], Value("before"));
  });
}

TEST(AReply, CarriesAValueAsItWasWhenSent) {
  Simulation simulation;
  simulation.run([&] {
    MutableDictionary dictionary;
    const ipc::Listener listener = serve([&](const ipc::Request& request) { request.reply.send(dictionary); });
    const Caller caller(listener);
    Value received;
    caller.connection().remoteProxy({}).call(ipcTesting::echo, {Value()},
                                             [&](const Value& value) { received = value; });
    simulation.settle();
    dictionary.set("key", Value("after"));
    EXPECT_EQ(received, Value(Value::Dictionary()));
  });
}

TEST(CallsOfOneConnection, AreDeliveredInOrderOneAtATime) {
  underManySchedules([](Simulation& simulation) {
    std::vector<std::int64_t> delivered;
    int running = 0;
    const ipc::Listener listener = serve([&](const ipc::Request& request) {
      EXPECT_EQ(++running, 1);
      clock::sleepMicroseconds(1);
      --running;
      delivered.push_back(request.value(0).int64Value());
      request.reply.send();
    });
    const Caller caller(listener);
    for (int number = 0; number < 5; ++number) {
      caller.echo(Value(number));
    }
    simulation.advance(std::chrono::seconds(1));
    EXPECT_THAT(delivered, ElementsAre(0, 1, 2, 3, 4));
    EXPECT_EQ(caller.events().size(), 5U);
  });
}

TEST(CallsOfTwoConnections, AreDeliveredSideBySide) {
  underManySchedules([](Simulation& simulation) {
    const Semaphore second(0);
    const ipc::Listener listener = serve([&](const ipc::Request& request) {
      if (request.value(0).boolValue()) {
        second.wait();
      } else {
        second.signal();
      }
      request.reply.send();
    });
    const Caller waiting(listener);
    const Caller signalling(listener);
    waiting.echo(Value(true));
    signalling.echo(Value(false));
    simulation.settle();
    EXPECT_EQ(waiting.events().size(), 1U);
    EXPECT_EQ(signalling.events().size(), 1U);
  });
}

TEST(Replies, MayBlockWithoutHoldingUpOthers) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve(answerWithArgument);
    const Caller caller(listener);
    const Semaphore second(0);
    bool finished = false;
    const ipc::Proxy proxy = caller.connection().remoteProxy({});
    proxy.call(ipcTesting::echo, {Value(1)}, [&](const Value&) {
      second.wait();
      finished = true;
    });
    proxy.call(ipcTesting::echo, {Value(2)}, [&](const Value&) { second.signal(); });
    simulation.settle();
    EXPECT_TRUE(finished);
  });
}

TEST(AnIntegerArgument, ArrivesWithThirtyTwoBits) {
  Simulation simulation;
  simulation.run([&] {
    std::optional<ipc::Arguments> arguments;
    const ipc::Listener listener = serve([&](const ipc::Request& request) {
      arguments = request.arguments;
      request.reply.send();
    });
    const Caller caller(listener);
    caller.call(ipcTesting::count, {Value((std::int64_t{1} << 32U) + 7), Value("text"), Value(Value::Dictionary())});
    simulation.settle();
    ASSERT_TRUE(arguments);
    EXPECT_EQ(std::get<Value>((*arguments)[0]), Value(7));
    EXPECT_THAT(caller.events(), ElementsAre("reply (null)"));
  });
}

TEST(ACallThatDoesNotDecode, IsAnsweredWithAnErrorAndNotDelivered) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve([](const ipc::Request&) { ADD_FAILURE() << "delivered"; });
    const Caller caller(listener);
    const Value dictionary = Value::Dictionary();
    caller.call(ipcTesting::count, {Value("7"), Value("text"), dictionary});
    caller.call(ipcTesting::count, {Value(7), Value(7), dictionary});
    caller.call(ipcTesting::count, {Value(7), Value("text"), Value::Array()});
    caller.call(ipcTesting::count, {Value(7), Value("text")});
    caller.call(ipcTesting::hand, {Value(7)});
    caller.call(ipcTesting::foreign, {});
    simulation.settle();
    EXPECT_EQ(caller.events(), std::vector<std::string>(6, "reply (null)"));
  });
}

TEST(AnError, IsAnAbsentReplyUnlessTheOutcomeIsAskedFor) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener =
        serve([](const ipc::Request& request) { request.reply.sendError("com.tessaly.Full", "no room"); });
    const Caller caller(listener);
    caller.echo(Value(1));
    std::optional<ipc::CallError> error;
    caller.connection().remoteProxy({}).callForOutcome(
        ipcTesting::echo, {Value(1)},
        [&](std::variant<Value, ipc::CallError> outcome) { error = std::get<ipc::CallError>(outcome); });
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("reply (null)"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->text, "com.tessaly.Full: no room");
    EXPECT_EQ(error->cause, ipc::CallError::Cause::Answered);
  });
}

TEST(AnOutcome, IsTheValueThatWasAnswered) {
  Simulation simulation;
  simulation.run([&] {
    const ipc::Listener listener = serve(answerWithArgument);
    const Caller caller(listener);
    std::optional<Value> value;
    caller.connection().remoteProxy({}).callForOutcome(
        ipcTesting::echo, {Value(1)},
        [&](std::variant<Value, ipc::CallError> outcome) { value = std::get<Value>(outcome); });
    simulation.settle();
    EXPECT_EQ(value, Value(1));
  });
}

TEST(ARequestThatIsNeverAnswered, LeavesTheCallOutstanding) {
  underManySchedules([](Simulation& simulation) {
    const ipc::Listener listener = serve([](const ipc::Request&) {});
    const Caller caller(listener);
    caller.echo(Value(1));
    simulation.advance(std::chrono::hours(1));
    EXPECT_THAT(caller.events(), IsEmpty());
  });
}

TEST(AReply, MayComeMuchLaterFromAnyThread) {
  underManySchedules([](Simulation& simulation) {
    std::vector<ipc::Reply> kept;
    const ipc::Listener listener = serve([&](const ipc::Request& request) { kept.push_back(request.reply); });
    const Caller caller(listener);
    caller.echo(Value(1));
    simulation.advance(std::chrono::hours(1));
    ASSERT_EQ(kept.size(), 1U);
    kept[0].send(Value("late"));
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("reply late"));
  });
}

TEST(AConnection, IsNotReadWhileTooManyRequestsAreUnanswered) {
  Simulation simulation(1);
  simulation.run([&] {
    std::vector<ipc::Reply> kept;
    const ipc::Listener listener = serve([&](const ipc::Request& request) { kept.push_back(request.reply); });
    const Caller caller(listener);
    for (int number = 0; number < limits::unansweredRequestsPerConnection + 3; ++number) {
      caller.echo(Value(number));
    }
    simulation.settle();
    EXPECT_EQ(kept.size(), static_cast<std::size_t>(limits::unansweredRequestsPerConnection));
    kept.front().send();
    simulation.settle();
    EXPECT_EQ(kept.size(), static_cast<std::size_t>(limits::unansweredRequestsPerConnection) + 1);
    kept.erase(kept.begin() + 1);
    simulation.settle();
    EXPECT_EQ(kept.size(), static_cast<std::size_t>(limits::unansweredRequestsPerConnection) + 1);
    EXPECT_THAT(caller.events(), ElementsAre("reply (null)"));
    kept.clear();
    simulation.settle();
    EXPECT_EQ(kept.size(), 1U);
  });
}

TEST(AnEndpoint, TravelsAsAnArgument) {
  underManySchedules([](Simulation& simulation) {
    std::optional<Caller> back;
    const ipc::Listener registry = serve([&](const ipc::Request& request) {
      back.emplace(ipc::Connection::toEndpoint(request.endpoint(0)));
      back->connection().resume();
      back->echo(Value("ping"));
      request.reply.send();
    });
    const ipc::Listener service = serve(answerWithArgument);
    const Caller caller(registry);
    caller.call(ipcTesting::hand, {*service.endpoint()});
    simulation.settle();
    EXPECT_THAT(caller.events(), ElementsAre("reply (null)"));
    ASSERT_TRUE(back);
    EXPECT_THAT(back->events(), ElementsAre("reply ping"));
  });
}

TEST(ACallWithoutARemoteInterface, RunsItsErrorHandler) {
  Simulation simulation;
  simulation.run([&] {
    const ipc::Listener listener = serve(answerWithArgument);
    const ipc::Connection connection = ipc::Connection::toEndpoint(*listener.endpoint());
    connection.resume();
    int failed = 0;
    connection.remoteProxy([&](const std::optional<ipc::CallError>&) { ++failed; })
        .call(ipcTesting::echo, {Value(1)}, [](const Value&) { ADD_FAILURE() << "answered"; });
    simulation.settle();
    EXPECT_EQ(failed, 1);
  });
}

}  // namespace
}  // namespace kelvane
