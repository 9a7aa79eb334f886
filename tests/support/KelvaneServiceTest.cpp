// SPDX-License-Identifier: Apache-2.0
// What a service made with the library answers.
#include <gmock/gmock.h>

#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "tests/harness/PrintValue.h"
#include "tests/support/ServiceAndDaemon.h"

namespace kelvane::test {
namespace {

namespace protocol = KelvaneServiceProtocol;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int seeds = 20;
constexpr char identifier[] = "com.example.cache";
const KelvaneServiceConfiguration named = {.identifier = identifier,
                                           .manner = KelvaneServiceConfiguration::Manner::Named};

Value amount(std::uint64_t bytes) {
  return Value::Dictionary{{keys::amount, bytes}};
}

/// A service that has checked in; ended by the body or after it.
void withService(const std::function<void(Simulation&, ScriptedDaemon&, TestedService&)>& body) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    ScriptedDaemon daemon(simulation);
    TestedService service({.identifier = identifier});
    simulation.run([&] {
      daemon.launch();
      service.start();
      simulation.settle();
      body(simulation, daemon, service);
      service.stop();
      // What is cancelled looks up every 10 ms.
      simulation.advance(milliseconds(20));
      EXPECT_TRUE(service.hasEnded());
    });
  }
}

/// Frees a unit every 10 ms until it is cancelled or has freed the amount.
std::uint64_t purgeSlowly(const SpaceRequest& request, const Cancellation& cancellation) {
  std::uint64_t freed = 0;
  const Semaphore never(0);
  while (freed < request.amount && !cancellation.isCancelled()) {
    static_cast<void>(never.wait(milliseconds(10)));
    ++freed;
  }
  return freed;
}

TEST(AService, IsGivenWhatTheDaemonAsks) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    std::vector<std::string> asked;
    service.onPurge = [&](const SpaceRequest& request, const Cancellation&) {
      asked.push_back(std::to_string(request.urgency) + " " + request.volume + " " + std::to_string(request.amount) +
                      " " + request.info["extra"].description());
      return request.amount;
    };
    const auto outcome = daemon.call(
        protocol::servicePurge,
        {Value(3), Value(Value::Dictionary{{keys::volume, "/data"}, {keys::amount, 500}, {"extra", "more"}})});
    simulation.settle();
    EXPECT_THAT(asked, ElementsAre("3 /data 500 more"));
    EXPECT_EQ(outcome->value, amount(500));
  });
}

TEST(AService, TakesAVolumeOrAmountOfTheWrongTypeForNone) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    std::vector<std::string> asked;
    service.onPurge = [&](const SpaceRequest& request, const Cancellation&) -> std::uint64_t {
      asked.push_back("\"" + request.volume + "\" " + std::to_string(request.amount));
      return 0;
    };
    daemon.call(protocol::servicePurge,
                {Value(1), Value(Value::Dictionary{{keys::volume, 7}, {keys::amount, "many"}})});
    simulation.settle();
    EXPECT_THAT(asked, ElementsAre("\"\" 0"));
  });
}

TEST(AService, AnswersAPurgeWithTheBytesFreed) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPurge = [](const SpaceRequest&, const Cancellation&) -> std::uint64_t { return 42; };
    const auto outcome = daemon.call(protocol::servicePurge, spaceArguments(1, 100));
    simulation.settle();
    EXPECT_EQ(outcome->value, amount(42));
  });
}

TEST(AService, AnswersPeriodicWorkWithTheBytesFreed) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPeriodic = [](const SpaceRequest&, const Cancellation&) -> std::uint64_t { return 43; };
    const auto outcome = daemon.call(protocol::servicePeriodic, spaceArguments(3, 0));
    simulation.settle();
    EXPECT_EQ(outcome->value, amount(43));
  });
}

TEST(AService, AnswersAQueryWithTheBytesItCouldFree) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPurgeable = [](const SpaceRequest& request, const Cancellation&) {
      return std::optional<std::uint64_t>(static_cast<std::uint64_t>(request.urgency) * 10);
    };
    const auto outcome = daemon.call(protocol::servicePurgeable, spaceArguments(2, 0));
    simulation.settle();
    EXPECT_EQ(outcome->value, amount(20));
  });
}

TEST(AService, OptsOutOfQueriesWhenItHasNoAnswer) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService&) {
    const auto outcome = daemon.call(protocol::servicePurgeable, spaceArguments(2, 0));
    simulation.settle();
    EXPECT_EQ(outcome->value, Value(Value::Dictionary{{keys::amount, 0}, {keys::optOut, true}}));
  });
}

