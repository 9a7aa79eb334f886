// SPDX-License-Identifier: Apache-2.0
// How a service becomes and stays known to the daemon.
#include <gmock/gmock.h>

#include <algorithm>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "tests/harness/PrintValue.h"
#include "tests/support/ServiceAndDaemon.h"

namespace kelvane::test {
namespace {

using Answer = ScriptedDaemon::Answer;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int seeds = 20;
constexpr char identifier[] = "com.example.cache";

/// The times between check-ins.
std::vector<milliseconds> pauses(const std::vector<milliseconds>& checkins) {
  std::vector<milliseconds> result;
  for (std::size_t index = 1; index < checkins.size(); ++index) {
    result.push_back(checkins[index] - checkins[index - 1]);
  }
  return result;
}

/// Runs the body beside a service that is started before and stopped after it, for several schedules.
void withService(const KelvaneServiceConfiguration& configuration,
                 const std::function<void(Simulation&, ScriptedDaemon&, TestedService&)>& body) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    ScriptedDaemon daemon(simulation);
    TestedService service(configuration);
    simulation.run([&] {
      body(simulation, daemon, service);
      service.stop();
      simulation.settle();
      EXPECT_TRUE(service.hasEnded());
    });
  }
}

TEST(AServiceThatChecksIn, AnswersThePingBeforeItsCheckinIsAnswered) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.start();
    simulation.settle();
    EXPECT_EQ(daemon.pongs, 1);
    EXPECT_EQ(daemon.answered, 1);
    EXPECT_THAT(daemon.identifiers, ElementsAre(identifier));
    EXPECT_TRUE(simulation.log().contains("checked in"));
  });
}

TEST(AServiceThatChecksIn, TellsWhatItDoesAndWantsToHear) {
  const KelvaneServiceConfiguration configuration = {
      .identifier = identifier, .purges = true, .periodic = true, .notifications = {"one", "two"}};
  withService(configuration, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.start();
    simulation.settle();
    const Value expected = Value::Dictionary{
        {keys::purge, true}, {keys::periodic, true}, {keys::notifications, Value::Array{"one", "two"}}};
    EXPECT_THAT(daemon.infos, ElementsAre(expected));
  });
}

TEST(AServiceThatChecksIn, LeavesNotificationsOutWhenItWantsNone) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.start();
    simulation.settle();
    EXPECT_THAT(daemon.infos, ElementsAre(Value(Value::Dictionary{{keys::purge, true}, {keys::periodic, false}})));
  });
}

TEST(AServiceThatChecksIn, KeepsNoConnectionButItsEndpointOnceItIsKnown) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.start();
    simulation.settle();
    EXPECT_EQ(simulation.ipc().openConnections(), 1);
  });
}

TEST(AServiceThatChecksIn, StaysQuietWhileItIsKnown) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.start();
    simulation.advance(std::chrono::hours(24));
    EXPECT_THAT(daemon.checkins, SizeIs(1));
  });
}

TEST(AServiceThatChecksIn, WaitsForADaemonThatIsNotThereYet) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.start();
    simulation.advance(seconds(2));
    daemon.launch();
    // Attempts at 0.1, 0.3, 0.7, 1.5 and 3.1 seconds.
    simulation.advance(seconds(2));
    EXPECT_THAT(daemon.checkins, ElementsAre(milliseconds(3100)));
    EXPECT_EQ(daemon.answered, 1);
  });
}

TEST(AServiceThatChecksIn, PausesLongerEachTimeUpToTheLongestPause) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.answer = Answer::Error;
    daemon.launch();
    service.start();
    simulation.advance(seconds(150));
    EXPECT_THAT(pauses(daemon.checkins),
                ElementsAre(milliseconds(100), milliseconds(200), milliseconds(400), milliseconds(800),
                            milliseconds(1600), milliseconds(3200), milliseconds(6400), milliseconds(12800),
                            milliseconds(25600), milliseconds(30000), milliseconds(30000), milliseconds(30000)));
  });
}

TEST(AServiceThatChecksIn, ChecksInAgainAtOnceWhenTheDaemonWasRelaunched) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.start();
    simulation.advance(seconds(60));
    for (int relaunch = 0; relaunch < 3; ++relaunch) {
      daemon.die();
      daemon.launch();
      simulation.advance(seconds(60));
    }
    EXPECT_EQ(daemon.answered, 4);
    EXPECT_THAT(pauses(daemon.checkins), ElementsAre(milliseconds(60100), milliseconds(60000), milliseconds(60000)));
    EXPECT_EQ(simulation.ipc().openConnections(), 1);
  });
}

