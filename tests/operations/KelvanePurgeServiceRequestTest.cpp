// SPDX-License-Identifier: Apache-2.0
// One service's part in a purge: shares, answers, failures, and the races that are left open.
#include "operations/KelvanePurgeOperation.h"

#include <set>

#include "protocols/Keys.h"
#include "support/Timebase.h"
#include "tests/harness/BeforeEachMessage.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

constexpr char blockName[] =
    "-[KelvanePurgeOperation queueServiceRequest:info:urgency:operationInfo:completion:]_block";

class APurgeRequest : public OperationTest {
 protected:
  /// The answer of a service that only claims to give, after which it has had all its turns of a pass.
  static constexpr std::size_t lastTurn = 1 + KelvanePurgeOperation::maximumUnborneAnswers;

  /// Runs a purge at urgency 1, or up to the limit, and gives its result.
  Value purge(std::uint64_t amount, const ServiceTable& services, std::int32_t urgencyLimit = 1,
              std::uint64_t timeout = 0) {
    operation = KelvanePurgeOperation::initWithInfo(Value::Dictionary{{keys::volume, volume},
                                                                      {keys::amount, amount},
                                                                      {keys::urgency, urgencyLimit},
                                                                      {keys::purgeTimeout, timeout}},
                                                    services);
    delivered.clear();
    operation->startOperation([this](const Value& value) { delivered.push_back(value); });
    return delivered.back();
  }

  static std::vector<std::uint64_t> shares(const ScriptedService& service) {
    std::vector<std::uint64_t> amounts;
    for (const Value& info : service.infos()) {
      amounts.push_back(info[keys::amount].uint64Value());
    }
    return amounts;
  }

  std::shared_ptr<KelvanePurgeOperation> operation;
  std::vector<Value> delivered;
};

TEST_F(APurgeRequest, AsksForWhatIsStillMissing) {
  run([&] {
    ScriptedService service("a");
    operation = KelvanePurgeOperation::initWithInfo(
        Value::Dictionary{{keys::volume, volume}, {keys::amount, 10}, {keys::urgency, 2}}, tableOf({service.record()}));
    service.onPurge = [&](const ScriptedService::Request& request) {
      simulation->volumes().give(volume, 4);
      request.reply.send(Value::Dictionary{{keys::amount, 4}});
    };
    operation->startOperation([](const Value&) {});
    EXPECT_EQ(shares(service), (std::vector<std::uint64_t>{10, 6}));
  });
}

TEST_F(APurgeRequest, SharesOutWhatIsMissingAndDropsTheRemainder) {
  run([&] {
    std::vector<std::unique_ptr<ScriptedService>> services;
    std::vector<std::shared_ptr<KLService>> records;
    for (const char* identifier : {"a", "b", "c", "d"}) {
      services.push_back(std::make_unique<ScriptedService>(identifier));
      services.back()->onPurge = ScriptedService::gives(0);
      records.push_back(services.back()->record());
    }
    purge(6, tableOf(records));
    for (const auto& service : services) {
      EXPECT_EQ(shares(*service), std::vector<std::uint64_t>{1}) << service->identifier();
    }
  });
}

TEST_F(APurgeRequest, SharesOutOnlyWhatTheVolumeHasNotGainedYet) {
  run([&] {
    std::vector<std::unique_ptr<ScriptedService>> services;
    std::vector<std::shared_ptr<KLService>> records;
    for (const char* identifier : {"a", "b", "c", "d"}) {
      services.push_back(std::make_unique<ScriptedService>(identifier));
      services.back()->onPurge = ScriptedService::silence();
      records.push_back(services.back()->record());
    }
    const BeforeEachMessage hook([&](std::string_view format) {
      if (format.ends_with("info at start: %@")) {
        simulation->volumes().give(volume, 4);
      }
    });
    purge(10, tableOf(records));
    for (const auto& service : services) {
      EXPECT_EQ(shares(*service), std::vector<std::uint64_t>{1}) << service->identifier();
    }
  });
}

TEST_F(APurgeRequest, ForAShareOfNothingIsNotSentAndLeavesTheServiceInFlight) {
  run([&] {
    std::vector<std::unique_ptr<ScriptedService>> services;
    std::vector<std::shared_ptr<KLService>> records;
    for (const char* identifier : {"a", "b", "c", "d"}) {
      services.push_back(std::make_unique<ScriptedService>(identifier));
      records.push_back(services.back()->record());
    }
    const std::uint64_t start = clock::ticks();
    const Value result = purge(3, tableOf(records), 2);
    EXPECT_EQ(secondsSince(start), 2.0 + 4.0);
    EXPECT_EQ(operation->inFlightCount(), 4u);
    EXPECT_EQ(result["KELVANE_URGENCY_2_OPERATION_INFO"]["KELVANE_SERVICES_INFLIGHT"],
              Value(Value::Array{"a", "b", "c", "d"}));
    simulation->settle();
    for (const auto& service : services) {
      EXPECT_EQ(service->calls(), std::vector<std::string>{"serviceCancelPurge"});
    }
  });
}