TEST(AService, IsToldOfNotifications) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    std::vector<std::string> told;
    service.onNotify = [&](const std::string& name, const Value& value) {
      told.push_back(name + " " + value.description());
    };
    const auto outcome = daemon.call(protocol::serviceNotify, {Value(Value::Dictionary{{keys::cacheEnabled, false}})});
    simulation.settle();
    EXPECT_THAT(told, ElementsAre("KELVANE_CACHE_ENABLED 0"));
    EXPECT_TRUE(outcome->isAnswered);
  });
}

TEST(AService, AnswersPrivateRequestsWithAnyValue) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onCallback = [](const Value& info) { return info["question"]; };
    const auto outcome = daemon.call(protocol::serviceCallback, {Value(Value::Dictionary{{"question", "why"}})});
    simulation.settle();
    EXPECT_EQ(outcome->value, Value("why"));
  });
}

TEST(AServiceThatOverridesNothing, AnswersEverythingWithNothing) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService&) {
    const auto purge = daemon.call(protocol::servicePurge, spaceArguments(1, 100));
    const auto periodic = daemon.call(protocol::servicePeriodic, spaceArguments(3, 0));
    const auto callback = daemon.call(protocol::serviceCallback, {Value(Value::Dictionary())});
    simulation.settle();
    EXPECT_EQ(purge->value, amount(0));
    EXPECT_EQ(periodic->value, amount(0));
    EXPECT_TRUE(callback->isAnswered);
    EXPECT_TRUE(callback->value.isAbsent());
  });
}

TEST(APurgeOfAService, IsCancelledWhileItRuns) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPurge = purgeSlowly;
    const auto purge = daemon.call(protocol::servicePurge, spaceArguments(1, 1000));
    simulation.advance(milliseconds(55));
    EXPECT_FALSE(purge->isAnswered);
    const auto cancel = daemon.call(protocol::serviceCancelPurge, {});
    simulation.settle();
    EXPECT_TRUE(cancel->isAnswered);
    simulation.advance(milliseconds(10));
    EXPECT_EQ(purge->value, amount(6));
  });
}

TEST(APurgeOfAService, IsNotBegunWhenItWasCancelledBehindAnother) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    int begun = 0;
    service.onPurge = [&](const SpaceRequest& request, const Cancellation& cancellation) {
      ++begun;
      return purgeSlowly(request, cancellation);
    };
    const auto first = daemon.call(protocol::servicePurge, spaceArguments(1, 1000));
    const auto second = daemon.call(protocol::servicePurge, spaceArguments(1, 1000));
    simulation.advance(milliseconds(25));
    daemon.call(protocol::serviceCancelPurge, {});
    simulation.advance(milliseconds(10));
    EXPECT_EQ(first->value, amount(3));
    EXPECT_EQ(second->value, amount(0));
    EXPECT_EQ(begun, 1);
  });
}

TEST(APurgeOfAService, IsNotTouchedByACancelThatCameBeforeIt) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPurge = purgeSlowly;
    daemon.call(protocol::serviceCancelPurge, {});
    const auto purge = daemon.call(protocol::servicePurge, spaceArguments(1, 5));
    simulation.advance(seconds(1));
    EXPECT_EQ(purge->value, amount(5));
  });
}

TEST(APurgeOfAService, CanBeToldOfItsCancellation) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    const Semaphore cancelled(0);
    service.onCancelPurge = [&] { cancelled.signal(); };
    service.onPurge = [&](const SpaceRequest&, const Cancellation&) -> std::uint64_t {
      cancelled.wait();
      return 9;
    };
    const auto purge = daemon.call(protocol::servicePurge, spaceArguments(1, 1000));
    simulation.settle();
    daemon.call(protocol::serviceCancelPurge, {});
    simulation.settle();
    EXPECT_EQ(purge->value, amount(9));
  });
}

TEST(APurgeOfAService, HoldsUpNeitherPingsNorQueries) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPurge = purgeSlowly;
    service.onPurgeable = [](const SpaceRequest&, const Cancellation&) { return std::optional<std::uint64_t>(1); };
    const auto purge = daemon.call(protocol::servicePurge, spaceArguments(1, 1000));
    const auto ping = daemon.call(protocol::servicePing, {});
    const auto query = daemon.call(protocol::servicePurgeable, spaceArguments(1, 0));
    simulation.settle();
    EXPECT_FALSE(purge->isAnswered);
    EXPECT_TRUE(ping->isAnswered);
    EXPECT_EQ(query->value, amount(1));
  });
}

