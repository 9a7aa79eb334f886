// SPDX-License-Identifier: Apache-2.0
// Calling a service: when the work, its completion and the error block run, and how often.
#include "support/CallService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using simulated::CallFailure;
using testing::ElementsAre;
using testing::IsEmpty;

class ACallToAService : public OperationTest {
 protected:
  static constexpr std::uint64_t seeds = 30;

  /// Runs the body under several schedules.
  void runManyTimes(const std::function<void()>& body) {
    for (std::uint64_t seed = 0; seed < seeds; ++seed) {
      SCOPED_TRACE(seed);
      events.clear();
      run(body, seed);
    }
  }

  /// Pings, and writes down what becomes of it.
  void ping(const std::shared_ptr<KLService>& record) {
    CallServiceAsync(
        record,
        [this](const KelvaneServiceProxy& proxy, const Block& completion) {
          proxy.servicePing([this, completion] {
            completion();
            events.emplace_back("completed");
          });
        },
        [this] { events.emplace_back("error"); });
  }

  /// Pings while the service's next call fails in this way, and lets it end.
  void pingFailing(CallFailure failure) {
    ScriptedService service("a");
    simulation->ipc().failNextCall(std::string(KelvaneServiceProtocol::servicePing.name), failure);
    ping(service.record());
    simulation->settle();
  }

  std::vector<std::string> events;
};

TEST_F(ACallToAService, CompletesWithoutAnError) {
  runManyTimes([&] {
    ScriptedService service("a");
    ping(service.record());
    simulation->settle();
    EXPECT_THAT(events, ElementsAre("completed"));
    EXPECT_THAT(service.calls(), ElementsAre("servicePing"));
  });
}

TEST_F(ACallToAService, ReturnsBeforeItsWorkIsDone) {
  run([&] {
    ScriptedService service("a");
    const auto record = service.record();
    record->call_queue().suspend();
    ping(record);
    CallService(
        record, [this](const KelvaneServiceProxy&, const Block&) { events.emplace_back("work"); }, [] {});
    simulation->settle();
    EXPECT_THAT(events, IsEmpty());
    record->call_queue().resume();
    simulation->settle();
    EXPECT_THAT(events, testing::UnorderedElementsAre("work", "completed"));
  });
}

TEST_F(ACallToAService, RunsNoBlockOnItsCallersThread) {
  runManyTimes([&] {
    ScriptedService service("a");
    const auto alive = service.record();
    const auto dead = service.record();
    dead->vexConn()->invalidate();
    const std::thread::id caller = std::this_thread::get_id();
    int blocks = 0;
    const auto work = [&](const KelvaneServiceProxy& proxy, const Block& completion) {
      EXPECT_NE(std::this_thread::get_id(), caller);
      ++blocks;
      proxy.servicePing(completion);
    };
    const auto error = [&] {
      EXPECT_NE(std::this_thread::get_id(), caller);
      ++blocks;
    };
    CallServiceAsync(alive, work, error);
    CallServiceAsync(dead, work, error);
    CallService(dead, work, error);
    simulation->settle();
    EXPECT_EQ(blocks, 5);
  });
}

TEST_F(ACallToAService, RunsItsErrorBlockWhenTheConnectionFailsBeforeTheRequest) {
  runManyTimes([&] {
    pingFailing(CallFailure::Before);
    EXPECT_THAT(events, ElementsAre("error"));
  });
}

TEST_F(ACallToAService, RunsItsErrorBlockWhenTheConnectionFailsDuringTheRequest) {
  runManyTimes([&] {
    pingFailing(CallFailure::During);
    EXPECT_THAT(events, ElementsAre("error"));
  });
}

TEST_F(ACallToAService, RunsNoErrorBlockWhenTheConnectionFailsAfterTheReply) {
  runManyTimes([&] {
    pingFailing(CallFailure::After);
    EXPECT_THAT(events, ElementsAre("completed"));
  });
}

TEST_F(ACallToAService, RunsItsErrorBlockWhenTheConnectionHasEndedAlready) {
  runManyTimes([&] {
    ScriptedService service("a");
    const auto record = service.record();
    record->vexConn()->invalidate();
    simulation->settle();
    ping(record);
    simulation->settle();
    EXPECT_THAT(events, ElementsAre("error"));
  });
}

TEST_F(ACallToAService, RunsTheErrorBlocksOfAllThatAreOutstandingWhenTheConnectionIsInvalidated) {
  runManyTimes([&] {
    ScriptedService service("a");
    service.onPing = ScriptedService::silence();
    const auto record = service.record();
    for (int i = 0; i < 3; ++i) {
      ping(record);
    }
    simulation->settle();
    EXPECT_THAT(events, IsEmpty());
    record->vexConn()->invalidate();
    simulation->settle();
    EXPECT_THAT(events, ElementsAre("error", "error", "error"));
  });
}

