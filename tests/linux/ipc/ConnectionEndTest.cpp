// SPDX-License-Identifier: Apache-2.0
// How connections end, and what becomes of their calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <memory>
#include <set>
#include <utility>

#include "platform/Limits.h"
#include "platform/MutableDictionary.h"
#include "platform/linux/ipc/EndpointState.h"
#include "platform/linux/ipc/EventLoop.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::SampleCaller;
using test::SampleListener;
using testing::HasSubstr;
namespace sample = test::sample;

void expectNoMore(SampleCaller& caller) {
  test::settleEnds();
  EXPECT_EQ(caller.ends().size(), 0U);
  EXPECT_EQ(caller.outcomes().size(), 0U);
}

TEST(APeersDeath, IsAnInterruption) {
  SampleListener listener;
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  caller.call(sample::ping, {});
  ASSERT_TRUE(listener.take());
  listener.drop();
  EXPECT_EQ(caller.ends().take(), "interruption");
}

TEST(APeersDeath, FailsTheOutstandingCallsInOrder) {
  SampleListener listener;
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  for (int call = 0; call < 3; ++call) {
    caller.call(sample::echo, {Value(call)});
  }
  const auto held = listener.take();
  listener.drop();
  EXPECT_EQ(caller.ends().take(), "interruption");
  for (int call = 0; call < 3; ++call) {
    const auto outcome = caller.outcomes().take();
    ASSERT_TRUE(outcome);
    EXPECT_FALSE(outcome->reply);
    EXPECT_EQ(outcome->error, "org.freedesktop.DBus.Error.NoReply: Connection terminated");
  }
  caller.connection().invalidate();
  expectNoMore(caller);
}

TEST(APeersDeath, ComesAfterTheAnswersThatItSentBefore) {
  // A service that answers everything and then is gone.
  const auto service = ipc::Listener::anonymous(sample::interface, [](const ipc::Request& request) {
    request.reply.send(request.value(0));
    if (request.value(0) == Value(99)) {
      request.connection.invalidate();
    }
  });
  ASSERT_FALSE(service.resume());
  SampleCaller caller(ipc::Connection::toEndpoint(*service.endpoint()));
  caller.connection().resume();
  for (int call = 0; call < 100; ++call) {
    caller.call(sample::echo, {Value(call)});
  }
  std::size_t answered = 0;
  for (int call = 0; call < 100; ++call) {
    const auto outcome = caller.outcomes().take();
    ASSERT_TRUE(outcome);
    answered += outcome->reply ? 1 : 0;
  }
  EXPECT_EQ(answered, 100U);
  EXPECT_EQ(caller.ends().take(), "interruption");
}

TEST(AnInvalidatedConnection, RunsItsInvalidationHandlerOnce) {
  SampleListener listener;
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  caller.call(sample::ping, {});
  ASSERT_TRUE(listener.take());
  caller.connection().invalidate();
  caller.connection().invalidate();
  EXPECT_EQ(caller.ends().take(), "invalidation");
  EXPECT_THAT(caller.outcomes().take()->error, HasSubstr("Connection invalidated"));
  listener.drop();
  expectNoMore(caller);
}

TEST(AnInvalidatedConnection, FailsLaterCallsAtOnce) {
  SampleListener listener;
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  caller.connection().invalidate();
  caller.call(sample::ping, {});
  EXPECT_THAT(caller.outcomes().take()->error, HasSubstr("Connection invalidated"));
}

TEST(AnInvalidatedConnection, NeedNotHaveBeenResumed) {
  SampleCaller caller(ipc::connectAt("/nowhere"));
  caller.call(sample::ping, {});
  caller.connection().invalidate();
  caller.connection().resume();
  EXPECT_EQ(caller.ends().take(), "invalidation");
  EXPECT_TRUE(caller.outcomes().take());
  expectNoMore(caller);
}

TEST(AnInvalidatedConnection, LetsGoOfItsHandlers) {
  SampleListener listener;
  listener.resume();
  const auto held = std::make_shared<int>();
  auto connection = ipc::connectAt(listener.path());
  // A circle, which ends with the connection.
  connection.setInterruptionHandler([connection, held] {});
  connection.setInvalidationHandler([connection, held] {});
  connection.resume();
  connection.invalidate();
  EXPECT_TRUE(test::eventually([&held] { return held.use_count() == 1; }));
}

TEST(AConnectionThatCannotBeMade, IsAnInterruption) {
  SampleCaller caller(ipc::connectAt("/nowhere/at/all"));
  caller.call(sample::ping, {});
  EXPECT_EQ(caller.ends().size(), 0U);
  caller.connection().resume();
  EXPECT_EQ(caller.ends().take(), "interruption");
  EXPECT_THAT(caller.outcomes().take()->error, HasSubstr("No such file or directory"));
}

