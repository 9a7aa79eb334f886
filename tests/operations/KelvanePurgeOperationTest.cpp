// SPDX-License-Identifier: Apache-2.0
// The passes of a purge: how many, how long, what they leave in the result.
#include "operations/KelvanePurgeOperation.h"

#include <gmock/gmock.h>

#include <optional>
#include <utility>

#include "protocols/Keys.h"
#include "support/Timebase.h"
#include "tests/harness/BeforeEachMessage.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

class APurge : public OperationTest {
 protected:
  static Value infoFor(const Value& amount, Value::Dictionary entries = {}) {
    entries[keys::volume] = volume;
    entries[keys::amount] = amount;
    return entries;
  }

  /// Runs a purge to its end and gives what its completion was called with last.
  Value purge(const Value& info, const ServiceTable& services = {}) {
    operation = KelvanePurgeOperation::initWithInfo(info, services);
    delivered.clear();
    operation->startOperation([this](const Value& result) { delivered.push_back(result); });
    return delivered.back();
  }

  std::vector<double> waits(const Value& info) {
    log().clear();
    purge(info);
    std::vector<double> seconds;
    const std::string prefix = "-[KelvanePurgeOperation startOperation:] waiting for ";
    for (const std::string& text : log().texts(5)) {
      if (text.starts_with(prefix)) {
        seconds.push_back(std::stod(text.substr(prefix.size())));
      }
    }
    return seconds;
  }

  const std::vector<double>& samples(const std::string& name) {
    kept = simulation->statistics().samples(name);
    return kept;
  }

  std::shared_ptr<KelvanePurgeOperation> operation;
  std::vector<Value> delivered;
  std::vector<double> kept;
};

TEST_F(APurge, KeepsOnlyTheServicesThatPurge) {
  run([&] {
    ScriptedService purges("a");
    ScriptedService doesNot("b");
    const auto other = doesNot.record();
    other->setDoesPurge(false);
    const auto made = KelvanePurgeOperation::initWithInfo(infoFor(10), tableOf({purges.record(), other}));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->services().size(), 1u);
    EXPECT_TRUE(made->services().contains("a"));
    EXPECT_EQ(made->viable_purging_services(), 1u);
    EXPECT_EQ(made->purge_amount_needed(), 10u);
    EXPECT_EQ(made->purge_amount_reported(), 0u);
  });
}

TEST_F(APurge, IsNotMadeFromARefusedInfo) {
  run([&] { EXPECT_EQ(KelvanePurgeOperation::initWithInfo("no dictionary", {}), nullptr); });
}

TEST_F(APurge, OfAVolumeThatDoesNotAnswerWhenItIsItsTurnRunsNoPass) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = freesWhatIsAsked();
    operation = KelvanePurgeOperation::initWithInfo(infoFor(10), tableOf({service.record()}));
    ASSERT_TRUE(operation);
    simulation->volumes().setSilent(volume, true);
    const std::uint64_t start = clock::ticks();
    operation->startOperation([this](const Value& result) { delivered.push_back(result); });
    EXPECT_EQ(clock::ticks(), start);
    EXPECT_EQ(delivered, std::vector<Value>{infoFor(std::uint64_t{0})}) << "no figure of free space, and no pass";
    EXPECT_TRUE(service.infos().empty());
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[KelvanePurgeOperation startOperation:] free space of /data is not known"});
    EXPECT_TRUE(simulation->statistics().counterNames().empty()) << "no failure is counted";
    EXPECT_TRUE(samples("KelvanePurgeDeficit").empty());
  });
}

TEST_F(APurge, OfAVolumeThatFallsSilentHasGainedWhatWasSeenLast) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      simulation->volumes().setSilent(volume, true);
      // Seen by nobody.
      frees(3)(request);
    };
    const Value result = purge(infoFor(10, {{keys::urgency, 1}}), tableOf({service.record()}));
    EXPECT_EQ(result[keys::freespaceBegin], Value(availableAtFirst));
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{0}));
    EXPECT_EQ(result[keys::freespaceEnd], Value(availableAtFirst));
    EXPECT_EQ(result[keys::amountReported], Value(std::uint64_t{3}));
    EXPECT_EQ(simulation->statistics().counter("KelvanePurgeFailed"), 1) << "it did not get what it asked for";
  });
}