TEST_F(ACallToAService, WaitsForAnAnswerWithoutLimit) {
  run([&] {
    ScriptedService service("a");
    service.onPing = ScriptedService::silence();
    ping(service.record());
    clock::sleepMicroseconds(4'000'000'000);
    EXPECT_THAT(events, IsEmpty());
  });
}

TEST_F(ACallToAService, RunsItsErrorBlockOnceForAllItsRequests) {
  runManyTimes([&] {
    ScriptedService service("a");
    service.onPing = ScriptedService::silence();
    const auto record = service.record();
    CallServiceAsync(
        record,
        [](const KelvaneServiceProxy& proxy, const Block&) {
          proxy.servicePing([] {});
          proxy.servicePing([] {});
        },
        [this] { events.emplace_back("error"); });
    simulation->settle();
    record->vexConn()->invalidate();
    simulation->settle();
    EXPECT_THAT(events, ElementsAre("error"));
  });
}

TEST_F(ACallToAService, RunsNoErrorBlockOnceItIsCompleted) {
  runManyTimes([&] {
    ScriptedService service("a");
    service.onPing = ScriptedService::silence();
    const auto record = service.record();
    CallServiceAsync(
        record,
        [](const KelvaneServiceProxy& proxy, const Block& completion) {
          proxy.servicePing([] {});
          completion();
        },
        [this] { events.emplace_back("error"); });
    simulation->settle();
    record->vexConn()->invalidate();
    simulation->settle();
    EXPECT_THAT(events, IsEmpty());
  });
}

TEST_F(ACallToAService, HoldsItsRecordUntilItIsSent) {
  run([&] {
    ScriptedService service("a");
    auto record = service.record();
    const std::weak_ptr<KLService> weak = record;
    ping(record);
    record.reset();
    simulation->settle();
    EXPECT_THAT(events, ElementsAre("completed"));
    EXPECT_TRUE(weak.expired());
  });
}

TEST_F(ACallToAService, ArrivesAfterThoseMadeBeforeIt) {
  runManyTimes([&] {
    ScriptedService service("a");
    const auto record = service.record();
    std::vector<Value> expected;
    for (int i = 0; i < 8; ++i) {
      const Value notification = Value::Dictionary{{"number", i}};
      expected.push_back(notification);
      CallServiceAsync(
          record,
          [notification](const KelvaneServiceProxy& proxy, const Block& completion) {
            proxy.serviceNotify(notification, completion);
          },
          [] {});
    }
    simulation->settle();
    EXPECT_EQ(service.infos(), expected);
  });
}

TEST_F(ACallToAService, IsNotHeldUpByAnotherService) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPing = ScriptedService::silence();
    ScriptedService service("a");
    const auto stuck = silent.record();
    stuck->call_queue().suspend();
    ping(stuck);
    ping(service.record());
    simulation->settle();
    EXPECT_THAT(events, ElementsAre("completed"));
    stuck->call_queue().resume();
  });
}

/// What the three requests that are answered with a dictionary give their callers.
class AnAnswerOfAService : public OperationTest {
 protected:
  using Request = void (KelvaneServiceProxy::*)(std::int32_t, const Value&, KelvaneServiceProxy::Reply) const;

  std::vector<Value> answers(const ScriptedService::Handler& handler) {
    ScriptedService service("a");
    service.onPurge = service.onPeriodic = service.onPurgeable = handler;
    const auto record = service.record();
    std::vector<Value> given;
    for (const Request request : {&KelvaneServiceProxy::servicePurge, &KelvaneServiceProxy::servicePeriodic,
                                  &KelvaneServiceProxy::servicePurgeable}) {
      CallServiceAsync(
          record,
          [&given, request](const KelvaneServiceProxy& proxy, const Block& completion) {
            (proxy.*request)(2, Value::Dictionary{{"key", 1}}, [&given, completion](const Value& answer) {
              completion();
              given.push_back(answer);
            });
          },
          [] { ADD_FAILURE() << "an answer is no failure"; });
    }
    simulation->settle();
    EXPECT_THAT(service.calls(), ElementsAre("servicePurge 2", "servicePeriodic 2", "servicePurgeable 2"));
    EXPECT_EQ(service.infos(), std::vector<Value>(3, Value::Dictionary{{"key", 1}}));
    return given;
  }

  static ScriptedService::Handler sends(const Value& value) {
    return [value](const ScriptedService::Request& request) { request.reply.send(value); };
  }
};

TEST_F(AnAnswerOfAService, IsGivenAsItCame) {
  run([&] {
    const Value dictionary = Value::Dictionary{{keys::amount, 7}, {"other", Value::Array{"x"}}};
    EXPECT_EQ(answers(sends(dictionary)), std::vector<Value>(3, dictionary));
    EXPECT_EQ(answers(sends(Value::Dictionary{})), std::vector<Value>(3, Value::Dictionary{}));
  });
}

TEST_F(AnAnswerOfAService, ThatIsNoDictionaryIsGivenAsNothing) {
  run([&] {
    for (const Value& other :
         {Value(), Value("text"), Value(7), Value(true), Value(Value::Array{"x"}), Value(Data{1})}) {
      EXPECT_EQ(answers(sends(other)), std::vector<Value>(3)) << other.description();
    }
  });
}

TEST_F(AnAnswerOfAService, ThatIsADBusErrorIsGivenAsNothing) {
  run([&] {
    EXPECT_EQ(answers([](const ScriptedService::Request& request) {
                request.reply.sendError("org.freedesktop.DBus.Error.Failed", "no");
              }),
              std::vector<Value>(3));
  });
}

TEST_F(AnAnswerOfAService, ComesOnceHoweverOftenItIsSent) {
  run([&] {
    EXPECT_EQ(answers([](const ScriptedService::Request& request) {
                request.reply.send(Value::Dictionary{{"first", 1}});
                request.reply.send(Value::Dictionary{{"second", 2}});
              }),
              std::vector<Value>(3, Value::Dictionary{{"first", 1}}));
  });
}

}  // namespace
}  // namespace kelvane::test
