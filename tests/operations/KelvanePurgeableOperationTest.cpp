// SPDX-License-Identifier: Apache-2.0
// Purgeable-space queries: whom they ask, how long they wait, what they report.
#include "operations/KelvanePurgeableOperation.h"

#include <thread>

#include "platform/Clock.h"
#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "support/Timebase.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

const std::string startName = "-[KelvanePurgeableOperation startOperation:]";
const std::string blockName = startName + "_block";

class PurgeableSpace : public OperationTest {
 protected:
  std::shared_ptr<KelvanePurgeableOperation> make(const ServiceTable& services, Value::Dictionary info = {}) {
    info[keys::volume] = volume;
    operation = KelvanePurgeableOperation::initWithInfo(info, services);
    return operation;
  }
  Value start() {
    Value result;
    const std::uint64_t begin = clock::ticks();
    operation->startOperation([&](const Value& value) { result = value; });
    seconds = secondsSince(begin);
    return result;
  }
  Value query(const ServiceTable& services, Value::Dictionary info = {}) {
    make(services, std::move(info));
    return start();
  }

  /// Answers this long after it was asked.
  static ScriptedService::Handler after(std::uint32_t microseconds, Value answer) {
    return [=](const ScriptedService::Request& request) {
      clock::sleepMicroseconds(microseconds);
      request.reply.send(answer);
    };
  }
  static Value amount(Value bytes) { return Value::Dictionary{{keys::amount, std::move(bytes)}}; }
  static Value result(Value::Dictionary amounts, std::int64_t total) {
    amounts[keys::totalAvailable] = total;
    amounts[keys::volume] = volume;
    return amounts;
  }
  /// The record as if these had answered now.
  void remember(const Value::Dictionary& amounts) {
    for (const auto& [identifier, bytes] : amounts) {
      KelvanePurgeableOperation::updateServiceStats(identifier,
                                                    Value::Dictionary{{keys::amount, bytes}, {keys::volume, volume}});
    }
    simulation->settle();
  }
  std::vector<std::string> pollLines() {
    std::vector<std::string> lines;
    for (const std::string& text : log().textsOf(startName)) {
      for (const char* part : {" --------- ", "maxExtensions", "^^^"}) {
        if (text.find(part) != std::string::npos) {
          lines.push_back(text.substr(startName.size() + 1));
          break;
        }
      }
    }
    return lines;
  }
  static std::string tick(std::uint64_t number) {
    return std::string("--------- ") + (number % 2 == 0 ? "tick" : "tock") + " --------- " + std::to_string(number) +
           " ---------";
  }

  std::shared_ptr<KelvanePurgeableOperation> operation;
  double seconds = 0;
};

TEST_F(PurgeableSpace, IsTheSumOfWhatTheServicesSay) {
  run([&] {
    ScriptedService a("a");
    a.onPurgeable = ScriptedService::gives(100);
    ScriptedService b("b");
    b.onPurgeable = ScriptedService::gives(std::uint64_t{23});
    EXPECT_EQ(query(tableOf({a.record(), b.record()})), result({{"a", 100}, {"b", 23}}, 123));
    EXPECT_EQ(a.calls(), std::vector<std::string>{"servicePurgeable 3"});
    EXPECT_EQ(a.infos(), std::vector<Value>{operation->info()});
  });
}

TEST_F(PurgeableSpace, AsksAtItsUrgencyLimit) {
  run([&] {
    for (const int urgency : {1, 2, 3, 4}) {
      ScriptedService service("service " + std::to_string(urgency));
      query(tableOf({service.record()}), {{keys::urgency, urgency}});
      EXPECT_EQ(service.calls(), std::vector<std::string>{"servicePurgeable " + std::to_string(urgency)});
      EXPECT_TRUE(
          log().contains(blockName + " ^^^asking " + service.identifier() + " for urgency " + std::to_string(urgency)));
    }
  });
}