TEST_F(APurge, OfAVolumeThatAnswersAgainHasGainedWhatIsThereThen) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      simulation->volumes().setSilent(volume, true);
      frees(3)(request);
    };
    ScriptedService other("b");
    other.onPurge = [&](const ScriptedService::Request& request) {
      simulation->volumes().setSilent(volume, false);
      frees(1)(request);
    };
    const Value result = purge(infoFor(10, {{keys::urgency, 1}}), tableOf({service.record(), other.record()}));
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{4}));
    EXPECT_EQ(result[keys::freespaceEnd], Value(availableAtFirst + 4));
  });
}

TEST_F(APurge, OfAVolumeThatAnotherOneTakesThePlaceOfHasGainedWhatWasSeenBefore) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      simulation->volumes().add(volume, availableAtFirst + 1000);
      frees(3)(request);
    };
    const Value result = purge(infoFor(10, {{keys::urgency, 1}}), tableOf({service.record()}));
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{0}));
    EXPECT_EQ(result[keys::freespaceEnd], Value(availableAtFirst));
    EXPECT_EQ(simulation->statistics().counter("KelvanePurgeFailed"), 1) << "it did not get what it asked for";
  });
}

TEST_F(APurge, WithoutANumberAsAmountDeliversTheInfoAndRunsNoPass) {
  run([&] {
    const Value info = infoFor("many");
    const std::uint64_t start = clock::ticks();
    EXPECT_EQ(purge(info), info);
    EXPECT_EQ(clock::ticks(), start);
    EXPECT_EQ(operation->result(),
              Value(Value::Dictionary{{"KELVANE_ERROR", "Parameter error, no Amount key in info dict"}}));
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[KelvanePurgeOperation startOperation:] 90 amount is not a number: many"});
    EXPECT_TRUE(simulation->statistics().counterNames().empty());
    EXPECT_TRUE(samples("KelvanePurgeAmountRequested").empty());
    EXPECT_TRUE(samples("KelvanePurgeElapsedNanoseconds").empty());
  });
}

TEST_F(APurge, WithoutAnAmountDeliversTheInfo) {
  run([&] {
    const Value info = Value::Dictionary{{keys::volume, volume}};
    EXPECT_EQ(purge(info), info);
    EXPECT_TRUE(log().contains("90 amount is not a number: (null)"));
  });
}

TEST_F(APurge, WaitsTwoSecondsMoreInEachPass) {
  run([&] {
    EXPECT_EQ(waits(infoFor(10, {{keys::urgency, 4}})), (std::vector<double>{2, 4, 6, 8}));
    EXPECT_EQ(waits(infoFor(10, {{keys::purgeTimeout, 0}, {keys::urgency, 2}})), (std::vector<double>{2, 4}));
    EXPECT_EQ(waits(infoFor(10)), (std::vector<double>{2, 4, 6}));
  });
}

TEST_F(APurge, WaitsInEachPassAsLongAsTheRequestAllows) {
  run([&] {
    EXPECT_EQ(waits(infoFor(10, {{keys::purgeTimeout, 7}, {keys::urgency, 2}})), (std::vector<double>{7, 7}));
  });
}

TEST_F(APurge, NeverWaitsLongerThanFiveMinutesInAPass) {
  run([&] {
    const std::uint64_t start = clock::ticks();
    EXPECT_EQ(waits(infoFor(10, {{keys::purgeTimeout, 600}, {keys::urgency, 1}})), std::vector<double>{300});
    EXPECT_EQ(secondsSince(start), 300.0);
    EXPECT_TRUE(log().contains("startOperation:] user_timeout_seconds: 600"));
    EXPECT_TRUE(log().contains("waiting for 300 seconds, user_timeout_seconds: 300, currentUrgency: 1"));
    EXPECT_EQ(waits(infoFor(10, {{keys::purgeTimeout, -1}, {keys::urgency, 1}})), std::vector<double>{300});
  });
}

TEST_F(APurge, ThatIsSatisfiedAlreadyStillWaitsOutEveryPass) {
  run([&] {
    ScriptedService service("a");
    const std::uint64_t start = clock::ticks();
    const Value result = purge(infoFor(0), tableOf({service.record()}));
    EXPECT_EQ(secondsSince(start), 12.0);
    EXPECT_TRUE(service.calls().empty());
    EXPECT_EQ(samples("KelvanePurgeAmountRequested"), (std::vector<double>{0, 0, 0}));
    EXPECT_EQ(result[keys::amount].uint64Value(), 0u);
    EXPECT_FALSE(simulation->statistics().hasCounter("KelvanePurgeFailed"));
  });
}

