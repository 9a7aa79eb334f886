// SPDX-License-Identifier: Apache-2.0
// Dispatch: purges and queries one after the other, what their callers get, periodic work.
#include <gtest/gtest.h>

#include <set>

#include "protocols/Keys.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

class Dispatch : public DaemonTest {
 protected:
  static Value purgeInfo(std::uint64_t amount, Value::Dictionary more = {}) {
    more[keys::volume] = volume;
    more[keys::amount] = amount;
    more[keys::urgency] = 1;
    return more;
  }
  static Value queryInfo() { return Value::Dictionary{{keys::volume, volume}}; }
};

TEST_F(Dispatch, RunsAPurgeWithoutATokenAndMakesNoneUp) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = freesWhatIsAsked();
    checkIn(TestClient(), service);
    const Value result = kelvane->purge(purgeInfo(100), nullptr);
    EXPECT_TRUE(result.isDictionary());
    EXPECT_FALSE(result.contains("KELVANE_TOKEN"));
    ASSERT_EQ(service.infos().size(), 1u);
    EXPECT_FALSE(service.infos()[0].contains("KELVANE_TOKEN"));
  });
}

TEST_F(Dispatch, PassesAPurgesTokenOn) {
  runDaemon([&] {
    EXPECT_EQ(kelvane->purge(purgeInfo(100, {{"KELVANE_TOKEN", "t"}}), nullptr)["KELVANE_TOKEN"], Value("t"));
  });
}

TEST_F(Dispatch, RunsPurgesOneAfterTheOther) {
  runDaemon([&] {
    const std::uint64_t start = clock::ticks();
    std::vector<double> ends;
    const Group group;
    for (int i = 0; i < 2; ++i) {
      group.asyncGlobal([&] {
        kelvane->purge(purgeInfo(100), nullptr);
        ends.push_back(secondsSince(start));
      });
    }
    group.wait();
    // Each waits out its one pass of two seconds; the second caller's wait includes the first purge.
    EXPECT_EQ(ends, (std::vector<double>{2.0, 4.0}));
  });
}

TEST_F(Dispatch, RunsPurgesOnThePurgeQueue) {
  runDaemon([&] {
    kelvane->purge_queue().suspend();
    bool returned = false;
    globalQueue::async([&] {
      kelvane->purge(purgeInfo(100), nullptr);
      returned = true;
    });
    clock::sleepMicroseconds(60'000'000);
    EXPECT_FALSE(log().contains("KelvanePurgeOperation"));
    kelvane->purge_queue().resume();
    clock::sleepMicroseconds(60'000'000);
    EXPECT_TRUE(returned);
  });
}

TEST_F(Dispatch, NotesAPurgeOnTheCollectionQueueBeforeItStarts) {
  runDaemon([&] {
    kelvane->purge_queue().suspend();
    const Group purge;
    purge.asyncGlobal([&] { kelvane->purge(purgeInfo(100), nullptr); });
    simulation->settle();
    kelvane->collection_queue().suspend();
    kelvane->purge_queue().resume();
    simulation->settle();
    EXPECT_FALSE(log().contains("startOperation:"));
    kelvane->collection_queue().resume();
    purge.wait();
    EXPECT_TRUE(log().contains("startOperation:"));
  });
}

TEST_F(Dispatch, ForgetsAPurgeOnTheCollectionQueueBeforeItsCallerReturns) {
  runDaemon([&] {
    bool delivered = false;
    bool returned = false;
    const Group purge;
    purge.asyncGlobal([&] {
      kelvane->purge(purgeInfo(100), [&](const Value&) { delivered = true; });
      returned = true;
    });
    simulation->settle();
    kelvane->collection_queue().suspend();
    clock::sleepMicroseconds(60'000'000);
    EXPECT_TRUE(delivered);
    EXPECT_FALSE(returned);
    kelvane->collection_queue().resume();
    purge.wait();
    EXPECT_TRUE(returned);
  });
}

TEST_F(Dispatch, LetsPeriodicWorkRunBesideAPurge) {
  runDaemon([&] {
    const Group purge;
    purge.asyncGlobal([&] { kelvane->purge(purgeInfo(100, {{keys::purgeTimeout, 300}}), nullptr); });
    simulation->settle();
    const std::uint64_t start = clock::ticks();
    const Group periodic;
    for (int i = 0; i < 2; ++i) {
      periodic.asyncGlobal([&] { kelvane->performPeriodicsWithInfo(Value::Dictionary{{keys::volume, volume}}); });
    }
    periodic.wait();
    EXPECT_EQ(secondsSince(start), 15.0);
    purge.wait();
    EXPECT_EQ(secondsSince(start), 300.0);
  });
}

TEST_F(Dispatch, GivesACallbackEverythingThatIsDelivered) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = frees(40);
    checkIn(TestClient(), service);
    std::vector<Value> delivered;
    const Value result = kelvane->purge(purgeInfo(100), [&](const Value& value) { delivered.push_back(value); });
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(delivered[0][keys::amount], Value(std::uint64_t{40}));
    EXPECT_FALSE(delivered[0].contains(keys::freespaceEnd));
    EXPECT_EQ(delivered[1], result);
    EXPECT_TRUE(result.contains(keys::freespaceEnd));
  });
}