TEST_F(PurgeableSpace, AsksOnlyServicesThatPurgeAndMayBeQueried) {
  run([&] {
    ScriptedService asked("asked");
    ScriptedService idle("idle");
    const auto idleRecord = idle.record();
    idleRecord->setDoesPurge(false);
    ScriptedService shy("shy");
    const auto shyRecord = shy.record();
    shyRecord->setDoNotQuery(true);
    ScriptedService periodic("periodic");
    const auto periodicRecord = periodic.record();
    periodicRecord->setDoesPeriodic(true);
    query(tableOf({asked.record(), idleRecord, shyRecord, periodicRecord}));
    EXPECT_EQ(operation->services().size(), 2u);
    EXPECT_EQ(asked.count("servicePurgeable 3"), 1u);
    EXPECT_EQ(periodic.count("servicePurgeable 3"), 1u);
    EXPECT_TRUE(idle.calls().empty());
    EXPECT_TRUE(shy.calls().empty());
  });
}

TEST_F(PurgeableSpace, IsAnsweredAtOnceWhenEverythingIsCached) {
  run([&] {
    ScriptedService a("a");
    ScriptedService b("b");
    remember({{"a", 100}, {"b", 23}});
    log().clear();
    EXPECT_EQ(query(tableOf({a.record(), b.record()})), result({{"a", 100}, {"b", 23}}, 123));
    EXPECT_EQ(seconds, 0.0);
    EXPECT_TRUE(a.calls().empty());
    EXPECT_TRUE(b.calls().empty());
    EXPECT_EQ(log().count("using all cached info"), 2u);
    EXPECT_TRUE(pollLines().empty());
    const std::string info = "{ KELVANE_VOLUME = \"/data\"; }";
    const std::string amounts = "{ a = 100; b = 23; }";
    EXPECT_EQ(log().textsOf(startName),
              (std::vector<std::string>{
                  startName + " ENTRY, info: " + info,
                  startName + " cachedInfo (2nd pass): { KELVANE_SERVICES_TO_COUNT = " + amounts +
                      "; KELVANE_SERVICES_TO_QUERY = ( ); }",
                  startName + " Still in flight: ( )",
                  startName + " elapsed time: 0.000000 result: " + result({{"a", 100}, {"b", 23}}, 123).description(),
              }));
  });
}

TEST_F(PurgeableSpace, AsksOnlyThoseWhoAreNotCached) {
  run([&] {
    ScriptedService known("known");
    ScriptedService unknown("unknown");
    unknown.onPurgeable = ScriptedService::gives(1);
    remember({{"known", 100}});
    EXPECT_EQ(query(tableOf({known.record(), unknown.record()})), result({{"known", 100}, {"unknown", 1}}, 101));
    EXPECT_TRUE(known.calls().empty());
  });
}

