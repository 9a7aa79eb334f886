// SPDX-License-Identifier: Apache-2.0
// Periodic maintenance: whom it asks, how long it waits, what it reports.
#include "operations/KelvanePeriodicOperation.h"

#include <algorithm>
#include <thread>

#include "protocols/Keys.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

constexpr char startName[] = "-[KelvanePeriodicOperation startOperation:]";

class PeriodicMaintenance : public OperationTest {
 protected:
  Value perform(const ServiceTable& services, Value::Dictionary info = {}) {
    info[keys::volume] = volume;
    operation = KelvanePeriodicOperation::initWithInfo(info, services);
    Value result;
    const std::uint64_t start = clock::ticks();
    operation->startOperation([&](const Value& value) { result = value; });
    seconds = secondsSince(start);
    return result;
  }

  static Value amount(std::uint64_t bytes) { return Value::Dictionary{{keys::amount, bytes}}; }

  std::shared_ptr<KelvanePeriodicOperation> operation;
  double seconds = 0;
};

TEST_F(PeriodicMaintenance, EndsWhenTheOnlyServiceHasAnswered) {
  run([&] {
    ScriptedService service("a");
    service.onPeriodic = ScriptedService::gives(4096);
    EXPECT_EQ(perform(tableOf({service.record()})), amount(4096));
    EXPECT_EQ(seconds, 0.0);
    EXPECT_FALSE(log().contains("timed out waiting for"));
    EXPECT_EQ(log().textsOf(startName),
              std::vector<std::string>{std::string(startName) + " CallService with serviceID: a"});
    EXPECT_EQ(log().textsOf(std::string(startName) + "_block"),
              (std::vector<std::string>{
                  std::string(startName) + "_block calling proxy for a",
                  std::string(startName) + "_block proxy a replied, purged: { KELVANE_AMOUNT = 4096; }"}));
  });
}

TEST_F(PeriodicMaintenance, AsksNobodyWhoDeclaredPeriodicWorkOrDoesNotPurge) {
  run([&] {
    ScriptedService periodic("a");
    const auto first = periodic.record();
    first->setDoesPeriodic(true);
    ScriptedService idle("b");
    const auto second = idle.record();
    second->setDoesPurge(false);
    EXPECT_EQ(perform(tableOf({first, second})), amount(0));
    EXPECT_EQ(seconds, 15.0);
    EXPECT_TRUE(periodic.calls().empty());
    EXPECT_TRUE(idle.calls().empty());
    EXPECT_TRUE(log().contains(std::string(startName) + " timed out waiting for: ( )"));
  });
}

TEST_F(PeriodicMaintenance, ReportsTheLastFigureAndNoSum) {
  run([&] {
    ScriptedService first("a");
    first.onPeriodic = ScriptedService::gives(100);
    ScriptedService second("b");
    second.onPeriodic = [](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(1000);
      request.reply.send(Value::Dictionary{{keys::amount, 50}});
    };
    EXPECT_EQ(perform(tableOf({first.record(), second.record()})), amount(50));
  });
}

TEST_F(PeriodicMaintenance, WaitsForAllThoughOneHasAnsweredBeforeTheNextWasAsked) {
  bool hasOvertaken = false;
  // Some orders have the first answer come while the second service has not been put in flight.
  for (std::uint64_t seed = 1; seed <= 3000 && !hasOvertaken; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          ScriptedService quick("a");
          quick.onPeriodic = ScriptedService::gives(100);
          ScriptedService slow("b");
          slow.onPeriodic = [](const ScriptedService::Request& request) {
            clock::sleepMicroseconds(5'000'000);
            request.reply.send(Value::Dictionary{{keys::amount, 50}});
          };
          EXPECT_EQ(perform(tableOf({quick.record(), slow.record()})), amount(50));
          EXPECT_EQ(seconds, 5.0);
          const auto lines = log().texts(5);
          const auto find = [&](const std::string& part) {
            return std::ranges::find_if(lines,
                                        [&](const std::string& line) { return line.find(part) != std::string::npos; });
          };
          hasOvertaken = hasOvertaken || find("removing a") < find("adding b");
        },
        seed);
  }
  EXPECT_TRUE(hasOvertaken);
}