TEST_F(Dispatch, GivesACallbackAnAnswerThatComesAfterThePurgeHasReturned) {
  runDaemon([&] {
    ScriptedService late("late");
    std::optional<ipc::Reply> held;
    late.onPurge = [&](const ScriptedService::Request& request) { held = request.reply; };
    checkIn(TestClient(), late);
    std::vector<Value> delivered;
    kelvane->purge(purgeInfo(100), [&](const Value& value) { delivered.push_back(value); });
    EXPECT_EQ(delivered.size(), 1u);
    held->send(Value::Dictionary{{keys::amount, 9}});
    simulation->settle();
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(delivered[1][keys::amount], Value(9));
  });
}

TEST_F(Dispatch, KeepsAResultAfterItsCallbackHasReturned) {
  runDaemon([&] {
    ScriptedService late("late");
    std::optional<ipc::Reply> held;
    late.onPurge = [&](const ScriptedService::Request& request) { held = request.reply; };
    checkIn(TestClient(), late);
    std::vector<bool> final;
    const Value result = kelvane->purge(purgeInfo(100), [&](const Value& value) {
      final.push_back(value.contains(keys::freespaceEnd));
      if (final.back()) {
        held->send(Value::Dictionary{{keys::amount, 9}});
        simulation->settle();
      }
    });
    // The answer was delivered within the result's callback, so the result was kept after it.
    EXPECT_EQ(final, (std::vector<bool>{true, false}));
    EXPECT_TRUE(result.contains(keys::freespaceEnd));
  });
}

// A service's answer that is delivered after the result and before the caller reads it takes the result's place.
TEST_F(Dispatch, KeepsWhateverWasDeliveredLast) {
  std::set<bool> gotResult;
  for (std::uint64_t seed = 1; seed <= 300 && gotResult.size() < 2; ++seed) {
    runDaemon(
        [&] {
          ScriptedService late("late");
          late.onPurge = [](const ScriptedService::Request& request) {
            // Just when the pass times out.
            globalQueue::async([request] {
              clock::sleepMicroseconds(2'000'000);
              request.reply.send(Value::Dictionary{{keys::amount, 9}});
            });
          };
          checkIn(TestClient(), late);
          const Value result = kelvane->purge(purgeInfo(100), nullptr);
          gotResult.insert(result.contains(keys::freespaceEnd));
          clock::sleepMicroseconds(1'000'000);
        },
        seed);
  }
  EXPECT_EQ(gotResult, (std::set<bool>{false, true}));
}

TEST_F(Dispatch, GivesNoResultAndDoesNotBlockWhenTheInfoIsRefused) {
  runDaemon([&] {
    const std::uint64_t start = clock::ticks();
    int delivered = 0;
    EXPECT_TRUE(kelvane->purge("no dictionary", [&](const Value&) { ++delivered; }).isAbsent());
    EXPECT_TRUE(kelvane->purge(Value::Dictionary{{keys::volume, 3}}, nullptr).isAbsent());
    EXPECT_EQ(delivered, 0);
    EXPECT_EQ(clock::ticks(), start);
  });
}

TEST_F(Dispatch, LetsARefusedPurgeWaitItsTurnBehindOneThatRuns) {
  runDaemon([&] {
    const std::uint64_t start = clock::ticks();
    const Group group;
    group.asyncGlobal([&] { kelvane->purge(purgeInfo(100), nullptr); });
    simulation->settle();
    EXPECT_TRUE(kelvane->purge("no dictionary", nullptr).isAbsent());
    EXPECT_EQ(secondsSince(start), 2.0);
    group.wait();
  });
}

TEST_F(Dispatch, HandsAPurgeASnapshotOfTheServices) {
  runDaemon([&] {
    ScriptedService first("a");
    ScriptedService second("b");
    first.onPurge = ScriptedService::silence();
    const TestClient client;
    checkIn(client, first);
    const Group purge;
    purge.asyncGlobal([&] {
      kelvane->purge(Value::Dictionary{{keys::volume, volume}, {keys::amount, 100}, {keys::urgency, 2}}, nullptr);
    });
    simulation->settle();
    checkIn(client, second);
    purge.wait();
    // It checked in during the first pass; the second pass does not know of it.
    EXPECT_EQ(second.calls(), std::vector<std::string>{"servicePing"});
  });
}

TEST_F(Dispatch, TakesAPurgesSnapshotWhenItIsAskedForNotWhenItsTurnComes) {
  runDaemon([&] {
    kelvane->purge_queue().suspend();
    const Group purge;
    purge.asyncGlobal([&] { kelvane->purge(purgeInfo(100), nullptr); });
    simulation->settle();
    ScriptedService service("a");
    checkIn(TestClient(), service);
    kelvane->purge_queue().resume();
    purge.wait();
    EXPECT_EQ(service.calls(), std::vector<std::string>{"servicePing"});
  });
}