TEST_F(PurgeableSpace, WaitsNoLongerThanItsServices) {
  run([&] {
    ScriptedService service("a");
    service.onPurgeable = after(25'000, amount(7));
    EXPECT_EQ(query(tableOf({service.record()})), result({{"a", 7}}, 7));
    EXPECT_EQ(seconds, 0.03);
    EXPECT_TRUE(log().contains(" elapsed time: 0.030000 result: "));
    EXPECT_EQ(pollLines(),
              (std::vector<std::string>{"^^^waiting for a little bit", tick(0), tick(1), tick(2),
                                        "^^^beat the timeout, woohoo!", "^^^done waiting, inFlight: ( )"}));
    EXPECT_EQ(log().textsOf(blockName),
              (std::vector<std::string>{blockName + " ^^^asking a for urgency 3",
                                        blockName + " a took 0.025000 seconds, returned: { KELVANE_AMOUNT = 7; }"}));
    const auto samples = simulation->statistics().samples("a_purgeableElapsedNanoseconds");
    EXPECT_EQ(samples, std::vector<double>{25e6});
  });
}

TEST_F(PurgeableSpace, WaitsFifteenTicksForASilentServiceAtUrgencyThree) {
  run([&] {
    for (const int urgency : {1, 2, 3}) {
      log().clear();
      ScriptedService silent("silent");
      silent.onPurgeable = ScriptedService::silence();
      EXPECT_EQ(query(tableOf({silent.record()}), {{keys::urgency, urgency}}), result({}, 0));
      EXPECT_EQ(seconds, 0.15);
      std::vector<std::string> expected = {"^^^waiting for a little bit"};
      for (std::uint64_t number = 0; number < 15; ++number) {
        expected.push_back(tick(number));
      }
      expected.push_back("^^^done waiting, inFlight: ( silent )");
      EXPECT_EQ(pollLines(), expected);
      EXPECT_TRUE(log().contains(startName + " Still in flight: ( silent )"));
    }
  });
}

TEST_F(PurgeableSpace, ExtendsItsWaitFiveTimesAtUrgencyFour) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurgeable = ScriptedService::silence();
    EXPECT_EQ(query(tableOf({silent.record()}), {{keys::urgency, 4}}), result({}, 0));
    EXPECT_EQ(seconds, 0.85);
    std::vector<std::string> expected = {"^^^waiting for a little bit", tick(0)};
    for (int budget = 5; budget >= 0; --budget) {
      for (std::uint64_t number = 1; number < 15; ++number) {
        expected.push_back(tick(number));
      }
      if (budget > 0) {
        expected.push_back("maxExtensions: " + std::to_string(budget));
      }
    }
    expected.push_back("^^^done waiting, inFlight: ( silent )");
    EXPECT_EQ(pollLines(), expected);
  });
}