TEST_F(APurge, ThatIsSatisfiedBeforeItsFirstPassEndsWithWhatTheVolumeGained) {
  run([&] {
    const BeforeEachMessage hook([&](std::string_view format) {
      if (format.ends_with("info at start: %@")) {
        simulation->volumes().give(volume, 50);
      }
    });
    ScriptedService service("a");
    const std::uint64_t start = clock::ticks();
    const Value result = purge(infoFor(40), tableOf({service.record()}));
    EXPECT_EQ(secondsSince(start), 12.0);
    EXPECT_TRUE(service.calls().empty());
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{50}));
    EXPECT_EQ(samples("KelvanePurgeAmountPurged"), std::vector<double>{50});
    EXPECT_FALSE(simulation->statistics().hasCounter("KelvanePurgeFailed"));
  });
}

TEST_F(APurge, StopsAskingOnceItIsSatisfiedButWaitsOutTheRest) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = freesWhatIsAsked();
    const std::uint64_t start = clock::ticks();
    const Value result = purge(infoFor(100), tableOf({service.record()}));
    EXPECT_EQ(service.calls(), std::vector<std::string>{"servicePurge 1"});
    // The first pass ends with the answer, the others with their time.
    EXPECT_EQ(secondsSince(start), 4.0 + 6.0);
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{100}));
    EXPECT_EQ(samples("KelvanePurgeAmountRequested"), (std::vector<double>{100, 100, 100}));
  });
}

TEST_F(APurge, GoesOnAskingAfterAClaimThatTheVolumeDoesNotBearOut) {
  run([&] {
    ScriptedService service("a");
    bool isFirst = true;
    service.onPurge = [&](const ScriptedService::Request& request) {
      request.reply.send(Value::Dictionary{{keys::amount, std::exchange(isFirst, false) ? 100 : 0}});
    };
    purge(infoFor(100, {{keys::urgency, 2}}), tableOf({service.record()}));
    EXPECT_TRUE(log().contains("startOperation:] Urgency: 2"));
    log().clear();
    service.onPurge = freesWhatIsAsked();
    purge(infoFor(100, {{keys::urgency, 2}}), tableOf({service.record()}));
    EXPECT_TRUE(log().contains("startOperation:] Urgency: 1"));
    EXPECT_FALSE(log().contains("startOperation:] Urgency: 2"));
  });
}

// Two services that leave the in-flight set one after the other may both find it empty and signal.
TEST_F(APurge, DropsASecondSignalWithItsPass) {
  int signalledTwice = 0;
  for (std::uint64_t seed = 1; seed <= 300 && signalledTwice < 3; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          const ScriptedService::Handler answersOnce = [](const ScriptedService::Request& request) {
            if (request.urgency == 1) {
              request.reply.send(Value::Dictionary{{keys::amount, 0}});
            }
          };
          ScriptedService a("a");
          ScriptedService b("b");
          a.onPurge = answersOnce;
          b.onPurge = answersOnce;
          int signals = 0;
          int signalsOfFirst = 0;
          const BeforeEachMessage hook([&](std::string_view format) {
            signals += format == "%s All services accounted for, signalling the semaphore." ? 1 : 0;
            if (format == "%s %@ : %@" && signalsOfFirst == 0) {
              signalsOfFirst = signals;
            }
          });
          const std::uint64_t start = clock::ticks();
          purge(infoFor(100, {{keys::urgency, 2}}), tableOf({a.record(), b.record()}));
          if (signalsOfFirst == 2) {
            ++signalledTwice;
            EXPECT_EQ(secondsSince(start), 4.0) << "the second pass";
          }
        },
        seed);
  }
  EXPECT_GT(signalledTwice, 0);
}