TEST(AConnectionThatCannotBeMade, IsOneToANameThatIsNone) {
  for (const std::string& name : {std::string(), std::string(".hidden"), std::string("a/b"), std::string("a\0b", 3),
                                  std::string(limits::serviceNameBytes + 1, 'x')}) {
    EXPECT_FALSE(ipc::isServiceName(name));
    SampleCaller caller(ipc::Connection::toService(name));
    caller.connection().resume();
    EXPECT_EQ(caller.ends().take(), "interruption") << name;
  }
  EXPECT_TRUE(ipc::isServiceName(std::string(limits::serviceNameBytes, 'x')));
  EXPECT_TRUE(ipc::isServiceName("com.example.a b"));
}

TEST(ACallBeforeItsConnectionIsResumed, IsSentThenInOrder) {
  SampleListener listener([](const ipc::Request& request) { request.reply.send(request.value(0)); });
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.call(sample::echo, {Value(1)});
  caller.call(sample::echo, {Value(2)});
  test::settleEventLoop();
  EXPECT_EQ(caller.outcomes().size(), 0U);
  caller.connection().resume();
  caller.call(sample::echo, {Value(3)});
  std::set<std::int64_t> answers;
  for (int call = 0; call < 3; ++call) {
    answers.insert(caller.outcomes().take()->reply->int64Value());
  }
  EXPECT_EQ(answers, (std::set<std::int64_t>{1, 2, 3}));
}

TEST(ACallBeforeItsConnectionIsResumed, FailsWhenThatNeverHappens) {
  SampleCaller caller(ipc::connectAt("/nowhere"));
  caller.call(sample::ping, {});
  caller.release();
  EXPECT_THAT(caller.outcomes().take()->error, HasSubstr("never resumed"));
}

TEST(AConnectionThatNobodyHolds, IsClosedWithoutItsHandlers) {
  test::Mailbox<bool> disconnects;
  SampleListener listener;
  listener.listener().setDisconnectHandler([&](const ipc::Connection&) { disconnects.put(true); });
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  caller.call(sample::ping, {});
  listener.take()->reply.send();
  EXPECT_TRUE(caller.outcomes().take()->reply);
  caller.release();
  EXPECT_TRUE(disconnects.take());
  expectNoMore(caller);
}

TEST(AConnectionThatNobodyHolds, LastsUntilItsCallsAreAnswered) {
  SampleListener listener;
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  caller.call(sample::echo, {Value("late")});
  caller.release();
  const auto request = listener.take();
  test::settleEventLoop();
  request->reply.send(request->value(0));
  EXPECT_EQ(caller.outcomes().take()->reply, Value("late"));
}

TEST(ACall, CountsAnErrorAsAnAbsentReply) {
  SampleListener listener([](const ipc::Request& request) { request.reply.sendError("com.example.Error", "no"); });
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  EXPECT_EQ(caller.ask(sample::echo, {Value(1)}), Value());
}

TEST(ACall, TakesItsArgumentsAsTheyAreWhenItIsMade) {
  SampleListener listener;
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  MutableDictionary dictionary;
  dictionary.set("key", Value("then"));
  caller.call(sample::echo, {Value(dictionary)});
  dictionary.set("key", Value("now"));
  caller.connection().resume();
  EXPECT_EQ(listener.take()->value(0)["key"], Value("then"));
}

TEST(ALimitedConnection, IsInvalidatedByAReplyThatIsTooLong) {
  SampleListener listener(
      [](const ipc::Request& request) { request.reply.send(Value(std::string(request.value(0).uint64Value(), 'x'))); });
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()), sample::limitedInterface);
  caller.connection().resume();
  const std::size_t most = sample::limitedInterface.maximumReplyBytes;
  EXPECT_TRUE(caller.ask(sample::echo, {Value(most - 256)}));
  EXPECT_FALSE(caller.ask(sample::echo, {Value(most)}));
  EXPECT_EQ(caller.ends().take(), "invalidation");
}

TEST(AnUnlimitedConnection, TakesLongReplies) {
  SampleListener listener(
      [](const ipc::Request& request) { request.reply.send(Value(std::string(request.value(0).uint64Value(), 'x'))); });
  listener.resume();
  SampleCaller caller(ipc::connectAt(listener.path()));
  caller.connection().resume();
  const auto reply = caller.ask(sample::echo, {Value(3'000'000)});
  ASSERT_TRUE(reply && reply->isString());
  EXPECT_EQ(reply->string()->size(), 3'000'000U);
}