TEST_F(APurgeRequest, CarriesTheWholeInfoWithTheShareAsItsAmount) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives(0);
    const Value info =
        Value::Dictionary{{keys::volume, volume}, {keys::amount, 100}, {keys::urgency, 2}, {"extra", "kept"}};
    operation = KelvanePurgeOperation::initWithInfo(info, tableOf({service.record()}));
    operation->startOperation([](const Value&) {});
    const std::vector<Value> infos = service.infos();
    ASSERT_EQ(infos.size(), 2u);
    EXPECT_EQ(infos[0][keys::amount], Value(std::uint64_t{100}));
    EXPECT_EQ(infos[0]["extra"], Value("kept"));
    EXPECT_EQ(infos[0][keys::freespaceBegin], Value(std::uint64_t{1000}));
    EXPECT_FALSE(infos[0].contains("KELVANE_URGENCY_1_OPERATION_INFO"));
    EXPECT_TRUE(infos[1].contains("KELVANE_URGENCY_1_OPERATION_INFO"));
  });
}

TEST_F(APurgeRequest, StartsOnlyWhenAllOfThePassAreQueued) {
  run([&] {
    ScriptedService a("a");
    a.onPurge = frees(0);
    ScriptedService b("b");
    b.onPurge = frees(0);
    purge(100, tableOf({a.record(), b.record()}));
    // Both shares are half of it, so neither request was worked out before both were there.
    EXPECT_EQ(shares(a), std::vector<std::uint64_t>{50});
    EXPECT_EQ(shares(b), std::vector<std::uint64_t>{50});
  });
}

// One whose answers the volume has not borne out for long takes its chance.
TEST_F(APurgeRequest, IsQueuedAgainBeforeItsAnswerIsPassedOnAndTheServiceLeavesFlight) {
  run([&] {
    ScriptedService service("a");
    operation = KelvanePurgeOperation::initWithInfo(
        Value::Dictionary{{keys::volume, volume}, {keys::amount, 10}, {keys::urgency, 1}}, tableOf({service.record()}));
    std::size_t answers = 0;
    std::size_t queued = 0;
    std::uint64_t inFlight = 0;
    operation->startOperation([&](const Value& value) {
      if (!value.contains(keys::freespaceEnd) && ++answers == lastTurn) {
        simulation->settle();
        queued = log().count(std::string(blockName) + " queuing service: a");
        inFlight = operation->inFlightCount();
      }
    });
    EXPECT_EQ(queued, lastTurn + 1);
    EXPECT_EQ(inFlight, 1u);
  });
}

TEST_F(APurgeRequest, IsNotRepeatedForAServiceThatGaveOneByteLess) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = frees(99);
    purge(100, tableOf({service.record()}));
    EXPECT_EQ(shares(service), std::vector<std::uint64_t>{100});
  });
}

TEST_F(APurgeRequest, AnsweredWithAStringAsAmountCountsAsNothing) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::gives("100");
    const Value result = purge(100, tableOf({service.record()}));
    EXPECT_EQ(result[keys::amountReported].uint64Value(), 0u);
    EXPECT_EQ(result["KELVANE_URGENCY_1_OPERATION_INFO"][keys::reportingServices],
              Value(Value::Dictionary{{"a", std::uint64_t{0}}}));
    EXPECT_EQ(log().texts(3), std::vector<std::string>{std::string(blockName) + " 232 num is not a number: 100"});
    EXPECT_EQ(shares(service).size(), 1u);
  });
}

TEST_F(APurgeRequest, AnsweredWithNothingCountsAsNothingAndPassesNothingOn) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [](const ScriptedService::Request& request) { request.reply.send(); };
    purge(100, tableOf({service.record()}));
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_TRUE(delivered[0].isAbsent());
    EXPECT_TRUE(log().contains("232 num is not a number: (null)"));
  });
}