TEST_F(APurge, WithNobodyToAskWaitsOutEachPassAndReportsTheWholeAsDeficit) {
  run([&] {
    const std::uint64_t start = clock::ticks();
    const Value result = purge(infoFor(500));
    EXPECT_EQ(secondsSince(start), 12.0);
    EXPECT_EQ(result[keys::amount].uint64Value(), 0u);
    EXPECT_EQ(simulation->statistics().counter("KelvanePurgeFailed"), 1);
    EXPECT_EQ(samples("KelvanePurgeDeficit"), std::vector<double>{500});
    EXPECT_EQ(samples("KelvanePurgeAmountPurged"), std::vector<double>{0});
    EXPECT_FALSE(log().contains("cancelling purge"));
    // It is no error.
    EXPECT_FALSE(result.contains("KELVANE_ERROR"));
    simulation->settle();
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>(3, "-[KelvanePurgeOperation startOperation:]_block timed out waiting for: ( )"));
  });
}

TEST_F(APurge, WithNobodyToAskCountsWhatTheVolumeGainsAnyway) {
  run([&] {
    const Value info = infoFor(500, {{keys::urgency, 1}});
    operation = KelvanePurgeOperation::initWithInfo(info, {});
    globalQueue::async([&] {
      clock::sleepMicroseconds(1000);
      simulation->volumes().give(volume, 200);
    });
    Value result;
    operation->startOperation([&](const Value& value) { result = value; });
    EXPECT_EQ(result[keys::amount].uint64Value(), 200u);
    EXPECT_EQ(samples("KelvanePurgeDeficit"), std::vector<double>{300});
  });
}

TEST_F(APurge, OfNothingCountsNoPercentage) {
  run([&] {
    purge(infoFor(0));
    EXPECT_EQ(simulation->statistics().counterNames(), std::vector<std::string>{"total.purged"});
  });
}

TEST_F(APurge, FillsItsResultWithFreeSpaceAmountsAndTime) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(500'000);
      frees(request.info[keys::amount].uint64Value())(request);
    };
    const Value result = purge(infoFor(100, {{keys::urgency, 1}}), tableOf({service.record()}));
    EXPECT_EQ(result["KELVANE_FREESPACE_BEGIN"], Value(std::uint64_t{1000}));
    EXPECT_EQ(result["KELVANE_FREESPACE_END"], Value(std::uint64_t{1100}));
    EXPECT_EQ(result["KELVANE_AMOUNT"], Value(std::uint64_t{100}));
    EXPECT_EQ(result["KELVANE_AMOUNT_REPORTED"], Value(std::uint64_t{100}));
    EXPECT_EQ(result["KELVANE_ELAPSED_TIME"], Value(0.5));
    EXPECT_EQ(result["KELVANE_VOLUME"], Value(volume));
    EXPECT_FALSE(result.contains("KELVANE_ERROR"));
    EXPECT_EQ(samples("KelvanePurgeElapsedNanoseconds"), std::vector<double>{5e8});
    EXPECT_EQ(samples("KelvanePurgeAmountPurged"), std::vector<double>{100});
    EXPECT_EQ(simulation->statistics().counter("total.purged"), 100);
    EXPECT_EQ(simulation->statistics().counter("total.purged.100.percent"), 1);
  });
}

TEST_F(APurge, CountsWhatTheVolumeGainedAndNotWhatWasClaimed) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      simulation->volumes().give(volume, 30);
      request.reply.send(Value::Dictionary{{keys::amount, 60}});
    };
    const Value result = purge(infoFor(100, {{keys::urgency, 1}}), tableOf({service.record()}));
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{30}));
    EXPECT_EQ(result[keys::amountReported], Value(std::uint64_t{60}));
    EXPECT_EQ(result["KELVANE_URGENCY_1_OPERATION_INFO"]["KELVANE_OPERATION_STATS_URGENCY_1"],
              Value("amount reported: 60, amountPurged: 30, purge_amount_needed: 100, cancel: FALSE"));
    EXPECT_EQ(samples("KelvanePurgeAmountPurged"), std::vector<double>{30});
    EXPECT_EQ(samples("KelvanePurgeDeficit"), std::vector<double>{70});
    EXPECT_EQ(simulation->statistics().counter("total.purged"), 30);
    EXPECT_EQ(simulation->statistics().counter("total.purged.30.percent"), 1);
    EXPECT_EQ(simulation->statistics().counter("a.purged"), 60);
  });
}