TEST(APurgeOfAService, NeverRunsBesideAnotherOrPeriodicWork) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    int running = 0;
    int most = 0;
    const auto work = [&](const SpaceRequest& request, const Cancellation& cancellation) {
      most = std::max(most, ++running);
      const std::uint64_t freed = purgeSlowly(request, cancellation);
      --running;
      return freed;
    };
    service.onPurge = work;
    service.onPeriodic = work;
    daemon.call(protocol::servicePurge, spaceArguments(1, 3));
    daemon.call(protocol::servicePeriodic, spaceArguments(1, 3));
    const auto last = daemon.call(protocol::servicePurge, spaceArguments(1, 3));
    simulation.advance(seconds(1));
    EXPECT_EQ(most, 1);
    EXPECT_EQ(last->value, amount(3));
  });
}

TEST(PeriodicWorkOfAService, IsNotCancelledWithPurges) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPeriodic = purgeSlowly;
    const auto periodic = daemon.call(protocol::servicePeriodic, spaceArguments(3, 5));
    daemon.call(protocol::serviceCancelPurge, {});
    simulation.advance(seconds(1));
    EXPECT_EQ(periodic->value, amount(5));
  });
}

TEST(AServiceThatIsStopped, CancelsItsWorkAndWaitsForIt) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    bool isCancelled = false;
    service.onPurge = [&](const SpaceRequest& request, const Cancellation& cancellation) {
      const std::uint64_t freed = purgeSlowly(request, cancellation);
      // An answer that nobody waits for any more, but work that must not be left half done.
      EXPECT_FALSE(service.hasEnded());
      isCancelled = cancellation.isCancelled();
      return freed;
    };
    daemon.call(protocol::servicePurge, spaceArguments(1, 100000));
    simulation.advance(milliseconds(15));
    service.stop();
    simulation.advance(milliseconds(10));
    EXPECT_TRUE(isCancelled);
    EXPECT_TRUE(service.hasEnded());
  });
}

TEST(AServiceThatIsStopped, BeginsNothingThatIsStillQueued) {
  withService([](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    int begun = 0;
    service.onPurge = [&](const SpaceRequest& request, const Cancellation& cancellation) {
      ++begun;
      return purgeSlowly(request, cancellation);
    };
    daemon.call(protocol::servicePurge, spaceArguments(1, 100000));
    const auto second = daemon.call(protocol::servicePurge, spaceArguments(1, 100000));
    simulation.advance(milliseconds(15));
    service.stop();
    simulation.advance(milliseconds(10));
    EXPECT_EQ(begun, 1);
    EXPECT_FALSE(second->isAnswered);
  });
}

/// A connection to the named service.
ipc::Connection connectByName() {
  ipc::Connection connection = ipc::Connection::toService(identifier);
  connection.setRemoteInterface(protocol::interface);
  connection.resume();
  return connection;
}

TEST(ANamedService, IsReachedByItsIdentifierWithoutCheckingIn) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    ScriptedDaemon daemon(simulation);
    TestedService service(named);
    service.onPurge = [](const SpaceRequest&, const Cancellation&) -> std::uint64_t { return 5; };
    simulation.run([&] {
      daemon.launch();
      service.start();
      simulation.settle();
      Value answer;
      connectByName()
          .remoteProxy([](const auto&) {})
          .call(protocol::servicePurge, spaceArguments(1, 5), [&](const Value& value) { answer = value; });
      simulation.settle();
      EXPECT_EQ(answer, amount(5));
      EXPECT_THAT(daemon.checkins, IsEmpty());
      service.stop();
      simulation.settle();
      EXPECT_TRUE(service.hasEnded());
      EXPECT_FALSE(service.error());
      EXPECT_FALSE(simulation.ipc().isListening(identifier));
    });
  }
}

TEST(ANamedService, TalksOnlyToTheDaemonsUser) {
  Simulation simulation;
  TestedService service(named);
  simulation.run([&] {
    service.start();
    simulation.settle();
    std::optional<ipc::CallError::Cause> cause;
    bool isAnswered = false;
    const simulated::ActingAs stranger({.uid = 1000, .user = "somebody"});
    connectByName()
        .remoteProxy([&](const std::optional<ipc::CallError>& error) { cause = error->cause; })
        .call(protocol::servicePing, {}, [&](const Value&) { isAnswered = true; });
    simulation.settle();
    EXPECT_EQ(cause, ipc::CallError::Cause::NotAdmitted);
    EXPECT_FALSE(isAnswered);
    service.stop();
    simulation.settle();
  });
}

TEST(ANamedService, SaysWhyItCannotListen) {
  Simulation simulation;
  TestedService service(named);
  simulation.ipc().refuse(identifier, "the name is taken");
  simulation.run([&] {
    service.start();
    simulation.settle();
    EXPECT_TRUE(service.hasEnded());
    EXPECT_EQ(service.error(), "the name is taken");
  });
}

}  // namespace
}  // namespace kelvane::test