/// A connection to a service that is nothing but a socket.
class SilentService {
 public:
  SilentService() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    socket_ = FileDescriptor(ends[1]);
    connection_ =
        ipc::Connection::toEndpoint(ipc::Endpoint(std::make_shared<ipc::Endpoint::State>(FileDescriptor(ends[0]))));
  }

  const ipc::Connection& connection() const { return *connection_; }
  void die() { socket_ = FileDescriptor(); }

 private:
  FileDescriptor socket_;
  std::optional<ipc::Connection> connection_;
};

/// A handler that goes on only when it is told to.
class SlowHandler {
 public:
  ~SlowHandler() { finish(); }

  std::function<void()> handler() {
    return [begun = begun_, mayFinish = mayFinish_] {
      begun->put(!ipc::EventLoop::shared().isCurrent());
      mayFinish.wait();
    };
  }
  /// Whether it runs, and where nothing else waits for it.
  bool hasBegun() { return begun_->take() == true; }
  void finish() {
    if (!std::exchange(isFinished_, true)) {
      finish_.set_value();
    }
  }

 private:
  const std::shared_ptr<test::Mailbox<bool>> begun_ = std::make_shared<test::Mailbox<bool>>();
  std::promise<void> finish_;
  const std::shared_future<void> mayFinish_ = finish_.get_future().share();
  bool isFinished_ = false;
};

TEST(AHandlerOfAConnectionsEnd, HoldsUpOnlyTheRequestsThatAreReadLater) {
  SampleListener listener;
  listener.resume();
  test::RawClient client(listener.path());
  ASSERT_TRUE(client.send("ping"));
  ASSERT_TRUE(listener.take());
  SlowHandler slow;
  SilentService service;
  service.connection().setInterruptionHandler(slow.handler());
  service.connection().resume();
  service.die();
  ASSERT_TRUE(slow.hasBegun());
  EXPECT_EQ(client.callAt("/", "org.freedesktop.DBus.Peer", "Ping").error, "");
  ASSERT_TRUE(client.send("ping"));
  EXPECT_EQ(client.callAt("/", "org.freedesktop.DBus.Peer", "Ping").error, "");
  EXPECT_EQ(listener.requests().size(), 0U);
  slow.finish();
  EXPECT_TRUE(listener.take());
}

TEST(AHandlerOfAConnectionsEnd, HasRunBeforeTheCallsFail) {
  test::Mailbox<std::string> errors;
  SlowHandler slow;
  SilentService service;
  service.connection().setInterruptionHandler(slow.handler());
  service.connection().setRemoteInterface(sample::interface);
  service.connection()
      .remoteProxy([&errors](const std::optional<ipc::CallError>& error) { errors.put(error->text); })
      .call(sample::ping, {}, nullptr);
  service.connection().resume();
  test::settleEventLoop();
  service.die();
  ASSERT_TRUE(slow.hasBegun());
  test::settleEventLoop();
  EXPECT_EQ(errors.size(), 0U);
  slow.finish();
  EXPECT_TRUE(errors.take());
}

TEST(AHandlerOfAConnectionsEnd, OfAListenerHoldsUpNoAnswers) {
  SampleListener listener;
  SlowHandler slow;
  listener.listener().setDisconnectHandler([handler = slow.handler()](const ipc::Connection&) { handler(); });
  listener.resume();
  test::RawClient client(listener.path());
  ASSERT_TRUE(client.send("ping"));
  const auto request = listener.take();
  test::RawClient(listener.path()).call("nothing");
  ASSERT_TRUE(slow.hasBegun());
  request->reply.send();
  EXPECT_NE(client.nextReply(), 0U);
}

TEST(AServiceThatRestarts, IsKnownToHaveDiedBeforeItsNextRequestIsDelivered) {
  test::Mailbox<std::string> events;
  SampleListener listener([&events](const ipc::Request&) { events.put("request"); });
  listener.resume();
  test::RawClient client(listener.path());
  for (int round = 0; round < 50; ++round) {
    SilentService service;
    service.connection().setInterruptionHandler([&events] { events.put("death"); });
    service.connection().resume();
    test::settleEventLoop();
    // The loop finds both at once.
    std::promise<void> both;
    ipc::EventLoop::shared().post([&both] { both.get_future().wait(); });
    service.die();
    ASSERT_TRUE(client.send("ping", test::RawClient::nothing, false));
    both.set_value();
    EXPECT_EQ(events.take(), "death");
    EXPECT_EQ(events.take(), "request");
  }
}

}  // namespace
}  // namespace kelvane