TEST_F(Dispatch, TakesAPurgesSnapshotAfterTheCheckInsThatAreUnderWay) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives(0);
    std::optional<ipc::Reply> pong;
    service.onPing = [&](const ScriptedService::Request& request) { pong = request.reply; };
    const TestClient client;
    client.checkIn("a", service.endpoint(), Value::Dictionary{{"PURGE", true}});
    simulation->settle();
    const Group purge;
    purge.asyncGlobal([&] { kelvane->purge(purgeInfo(100), nullptr); });
    simulation->settle();
    pong->send();
    purge.wait();
    // Only after its pong it is known to purge.
    EXPECT_EQ(service.count("servicePurge 1"), 1u);
  });
}

TEST_F(Dispatch, RunsQueriesOneAfterTheOtherOnTheirQueue) {
  runDaemon([&] {
    ScriptedService silent("silent");
    silent.onPurgeable = ScriptedService::silence();
    checkIn(TestClient(), silent);
    const std::uint64_t start = clock::ticks();
    std::vector<double> ends;
    const Group group;
    kelvane->purgeable_queue().suspend();
    for (int i = 0; i < 2; ++i) {
      group.asyncGlobal([&] {
        EXPECT_TRUE(kelvane->totalAvailable(queryInfo()).isDictionary());
        ends.push_back(secondsSince(start));
      });
    }
    simulation->settle();
    EXPECT_FALSE(log().contains("KelvanePurgeableOperation"));
    kelvane->purgeable_queue().resume();
    group.wait();
    EXPECT_EQ(ends, (std::vector<double>{0.15, 0.3}));
  });
}

TEST_F(Dispatch, LetsAQueryRunBesideAPurge) {
  runDaemon([&] {
    const Group purge;
    purge.asyncGlobal([&] { kelvane->purge(purgeInfo(100, {{keys::purgeTimeout, 300}}), nullptr); });
    simulation->settle();
    const std::uint64_t start = clock::ticks();
    EXPECT_TRUE(kelvane->totalAvailable(queryInfo()).isDictionary());
    EXPECT_EQ(secondsSince(start), 0.0);
    purge.wait();
    EXPECT_EQ(secondsSince(start), 300.0);
  });
}

TEST_F(Dispatch, HandsAQueryTheServicesOfTheMomentItRuns) {
  runDaemon([&] {
    kelvane->purgeable_queue().suspend();
    Value result;
    const Group query;
    query.asyncGlobal([&] { result = kelvane->totalAvailable(queryInfo()); });
    simulation->settle();
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(7);
    checkIn(TestClient(), service);
    kelvane->purgeable_queue().resume();
    query.wait();
    EXPECT_EQ(result["a"], Value(7));
  });
}

TEST_F(Dispatch, GivesAQueryNoResultAndDoesNotBlockWhenTheInfoIsRefused) {
  runDaemon([&] {
    const std::uint64_t start = clock::ticks();
    EXPECT_TRUE(kelvane->totalAvailable("no dictionary").isAbsent());
    EXPECT_TRUE(kelvane->totalAvailable(Value::Dictionary{}).isAbsent());
    EXPECT_TRUE(kelvane->totalAvailable(Value::Dictionary{{keys::volume, "/nowhere"}}).isAbsent());
    EXPECT_EQ(clock::ticks(), start);
  });
}

TEST_F(Dispatch, OnlyLogsTheResultOfPeriodicWork) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPeriodic = ScriptedService::gives(4096);
    checkIn(TestClient(), service);
    kelvane->performPeriodicsWithInfo(Value::Dictionary{{keys::volume, volume}});
    EXPECT_TRUE(log().contains("-[Kelvane performPeriodicsWithInfo:]_block result: { KELVANE_AMOUNT = 4096; }"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(Dispatch, DoesNothingPeriodicForARefusedInfo) {
  runDaemon([&] {
    const std::uint64_t start = clock::ticks();
    kelvane->performPeriodicsWithInfo(Value::Dictionary{});
    EXPECT_EQ(clock::ticks(), start);
    EXPECT_FALSE(log().contains("result:"));
  });
}

TEST_F(Dispatch, CountsTheMembersOfACollection) {
  runDaemon([&] {
    EXPECT_EQ(kelvane->requestsInFlight(Value::Array{"a", "b"}), 2);
    EXPECT_EQ(kelvane->requestsInFlight(Value::Dictionary{{"a", 1}}), 1);
    EXPECT_EQ(kelvane->requestsInFlight(Value()), 0);
    kelvane->collection_queue().suspend();
    bool counted = false;
    globalQueue::async([&] { counted = kelvane->requestsInFlight(Value::Array{"a"}) == 1; });
    simulation->settle();
    EXPECT_FALSE(counted);
    kelvane->collection_queue().resume();
    simulation->settle();
    EXPECT_TRUE(counted);
  });
}

}  // namespace
}  // namespace kelvane::test