TEST_F(APurgeRequest, AnsweredWithADBusErrorCountsAsAnAnswerOfNothing) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [](const ScriptedService::Request& request) {
      request.reply.sendError("org.freedesktop.DBus.Error.Failed", "no");
    };
    const std::uint64_t start = clock::ticks();
    purge(100, tableOf({service.record()}));
    EXPECT_EQ(secondsSince(start), 0.0);
    EXPECT_TRUE(delivered[0].isAbsent());
  });
}

TEST_F(APurgeRequest, AnsweredTwiceCountsOnce) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [](const ScriptedService::Request& request) {
      request.reply.send(Value::Dictionary{{keys::amount, 7}});
      request.reply.send(Value::Dictionary{{keys::amount, 7}});
    };
    const Value result = purge(100, tableOf({service.record()}));
    EXPECT_EQ(result[keys::amountReported], Value(std::uint64_t{7}));
  });
}

TEST_F(APurgeRequest, PassesTheAnswerOnWithTheTimeItTookInNanoseconds) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(250'000);
      request.reply.send(Value::Dictionary{{keys::amount, 1}, {"extra", "kept"}});
    };
    purge(100, tableOf({service.record()}));
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(delivered[0],
              Value(Value::Dictionary{{keys::amount, 1}, {"extra", "kept"}, {"KELVANE_ELAPSED_TIME", 2.5e8}}));
    EXPECT_EQ(simulation->statistics().samples("a_purgeElapsedNanoseconds"), std::vector<double>{2.5e8});
    EXPECT_EQ(simulation->statistics().counter("a.purged"), 1);
    EXPECT_EQ(simulation->statistics().counter("a.purged.0.percent"), 1);
  });
}

TEST_F(APurgeRequest, WhoseConnectionFailsLeavesTheServiceOutOfFlightAndSignalsNobody) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = ScriptedService::dies();
    const std::uint64_t start = clock::ticks();
    const Value result = purge(100, tableOf({service.record()}));
    EXPECT_EQ(secondsSince(start), 2.0);
    EXPECT_EQ(operation->inFlightCount(), 0u);
    EXPECT_EQ(log().textsOf(blockName).back(), std::string(blockName) + " connection invalidated");
    EXPECT_FALSE(log().contains("All services accounted for"));
    EXPECT_EQ(result["KELVANE_URGENCY_1_OPERATION_INFO"]["KELVANE_SERVICES_INFLIGHT"], Value(Value::Array{}));
  });
}

TEST_F(APurgeRequest, OfADescribedServiceThatIsNotThereFails) {
  run([&] {
    const auto record = std::make_shared<KLService>("com.example.absent");
    record->setDoesPurge(true);
    purge(100, tableOf({record}));
    EXPECT_TRUE(log().contains(std::string(blockName) + " connection invalidated"));
    EXPECT_EQ(operation->inFlightCount(), 0u);
  });
}

TEST_F(APurgeRequest, QueuedButNotYetRunDoesNothingOnceThePurgeIsCancelled) {
  run([&] {
    ScriptedService a("a");
    ScriptedService b("b");
    a.onPurge = [&](const ScriptedService::Request& request) {
      operation->cancelOperation();
      request.reply.send(Value::Dictionary{{keys::amount, request.info[keys::amount]}});
    };
    b.onPurge = ScriptedService::silence();
    purge(100, tableOf({a.record(), b.record()}));
    // It gave all it was asked for, but is not asked again.
    EXPECT_EQ(a.count("servicePurge 1"), 1u);
  });
}

TEST_F(APurgeRequest, AnsweredAfterThePurgeStillCountsAndIsPassedOn) {
  run([&] {
    ScriptedService late("late");
    std::optional<ipc::Reply> held;
    late.onPurge = [&](const ScriptedService::Request& request) { held = request.reply; };
    purge(100, tableOf({late.record()}));
    EXPECT_EQ(operation->purge_amount_reported(), 0u);
    EXPECT_EQ(delivered.size(), 1u);
    held->send(Value::Dictionary{{keys::amount, 9}});
    simulation->settle();
    EXPECT_EQ(operation->purge_amount_reported(), 9u);
    EXPECT_EQ(delivered.size(), 2u);
    EXPECT_EQ(operation->inFlightCount(), 0u);
    EXPECT_FALSE(log().contains("All services accounted for"));
  });
}

TEST_F(APurgeRequest, AnsweredInALaterPassEndsThatPass) {
  run([&] {
    ScriptedService late("late");
    late.onPurge = [&](const ScriptedService::Request& request) {
      globalQueue::async([request] {
        clock::sleepMicroseconds(3'000'000);
        request.reply.send(Value::Dictionary{{keys::amount, 1}});
      });
    };
    const std::uint64_t start = clock::ticks();
    purge(100, tableOf({late.record()}), 2);
    // The first pass waits for 2 seconds, the second is ended by the answer one second into it.
    EXPECT_EQ(secondsSince(start), 3.0);
    EXPECT_TRUE(log().contains(std::string(blockName) + " All services accounted for, signalling the semaphore."));
  });
}