TEST_F(APurge, CountsAReportThatComesWhileItsResultIsFilledIn) {
  run([&] {
    ScriptedService late("late");
    std::optional<ipc::Reply> held;
    late.onPurge = [&](const ScriptedService::Request& request) { held = request.reply; };
    const BeforeEachMessage hook([&](std::string_view format) {
      // Of the whole purge, as no service has answered.
      if (format == "%s %@ donated %lld of %lld" && held) {
        std::exchange(held, std::nullopt)->send(Value::Dictionary{{keys::amount, 9}});
        simulation->settle();
      }
    });
    const Value result = purge(infoFor(100, {{keys::urgency, 1}}), tableOf({late.record()}));
    EXPECT_EQ(result[keys::amountReported], Value(std::uint64_t{9}));
  });
}

TEST_F(APurge, KeepsAnOperationInfoOfEachPass) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = frees(3);
    const Value result = purge(infoFor(100, {{keys::urgency, 2}}), tableOf({service.record()}));
    const Value first = result["KELVANE_URGENCY_1_OPERATION_INFO"];
    EXPECT_EQ(first["KELVANE_OPERATION_STATS_URGENCY_1"],
              Value("amount reported: 3, amountPurged: 3, purge_amount_needed: 100, cancel: FALSE"));
    EXPECT_EQ(first["KELVANE_REPORTING_SERVICES"], Value(Value::Dictionary{{"a", std::uint64_t{3}}}));
    EXPECT_FALSE(first.contains("KELVANE_SERVICES_INFLIGHT"));
    const Value second = result["KELVANE_URGENCY_2_OPERATION_INFO"];
    EXPECT_EQ(second["KELVANE_OPERATION_STATS_URGENCY_2"],
              Value("amount reported: 6, amountPurged: 6, purge_amount_needed: 100, cancel: FALSE"));
  });
}

TEST_F(APurge, NotesWhoIsInFlightWhenAPassTimesOut) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurge = ScriptedService::silence();
    ScriptedService other("other");
    other.onPurge = frees(1);
    const Value result = purge(infoFor(100, {{keys::urgency, 1}}), tableOf({silent.record(), other.record()}));
    // Nobody waits for the note.
    simulation->settle();
    const Value info = result["KELVANE_URGENCY_1_OPERATION_INFO"];
    EXPECT_EQ(info["KELVANE_SERVICES_INFLIGHT"], Value(Value::Array{"silent"}));
    EXPECT_EQ(info["KELVANE_URGENCY_1_TIMEOUT_SECONDS"], Value(std::uint64_t{2}));
    EXPECT_TRUE(log().contains("-[KelvanePurgeOperation startOperation:]_block timed out waiting for: ( silent )"));
  });
}

TEST_F(APurge, NotesTheTimeThatItsRequestGaveAPass) {
  run([&] {
    const Value result = purge(infoFor(5, {{keys::urgency, 1}, {keys::purgeTimeout, 600}}));
    simulation->settle();
    EXPECT_EQ(result["KELVANE_URGENCY_1_OPERATION_INFO"]["KELVANE_URGENCY_1_TIMEOUT_SECONDS"],
              Value(std::uint64_t{300}));
  });
}

TEST_F(APurge, AsksAServiceThatIsStillInFlightNoSecondTimeAndCancelsItInTheEnd) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurge = ScriptedService::silence();
    purge(infoFor(100, {{keys::urgency, 3}}), tableOf({silent.record()}));
    simulation->settle();
    EXPECT_EQ(silent.calls(), (std::vector<std::string>{"servicePurge 1", "serviceCancelPurge"}));
    EXPECT_THAT(log().texts(3), testing::Contains("-[KelvanePurgeOperation startOperation:] cancelling purge"));
    EXPECT_TRUE(operation->cancel());
  });
}

TEST_F(APurge, DoesNotCountAServiceInFlightAsViableAfterAPass) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurge = ScriptedService::silence();
    ScriptedService a("a");
    a.onPurge = frees(0);
    ScriptedService b("b");
    b.onPurge = frees(0);
    purge(infoFor(90, {{keys::urgency, 2}}), tableOf({silent.record(), a.record(), b.record()}));
    ASSERT_EQ(a.infos().size(), 2u);
    // The third of the first pass is 30 bytes for each; in the second only two are left to share.
    EXPECT_EQ(a.infos()[0][keys::amount], Value(std::uint64_t{30}));
    EXPECT_EQ(a.infos()[1][keys::amount], Value(std::uint64_t{45}));
  });
}