TEST(AServiceThatChecksIn, IsServedThroughItsNewEndpointAfterARelaunch) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    service.onPurge = [](const SpaceRequest& request, const Cancellation&) { return request.amount; };
    daemon.launch();
    service.start();
    simulation.settle();
    daemon.die();
    daemon.launch();
    simulation.advance(seconds(1));
    ASSERT_EQ(daemon.answered, 2);
    const auto outcome = daemon.call(KelvaneServiceProtocol::servicePurge, spaceArguments(1, 7));
    simulation.settle();
    EXPECT_EQ(outcome->value[keys::amount].uint64Value(), 7U);
  });
}

TEST(AServiceThatChecksIn, WaitsWithoutLimitForAnAnswer) {
  // The fake daemon never gives the request up, so only an answer could end the wait.
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon&, TestedService& service) {
    std::vector<ipc::Request> held;
    const ipc::Listener listener = ipc::Listener::named(names::daemon, KelvaneClientProtocol::interface,
                                                        [&](const ipc::Request& request) { held.push_back(request); });
    ASSERT_FALSE(listener.resume());
    service.start();
    simulation.advance(std::chrono::hours(10));
    EXPECT_THAT(held, SizeIs(1));
    service.stop();
    simulation.settle();
  });
}

TEST(AServiceThatChecksIn, TriesAgainWhenItIsNotEntitledAndSaysSoOnce) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.answer = Answer::Silence;
    daemon.launch();
    service.start();
    simulation.advance(seconds(100));
    EXPECT_GE(daemon.checkins.size(), 9U);
    EXPECT_EQ(simulation.log().count("the daemon did not answer the check-in: this process lacks SERVICE_ENTITLEMENT; "
                                     "a rule in /etc/kelvane/entitlements.d gives it"),
              1U);
    daemon.answer = Answer::Accept;
    simulation.advance(seconds(31));
    EXPECT_EQ(daemon.answered, 1);
  });
}

TEST(AServiceThatChecksIn, SaysWhatItLacksWhenTheDaemonDoesNotTalkToIt) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon&, TestedService& service) {
    const auto daemon =
        ipc::Listener::named(names::daemon, KelvaneClientProtocol::interface, [](const ipc::Request&) {});
    daemon.setAdmission([](const ipc::Peer&) { return false; });
    ASSERT_FALSE(daemon.resume());
    service.start();
    simulation.advance(seconds(100));
    EXPECT_EQ(simulation.log().count("cannot check in: the daemon closed the connection: this process lacks "
                                     "CLIENT_ENTITLEMENT; a rule in /etc/kelvane/entitlements.d gives it"),
              1U);
  });
}

TEST(AServiceThatChecksIn, SaysThatADescriptionHoldsItsIdentifier) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.answer = Answer::Describe;
    daemon.launch();
    service.start();
    simulation.advance(seconds(100));
    EXPECT_EQ(simulation.log().count("a service description holds this identifier"), 1U);
    EXPECT_LE(daemon.checkins.size(), 12U);
  });
}

TEST(AServiceThatChecksIn, SlowsDownWhileTheDaemonKnowsItByAnotherEndpoint) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.answer = Answer::Ignore;
    daemon.launch();
    service.start();
    simulation.advance(seconds(100));
    EXPECT_LE(daemon.checkins.size(), 12U);
    EXPECT_EQ(simulation.log().count("knows this identifier by another endpoint"), 1U);
    EXPECT_FALSE(simulation.log().contains("checked in"));
    daemon.answer = Answer::Accept;
    simulation.advance(seconds(31));
    EXPECT_EQ(daemon.answered, 1);
  });
}

TEST(AServiceThatChecksIn, TriesAgainWhenTheSystemHasNoEndpointToGive) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    simulation.ipc().setEndpointsExhausted(true);
    daemon.launch();
    service.start();
    simulation.advance(seconds(1));
    EXPECT_THAT(daemon.checkins, IsEmpty());
    simulation.ipc().setEndpointsExhausted(false);
    simulation.advance(seconds(31));
    EXPECT_EQ(daemon.answered, 1);
  });
}

TEST(AServiceThatChecksIn, EndsInTheMiddleOfAPause) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon&, TestedService& service) {
    service.start();
    simulation.advance(seconds(60));
    const auto before = simulation.elapsed();
    service.stop();
    simulation.settle();
    EXPECT_TRUE(service.hasEnded());
    EXPECT_EQ(simulation.elapsed(), before);
  });
}

TEST(AServiceThatChecksIn, ClosesItsEndpointWhenItEnds) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.start();
    simulation.settle();
    service.stop();
    simulation.settle();
    EXPECT_EQ(simulation.ipc().openConnections(), 0);
  });
}

TEST(AServiceThatWasStoppedBeforeItRan, EndsAtOnce) {
  withService({.identifier = identifier}, [](Simulation& simulation, ScriptedDaemon& daemon, TestedService& service) {
    daemon.launch();
    service.stop();
    service.start();
    simulation.settle();
    EXPECT_TRUE(service.hasEnded());
    EXPECT_THAT(daemon.checkins, IsEmpty());
  });
}

}  // namespace
}  // namespace kelvane::test