TEST_F(APurgeRequest, AnsweredWithTooLittleWhenNobodyCountsWrapsTheDivisor) {
  run([&] {
    ScriptedService late("late");
    std::vector<ipc::Reply> held;
    late.onPurge = [&](const ScriptedService::Request& request) { held.push_back(request.reply); };
    purge(100, tableOf({late.record()}));
    // In flight, so no longer counted as one who can give.
    EXPECT_EQ(operation->viable_purging_services(), 0u);
    held.front().send(Value::Dictionary{{keys::amount, 1}});
    simulation->settle();
    EXPECT_EQ(operation->viable_purging_services(), UINT64_MAX);
  });
}

TEST_F(APurgeRequest, TellsItsStoryInTheLog) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = frees(40);
    log().clear();
    purge(100, tableOf({service.record()}));
    const std::string name = std::string(blockName) + " ";
    EXPECT_EQ(log().textsOf(blockName),
              (std::vector<std::string>{
                  name + "queuing service: a",
                  name + "donation (100) = (amount needed[100] - amount_purged[0]) / viable_purging_services[1])",
                  name + "requesting 100 bytes from a at urgency 1",
                  name + "a service purged: 40",
                  name + "a calling completion with: { KELVANE_AMOUNT = 40; KELVANE_ELAPSED_TIME = 0; }",
                  name + "All services accounted for, signalling the semaphore.",
                  name + "a took 0.000000 seconds, purged: { KELVANE_AMOUNT = 40; KELVANE_ELAPSED_TIME = 0; }",
              }));
  });
}

// It is queued again before it leaves the in-flight set. Either may come first.
TEST_F(APurgeRequest, RepeatedForAServiceRunsInEitherOrderWithItsRemovalFromFlight) {
  std::set<std::size_t> requestsSeen;
  for (std::uint64_t seed = 1; seed <= 200; ++seed) {
    run(
        [&] {
          ScriptedService service("a");
          service.onPurge = [&](const ScriptedService::Request& request) {
            const bool hasHadItsTurns = service.calls().size() > lastTurn;
            request.reply.send(
                Value::Dictionary{{keys::amount, hasHadItsTurns ? Value(0) : request.info[keys::amount]}});
          };
          purge(100, tableOf({service.record()}));
          simulation->settle();
          requestsSeen.insert(service.count("servicePurge 1"));
          // Or the pass has ended between the two, and with it the purge, before the request was sent.
          EXPECT_EQ(service.count("servicePurge 1") == lastTurn,
                    log().contains("trying to add \"a\", which is already inFlight") ||
                        log().contains(std::string(blockName) + " connection invalidated"));
        },
        seed);
  }
  EXPECT_EQ(requestsSeen, (std::set<std::size_t>{lastTurn, lastTurn + 1}));
}

// The set is empty for a moment between the removal and the repeated request: the pass may end there, and the
// request then runs in the next.
TEST_F(APurgeRequest, RepeatedForAServiceMayFindThatItsPassHasEnded) {
  std::set<bool> endedEarly;
  for (std::uint64_t seed = 1; seed <= 200 && endedEarly.size() < 2; ++seed) {
    run(
        [&] {
          ScriptedService service("a");
          service.onPurge = [&](const ScriptedService::Request& request) {
            const bool hasHadItsTurns = service.calls().size() > lastTurn;
            request.reply.send(
                Value::Dictionary{{keys::amount, hasHadItsTurns ? Value(0) : request.info[keys::amount]}});
          };
          const Value result = purge(100, tableOf({service.record()}), 2);
          simulation->settle();
          const Value first = result["KELVANE_URGENCY_1_OPERATION_INFO"]["KELVANE_OPERATION_STATS_URGENCY_1"];
          const std::string reportedInFirst = "amount reported: " + std::to_string(lastTurn * 100);
          endedEarly.insert(service.count("servicePurge 1") == lastTurn + 1 &&
                            first.description().find(reportedInFirst) != std::string::npos &&
                            log().contains("trying to add \"a\", which is already inFlight"));
        },
        seed);
  }
  EXPECT_EQ(endedEarly, (std::set<bool>{false, true}));
}

}  // namespace
}  // namespace kelvane::test