TEST_F(APurge, DeliversAnOperationInfoThatLateAnswersStillChange) {
  run([&] {
    ScriptedService late("late");
    std::optional<ipc::Reply> held;
    late.onPurge = [&](const ScriptedService::Request& request) { held = request.reply; };
    const Value result = purge(infoFor(100, {{keys::urgency, 1}}), tableOf({late.record()}));
    EXPECT_FALSE(result["KELVANE_URGENCY_1_OPERATION_INFO"].contains("KELVANE_REPORTING_SERVICES"));
    held->send(Value::Dictionary{{keys::amount, 9}});
    simulation->settle();
    EXPECT_EQ(result["KELVANE_URGENCY_1_OPERATION_INFO"]["KELVANE_REPORTING_SERVICES"],
              Value(Value::Dictionary{{"late", std::uint64_t{9}}}));
    // The answer was passed on after the result.
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(delivered[1][keys::amount], Value(9));
  });
}

TEST_F(APurge, CountsSharesInTensOfPercent) {
  run([&] {
    purge(infoFor(0));
    const auto counts = [&](std::int64_t requested, std::int64_t purged, const std::string& bucket) {
      operation->reportPercentageForAmountRequested(requested, purged, "x");
      EXPECT_EQ(simulation->statistics().counter("x.purged." + bucket + ".percent"), 1) << bucket;
    };
    counts(100, 57, "50");
    counts(100, 100, "100");
    counts(100, 200, "200");
    counts(100, 9, "0");
    counts(-100, 57, "-50");
    counts(1, 1'000'000'000'000, "2147483647");
    EXPECT_EQ(simulation->statistics().counter("x.purged"), 57 + 100 + 200 + 9 + 57 + 1'000'000'000'000);
  });
}

TEST_F(APurge, LogsWhatAServiceDonated) {
  run([&] {
    purge(infoFor(0));
    log().clear();
    operation->reportPercentageForAmountRequested(100, 57, "x");
    const std::string name = "-[KelvanePurgeOperation reportPercentageForAmountRequested:amountPurged:identifier:] ";
    EXPECT_EQ(log().texts(5), (std::vector<std::string>{name + "x.purged.50.percent", name + "x donated 57 of 100"}));
  });
}

TEST_F(APurge, TellsTheStoryOfAPassInTheLog) {
  run([&] {
    purge(infoFor(10, {{keys::urgency, 1}, {keys::purgeTimeout, 5}}));
    const std::string name = "-[KelvanePurgeOperation startOperation:] ";
    std::vector<std::string> texts = log().textsOf("-[KelvanePurgeOperation startOperation:]");
    ASSERT_EQ(texts.size(), 7u);
    EXPECT_EQ(texts[0], name + "user_timeout_seconds: 5");
    EXPECT_EQ(texts[1], name +
                            "urgencyLimit: 1, info at start: { KELVANE_AMOUNT = 10; KELVANE_PURGE_TIMEOUT = 5; "
                            "KELVANE_URGENCY = 1; KELVANE_VOLUME = \"/data\"; }");
    EXPECT_EQ(texts[2], name + "IN QUEUE, amountPurged: 0");
    EXPECT_EQ(texts[3], name + "Urgency: 1");
    EXPECT_EQ(texts[4], name + "waiting for 5 seconds, user_timeout_seconds: 5, currentUrgency: 1");
    EXPECT_EQ(texts[5], name +
                            "KELVANE_OPERATION_STATS_URGENCY_1 : amount reported: 0, amountPurged: 0, "
                            "purge_amount_needed: 10, cancel: FALSE");
    EXPECT_EQ(texts[6].find(name + "result {"), 0u);
    EXPECT_NE(texts[6].find("KELVANE_FREESPACE_END = 1000;"), std::string::npos);
  });
}

TEST_F(APurge, MeasuresNoTimeWithoutATimebase) {
  run([&] {
    gTimebaseConversion = 0.0;
    EXPECT_EQ(purge(infoFor(10, {{keys::urgency, 1}}))[keys::elapsedTime], Value(0.0));
  });
}

}  // namespace
}  // namespace kelvane::test