TEST_F(PurgeableSpace, EndsInTheMiddleOfAnExtensionWhenTheLastServiceAnswers) {
  run([&] {
    ScriptedService slow("slow");
    slow.onPurgeable = after(205'000, amount(7));
    EXPECT_EQ(query(tableOf({slow.record()}), {{keys::urgency, 4}}), result({{"slow", 7}}, 7));
    EXPECT_EQ(seconds, 0.21);
    EXPECT_EQ(log().count("maxExtensions: 5"), 1u);
    EXPECT_EQ(log().count("maxExtensions"), 1u);
  });
}

TEST_F(PurgeableSpace, CountsWhoAnsweredInTimeWhenOthersDoNot) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurgeable = ScriptedService::silence();
    ScriptedService other("other");
    other.onPurgeable = after(1000, amount(7));
    EXPECT_EQ(query(tableOf({silent.record(), other.record()})), result({{"other", 7}}, 7));
    EXPECT_EQ(seconds, 0.15);
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(PurgeableSpace, RemembersLateAnswersForTheNextQuery) {
  run([&] {
    ScriptedService late("late");
    late.onPurgeable = after(400'000, amount(9));
    const ServiceTable services = tableOf({late.record()});
    EXPECT_EQ(query(services), result({}, 0));
    const auto first = operation;
    clock::sleepMicroseconds(500'000);
    EXPECT_EQ(first->inFlightCount(), 0u);
    EXPECT_EQ(query(services), result({{"late", 9}}, 9));
    EXPECT_EQ(late.count("servicePurgeable 3"), 1u);
  });
}

TEST_F(PurgeableSpace, AsksAllServicesAtTheSameTime) {
  run([&] {
    std::vector<std::unique_ptr<ScriptedService>> all;
    ServiceTable services;
    for (int index = 0; index < 20; ++index) {
      all.push_back(std::make_unique<ScriptedService>("service" + std::to_string(index)));
      all.back()->onPurgeable = after(95'000, amount(1));
      services[all.back()->identifier()] = all.back()->record();
    }
    EXPECT_EQ(query(services)[keys::totalAvailable], Value(20));
    EXPECT_EQ(seconds, 0.1);
  });
}

TEST_F(PurgeableSpace, CountsAnswersInWhateverOrderTheyCome) {
  for (std::uint64_t seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          ScriptedService a("a");
          a.onPurgeable = ScriptedService::gives(1);
          ScriptedService b("b");
          b.onPurgeable = after(10'000, amount(20));
          ScriptedService c("c");
          c.onPurgeable = after(50'000, amount(300));
          EXPECT_EQ(query(tableOf({a.record(), b.record(), c.record()})),
                    result({{"a", 1}, {"b", 20}, {"c", 300}}, 321));
        },
        seed);
  }
}

// What the services may answer.

TEST_F(PurgeableSpace, CountsTheAnswerOfTheLastServiceInFlight) {
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          ScriptedService service("a");
          service.onPurgeable = ScriptedService::gives(1);
          EXPECT_EQ(query(tableOf({service.record()})), result({{"a", 1}}, 1));
        },
        seed);
  }
}

TEST_F(PurgeableSpace, CountsAServiceThatOptsOut) {
  run([&] {
    ScriptedService shy("shy");
    const Value answer = Value::Dictionary{{keys::amount, 7}, {keys::optOut, false}};
    shy.onPurgeable = after(1000, answer);
    EXPECT_EQ(query(tableOf({shy.record()})), result({{"shy", 7}}, 7));
    EXPECT_EQ(log().count(blockName + " shy has " + answer.description() + ", skipping", 5), 1u);
    EXPECT_TRUE(operation->optOutService("shy", false));
  });
}

TEST_F(PurgeableSpace, ForgetsOptOutsWithTheOperation) {
  run([&] {
    ScriptedService shy("shy");
    shy.onPurgeable = ScriptedService::gives(7);
    const ServiceTable services = tableOf({shy.record()});
    make(services);
    operation->optOutService("shy", true);
    make(services);
    EXPECT_TRUE(operation->optOuts().snapshot()->empty());
    EXPECT_EQ(start(), result({{"shy", 7}}, 7));
  });
}

TEST_F(PurgeableSpace, DoesNotAskAServiceThatHasOptedOut) {
  run([&] {
    ScriptedService shy("shy");
    make(tableOf({shy.record()}));
    EXPECT_FALSE(operation->optOutService("shy", true));
    EXPECT_EQ(start(), result({}, 0));
    EXPECT_EQ(seconds, 0.0);
    EXPECT_TRUE(shy.calls().empty());
  });
}

TEST_F(PurgeableSpace, LetsAnOptOutHoldForTwoMinutes) {
  run([&] {
    make({});
    EXPECT_FALSE(operation->optOutService("a", false));
    EXPECT_FALSE(operation->optOutService("a", true));
    EXPECT_EQ(operation->optOuts()["a"], Value(clock::now()));
    clock::sleepMicroseconds(119'999'000);
    EXPECT_TRUE(operation->optOutService("a", false));
    EXPECT_TRUE(operation->optOutService("a", false)) << "that somebody asked changes nothing";
    clock::sleepMicroseconds(1'000);
    EXPECT_FALSE(operation->optOutService("a", false));
    EXPECT_FALSE(operation->optOuts().snapshot()->contains("a"));
  });
}

TEST_F(PurgeableSpace, TakesNoAnswerForNothing) {
  run([&] {
    ScriptedService mute("mute");
    mute.onPurgeable = after(1000, Value());
    ScriptedService odd("odd");
    odd.onPurgeable = after(1000, "no dictionary");
    const ServiceTable services = tableOf({mute.record(), odd.record()});
    EXPECT_EQ(query(services), result({{"mute", 0}, {"odd", 0}}, 0));
    EXPECT_TRUE(log().contains(blockName + " mute took 0.001000 seconds, returned: (null)"));
    EXPECT_EQ(query(services), result({{"mute", 0}, {"odd", 0}}, 0));
    EXPECT_EQ(mute.count("servicePurgeable 3"), 1u);
  });
}

TEST_F(PurgeableSpace, LeavesOutAnAnswerWithoutAnAmount) {
  run([&] {
    ScriptedService odd("odd");
    odd.onPurgeable = after(1000, Value::Dictionary{{"other", 1}});
    const ServiceTable services = tableOf({odd.record()});
    EXPECT_EQ(query(services), result({}, 0));
    EXPECT_EQ(seconds, 0.01) << "it has answered all the same";
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{blockName + " odd answered without an amount that can be kept: { other = 1; }"});
    EXPECT_TRUE(registry->changes.empty());
    query(services);
    EXPECT_EQ(odd.count("servicePurgeable 3"), 2u);
  });
}

TEST_F(PurgeableSpace, RemembersNoAmountThatIsNeitherANumberNorSmall) {
  run([&] {
    ScriptedService greedy("greedy");
    greedy.onPurgeable = ScriptedService::gives(std::string(limits::recentAmountBytes, 'x'));
    ScriptedService small("small");
    small.onPurgeable = ScriptedService::gives(std::string(limits::recentAmountBytes / 2, 'x'));
    // Small as a property list, which writes equal numbers once.
    ScriptedService repetitive("repetitive");
    repetitive.onPurgeable = ScriptedService::gives(Value::Array(100, 7));
    const Value answer = query(tableOf({greedy.record(), small.record(), repetitive.record()}));
    EXPECT_FALSE(answer.contains("greedy"));
    EXPECT_FALSE(answer.contains("repetitive"));
    EXPECT_TRUE(answer.contains("small"));
    EXPECT_EQ(operation->inFlightCount(), 0u);
    EXPECT_TRUE(log().contains(" greedy answered without an amount that can be kept: "));
  });
}

TEST_F(PurgeableSpace, ShowsOnlyTheBeginningOfAnAnswerThatItCannotKeep) {
  run([&] {
    ScriptedService greedy("greedy");
    const Value answer = Value::Dictionary{{"A", std::string(60'000, 'x')}};
    greedy.onPurgeable = after(1000, answer);
    query(tableOf({greedy.record()}));
    const std::vector<std::string> lines = log().texts(3);
    ASSERT_EQ(lines.size(), 1u);
    const std::string beginning = blockName + " greedy answered without an amount that can be kept: ";
    EXPECT_EQ(lines[0], beginning + answer.description().substr(0, limits::shownReplyBytes) + "...");
    EXPECT_EQ(log().count(answer.description(), 5), 1u) << "tracing has all of it";
  });
}

TEST_F(PurgeableSpace, MeasuresNoTimesWithoutATimebase) {
  run([&] {
    gTimebaseConversion = 0.0;
    ScriptedService service("a");
    service.onPurgeable = after(1000, Value::Dictionary{{keys::amount, 7}});
    EXPECT_EQ(query(tableOf({service.record()})), result({{"a", 7}}, 7));
    EXPECT_EQ(log().count(blockName + " a took 0.000000 seconds, returned: ", 5), 1u);
    EXPECT_EQ(log().count(startName + " elapsed time: 0.000000 result: ", 5), 1u);
    EXPECT_EQ(simulation->statistics().samples("a_purgeableElapsedNanoseconds"), std::vector<double>{0.0});
  });
}

TEST_F(PurgeableSpace, HandsTheStateOverWhenAllIsInItAndBeforeItIsDelivered) {
  run([&] {
    ScriptedService service("a");
    service.onPurgeable = ScriptedService::gives(7);
    make(tableOf({service.record()}));
    std::size_t handOvers = 0;
    operation->startOperation([&](const Value&) { handOvers = registry->handOvers.size(); });
    EXPECT_EQ(handOvers, 1u);
    EXPECT_EQ(registry->handOvers, std::vector<std::size_t>{registry->changes.size()});
    EXPECT_EQ(registry->changes.size(), 1u);
  });
}

TEST_F(PurgeableSpace, NotesAnOptOutWithoutAnAmount) {
  run([&] {
    ScriptedService shy("shy");
    shy.onPurgeable = ScriptedService::Handler(after(1000, Value::Dictionary{{keys::optOut, true}}));
    EXPECT_EQ(query(tableOf({shy.record()})), result({}, 0));
    EXPECT_TRUE(operation->optOutService("shy", false));
  });
}

TEST_F(PurgeableSpace, ShowsAmountsThatAreNoNumbersAndDoesNotAddThem) {
  run([&] {
    ScriptedService odd("odd");
    odd.onPurgeable = ScriptedService::gives("much");
    ScriptedService number("number");
    number.onPurgeable = ScriptedService::gives(5);
    EXPECT_EQ(query(tableOf({odd.record(), number.record()})), result({{"number", 5}, {"odd", "much"}}, 5));
    EXPECT_EQ(log().texts(3), std::vector<std::string>{startName + " 163 odd num is not a number: much"});
  });
}

TEST_F(PurgeableSpace, AddsInTwosComplement) {
  run([&] {
    const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    remember({{"a", most}, {"b", 3}, {"c", 2.9}, {"d", true}, {"e", std::int64_t{-10}}});
    EXPECT_EQ(query({})[keys::totalAvailable], Value(-1 + 3 + 2 + 1 - 10));
    remember({{"a", std::numeric_limits<std::int64_t>::max()}, {"b", 1}, {"c", 0}, {"d", 0}, {"e", 0}});
    EXPECT_EQ(query({})[keys::totalAvailable], Value(std::numeric_limits<std::int64_t>::min()));
  });
}

TEST_F(PurgeableSpace, PutsItsOwnEntriesOverServicesOfTheSameName) {
  run([&] {
    remember({{keys::volume, 1}, {keys::totalAvailable, 2}});
    EXPECT_EQ(query({}), result({}, 3));
  });
}

// Connections.

TEST_F(PurgeableSpace, DoesNotWaitForAServiceWhoseConnectionFails) {
  run([&] {
    ScriptedService dying("dying");
    dying.onPurgeable = ScriptedService::dies();
    EXPECT_EQ(query(tableOf({dying.record()})), result({}, 0));
    EXPECT_LE(seconds, 0.01);
    EXPECT_EQ(log().count(blockName + " connection invalidated: dying"), 1u);
    EXPECT_TRUE(registry->changes.empty());
    EXPECT_EQ(operation->inFlightCount(), 0u);
  });
}

TEST_F(PurgeableSpace, AsksAServiceThatIsInFlightOnlyOnce) {
  run([&] {
    ScriptedService service("a");
    make(tableOf({service.record()}));
    operation->updateInFlight("a", true);
    EXPECT_EQ(start(), result({}, 0));
    EXPECT_EQ(seconds, 0.15);
    EXPECT_TRUE(service.calls().empty());
    EXPECT_TRUE(log().contains("trying to add \"a\", which is already inFlight"));
  });
}

// The operation.

TEST_F(PurgeableSpace, CannotBeCancelled) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurgeable = ScriptedService::silence();
    make(tableOf({silent.record()}));
    globalQueue::async([&] {
      clock::sleepMicroseconds(50'000);
      operation->cancelOperation();
    });
    start();
    EXPECT_EQ(seconds, 0.15);
    EXPECT_EQ(silent.count("serviceCancelPurge"), 0u);
  });
}

TEST_F(PurgeableSpace, IsNotToldFromARefusedInfo) {
  run([&] {
    EXPECT_EQ(KelvanePurgeableOperation::initWithInfo("no dictionary", {}), nullptr);
    EXPECT_EQ(KelvanePurgeableOperation::initWithInfo(Value::Dictionary{}, {}), nullptr);
    EXPECT_EQ(KelvanePurgeableOperation::initWithInfo(Value::Dictionary{{keys::volume, 3}}, {}), nullptr);
    EXPECT_EQ(KelvanePurgeableOperation::initWithInfo(Value::Dictionary{{keys::volume, "/nowhere"}}, {}), nullptr);
  });
}

TEST_F(PurgeableSpace, CompletesOnceOnTheThreadThatStartedIt) {
  run([&] {
    ScriptedService service("a");
    service.onPurgeable = after(1000, amount(1));
    make(tableOf({service.record()}));
    std::vector<std::thread::id> threads;
    operation->startOperation([&](const Value&) { threads.push_back(std::this_thread::get_id()); });
    EXPECT_EQ(threads, std::vector<std::thread::id>{std::this_thread::get_id()});
  });
}

}  // namespace
}  // namespace kelvane::test