TEST_F(PeriodicMaintenance, WaitsFifteenSecondsForAServiceThatNeverAnswers) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPeriodic = ScriptedService::silence();
    ScriptedService other("other");
    other.onPeriodic = ScriptedService::gives(7);
    EXPECT_EQ(perform(tableOf({silent.record(), other.record()})), amount(7));
    EXPECT_EQ(seconds, 15.0);
    EXPECT_TRUE(log().contains(std::string(startName) + " timed out waiting for: ( silent )"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(PeriodicMaintenance, WaitsNoLongerForASilentServiceWhenAnotherAnswersLate) {
  run([&] {
    ScriptedService slow("slow");
    slow.onPeriodic = [](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(5'000'000);
      request.reply.send(Value::Dictionary{{keys::amount, 1}});
    };
    ScriptedService silent("silent");
    silent.onPeriodic = ScriptedService::silence();
    perform(tableOf({slow.record(), silent.record()}));
    EXPECT_EQ(seconds, 15.0);
  });
}

TEST_F(PeriodicMaintenance, WaitsForAServiceWhoseConnectionFails) {
  run([&] {
    ScriptedService dying("dying");
    // Late enough for a wait that were begun anew to be noticed.
    dying.onPeriodic = [](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(5'000'000);
      request.connection.invalidate();
    };
    EXPECT_EQ(perform(tableOf({dying.record()})), amount(0));
    EXPECT_EQ(seconds, 15.0);
    EXPECT_EQ(operation->inFlightCount(), 1u);
    EXPECT_TRUE(log().contains(std::string(startName) + "_block connection invalidated"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(PeriodicMaintenance, CountsAnAnswerWithoutANumberAsAnAnswer) {
  run([&] {
    ScriptedService service("a");
    service.onPeriodic = ScriptedService::gives("4096");
    EXPECT_EQ(perform(tableOf({service.record()})), amount(0));
    EXPECT_EQ(seconds, 0.0);
  });
}

TEST_F(PeriodicMaintenance, KeepsTheFigureOfAnEarlierServiceWhenALaterOneGivesNone) {
  run([&] {
    ScriptedService first("a");
    first.onPeriodic = ScriptedService::gives(100);
    ScriptedService second("b");
    second.onPeriodic = [](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(1000);
      request.reply.send(Value::Dictionary{{keys::amount, "50"}});
    };
    EXPECT_EQ(perform(tableOf({first.record(), second.record()})), amount(100));
  });
}

TEST_F(PeriodicMaintenance, AsksAllServicesAtTheSameTime) {
  run([&] {
    const auto slow = [](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(10'000'000);
      request.reply.send(Value::Dictionary{{keys::amount, 1}});
    };
    ScriptedService a("a");
    a.onPeriodic = slow;
    ScriptedService b("b");
    b.onPeriodic = slow;
    perform(tableOf({a.record(), b.record()}));
    EXPECT_EQ(seconds, 10.0);
  });
}

TEST_F(PeriodicMaintenance, SkipsAServiceThatIsInFlightAlready) {
  run([&] {
    ScriptedService service("a");
    operation =
        KelvanePeriodicOperation::initWithInfo(Value::Dictionary{{keys::volume, volume}}, tableOf({service.record()}));
    operation->updateInFlight("a", true);
    const std::uint64_t start = clock::ticks();
    operation->startOperation([](const Value&) {});
    EXPECT_EQ(secondsSince(start), 15.0);
    EXPECT_TRUE(service.calls().empty());
    EXPECT_FALSE(log().contains("CallService with serviceID"));
    EXPECT_TRUE(log().contains("trying to add \"a\", which is already inFlight"));
  });
}

TEST_F(PeriodicMaintenance, CompletesOnTheThreadThatStartedIt) {
  run([&] {
    ScriptedService service("a");
    operation =
        KelvanePeriodicOperation::initWithInfo(Value::Dictionary{{keys::volume, volume}}, tableOf({service.record()}));
    std::vector<std::thread::id> threads;
    operation->startOperation([&](const Value&) { threads.push_back(std::this_thread::get_id()); });
    EXPECT_EQ(threads, std::vector<std::thread::id>{std::this_thread::get_id()});
  });
}

TEST_F(PeriodicMaintenance, AsksAtUrgencyThreeWhateverTheInfoSays) {
  run([&] {
    ScriptedService service("a");
    perform(tableOf({service.record()}), {{keys::urgency, 1}, {keys::urgencyLimit, 4}});
    EXPECT_EQ(service.calls(), std::vector<std::string>{"servicePeriodic 3"});
    EXPECT_EQ(service.infos().front(), operation->info());
  });
}

TEST_F(PeriodicMaintenance, TakesLateAnswersWithoutFurtherEffect) {
  run([&] {
    ScriptedService late("late");
    std::optional<ipc::Reply> held;
    late.onPeriodic = [&](const ScriptedService::Request& request) { held = request.reply; };
    EXPECT_EQ(perform(tableOf({late.record()})), amount(0));
    held->send(Value::Dictionary{{keys::amount, 5}});
    simulation->settle();
    EXPECT_EQ(operation->inFlightCount(), 0u);
  });
}

TEST_F(PeriodicMaintenance, IsNotMadeFromARefusedInfo) {
  run([&] { EXPECT_EQ(KelvanePeriodicOperation::initWithInfo(Value::Dictionary{}, {}), nullptr); });
}

}  // namespace
}  // namespace kelvane::test
