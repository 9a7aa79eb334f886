// SPDX-License-Identifier: Apache-2.0
// What a purge queues, refuses and counts when its services' answers come late, early or at the same time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "operations/KelvanePurgeOperation.h"
#include "protocols/Keys.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using testing::ElementsAre;

constexpr char blockName[] =
    "-[KelvanePurgeOperation queueServiceRequest:info:urgency:operationInfo:completion:]_block";

class APurgeThatQueues : public OperationTest {
 protected:
  Value purge(std::uint64_t amount, const ServiceTable& services, std::int32_t urgencyLimit = 1) {
    operation = KelvanePurgeOperation::initWithInfo(
        Value::Dictionary{{keys::volume, volume}, {keys::amount, amount}, {keys::urgency, urgencyLimit}}, services);
    // Answers may still be delivered when this has returned.
    const auto last = std::make_shared<Value>();
    operation->startOperation([last](const Value& value) { *last = value; });
    return *last;
  }

  /// The identifiers whose queued blocks ran, in order.
  std::vector<std::string> queued() {
    const std::string prefix = std::string(blockName) + " queuing service: ";
    std::vector<std::string> identifiers;
    for (const std::string& text : log().texts()) {
      if (text.starts_with(prefix)) {
        identifiers.push_back(text.substr(prefix.size()));
      }
    }
    return identifiers;
  }

  std::size_t donations() { return log().count(std::string(blockName) + " donation ("); }

  /// Says that it gave more than it was asked for, then nothing; the volume gains nothing.
  static ScriptedService::Handler generousOnce() {
    const auto isGenerous = std::make_shared<bool>(true);
    return [isGenerous](const ScriptedService::Request& request) {
      const std::uint64_t asked = request.info[keys::amount].uint64Value();
      request.reply.send(given(std::exchange(*isGenerous, false) ? asked + 1 : 0));
    };
  }

  static Value given(std::uint64_t bytes) { return Value::Dictionary{{keys::amount, bytes}}; }

  const SerialQueue& messageQueue() const { return (*operation.*Exposed::messageQueue)(); }

  std::shared_ptr<KelvanePurgeOperation> operation;

 private:
  struct Exposed : KelvaneOperation {
    static constexpr auto messageQueue = &Exposed::message_queue;
  };
};

// Were the first block to run while the others are not queued yet, its answer could queue the next before them.
TEST_F(APurgeThatQueues, QueuesAllOfAPassBeforeTheFirstRuns) {
  for (std::uint64_t seed = 1; seed <= 100; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          std::vector<std::unique_ptr<ScriptedService>> services;
          std::vector<std::shared_ptr<KLService>> records;
          for (const char* identifier : {"a", "b", "c", "d", "e", "f"}) {
            services.push_back(std::make_unique<ScriptedService>(identifier));
            services.back()->onPurge = generousOnce();
            records.push_back(services.back()->record());
          }
          purge(600, tableOf(records));
          std::vector<std::string> first = queued();
          ASSERT_GE(first.size(), 6u);
          first.resize(6);
          EXPECT_THAT(first, ElementsAre("a", "b", "c", "d", "e", "f"));
        },
        seed);
  }
}

TEST_F(APurgeThatQueues, QueuesAServiceAgainThatGaveMoreThanItsShare) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = generousOnce();
    purge(100, tableOf({service.record()}));
    simulation->settle();
    EXPECT_THAT(queued(), ElementsAre("a", "a"));
  });
}

TEST_F(APurgeThatQueues, DoesNothingInABlockOnceEnoughIsPurged) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = freesWhatIsAsked();
    purge(100, tableOf({service.record()}));
    simulation->settle();
    EXPECT_THAT(queued(), ElementsAre("a", "a"));
    EXPECT_EQ(donations(), 1u);
    EXPECT_FALSE(log().contains("already inFlight"));
  });
}

TEST_F(APurgeThatQueues, DoesNothingInABlockOnceItIsCancelled) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = [&](const ScriptedService::Request& request) {
      operation->cancelOperation();
      request.reply.send(Value::Dictionary{{keys::amount, request.info[keys::amount]}});
    };
    purge(100, tableOf({service.record()}));
    simulation->settle();
    EXPECT_THAT(queued(), ElementsAre("a", "a"));
    EXPECT_EQ(donations(), 1u);
    EXPECT_FALSE(log().contains("already inFlight"));
  });
}

TEST_F(APurgeThatQueues, DoesNothingInABlockWhenNobodyCanGiveAnyMore) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurge = ScriptedService::silence();
    purge(100, tableOf({silent.record()}), 2);
    EXPECT_THAT(queued(), ElementsAre("silent", "silent"));
    EXPECT_EQ(donations(), 1u);
    EXPECT_FALSE(log().contains("already inFlight"));
  });
}

TEST_F(APurgeThatQueues, RefusesAServiceThatIsStillInFlightFromAnEarlierPass) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurge = ScriptedService::silence();
    ScriptedService other("other");
    other.onPurge = frees(0);
    purge(100, tableOf({silent.record(), other.record()}), 2);
    simulation->settle();
    EXPECT_THAT(other.calls(), ElementsAre("servicePurge 1", "servicePurge 2"));
    EXPECT_THAT(silent.calls(), ElementsAre("servicePurge 1", "serviceCancelPurge"));
    EXPECT_EQ(donations(), 4u);
    EXPECT_EQ(log().count("trying to add \"silent\", which is already inFlight"), 1u);
  });
}

TEST_F(APurgeThatQueues, AsksForTheShareThatWasWorkedOutWhenTheRequestIsSentLater) {
  run([&] {
    ScriptedService slow("slow");
    slow.onPurge = ScriptedService::gives(0);
    ScriptedService quick("quick");
    std::vector<std::uint64_t> asked;
    quick.onPurge = [&](const ScriptedService::Request& request) {
      asked.push_back(request.info[keys::amount].uint64Value());
      clock::sleepMicroseconds(1'000);
      frees(asked.size() == 1 ? 500 : 0)(request);
    };
    const auto record = slow.record();
    record->call_queue().suspend();
    globalQueue::async([record] {
      clock::sleepMicroseconds(1'000'000);
      record->call_queue().resume();
    });
    purge(1000, tableOf({record, quick.record()}));
    EXPECT_THAT(asked, testing::AnyOf(ElementsAre(500), ElementsAre(500, 250)));
    ASSERT_EQ(slow.infos().size(), 1u);
    EXPECT_EQ(slow.infos()[0][keys::amount], Value(std::uint64_t{500}));
  });
}

// Two services of the first pass are out of the count when they answer in the second, where a third has left it too.
TEST_F(APurgeThatQueues, HasNothingToShareOnceTheCountHasWrapped) {
  run([&] {
    std::map<std::string, ipc::Reply> held;
    std::vector<std::unique_ptr<ScriptedService>> services;
    std::vector<std::shared_ptr<KLService>> records;
    for (const char* identifier : {"generous", "late1", "late2", "poor"}) {
      services.push_back(std::make_unique<ScriptedService>(identifier));
      services.back()->onPurge = [&, identifier](const ScriptedService::Request& request) {
        const bool isLate = std::string(identifier).starts_with("late");
        if (request.urgency == 1 && !isLate) {
          request.reply.send(given(0));
        } else {
          held.insert_or_assign(identifier, request.reply);
        }
      };
      records.push_back(services.back()->record());
    }
    globalQueue::async([&] {
      // In the second pass, when the two that can give have been asked for half each.
      clock::sleepMicroseconds(3'000'000);
      for (const char* identifier : {"poor", "late1", "late2"}) {
        held.at(identifier).send(given(1));
        simulation->settle();
      }
      held.at("generous").send(given(500));
    });
    purge(1000, tableOf(records), 2);
    simulation->settle();
    EXPECT_TRUE(
        log().contains("donation (0) = (amount needed[1000] - amount_purged[0]) / "
                       "viable_purging_services[18446744073709551615])"));
    // It was marked before that was known.
    EXPECT_THAT(operation->inFlight(), ElementsAre("generous"));
  });
}

TEST_F(APurgeThatQueues, NotesWhatAServiceReportedOnTheRegistrysQueue) {
  run([&] {
    ScriptedService service("a");
    service.onPurge = frees(3);
    const SerialQueue& queue = SharedRegistry::sharedKelvane().collection_queue();
    queue.suspend();
    const Value result = purge(100, tableOf({service.record()}));
    simulation->settle();
    const Value info = result["KELVANE_URGENCY_1_OPERATION_INFO"];
    EXPECT_FALSE(info.contains("KELVANE_REPORTING_SERVICES"));
    queue.resume();
    simulation->settle();
    EXPECT_EQ(info["KELVANE_REPORTING_SERVICES"], Value(Value::Dictionary{{"a", std::uint64_t{3}}}));
  });
}

TEST_F(APurgeThatQueues, KeepsTheLastReportOfAServiceThatAnsweredTwiceInAPass) {
  bool answeredTwice = false;
  for (std::uint64_t seed = 1; seed <= 100 && !answeredTwice; ++seed) {
    run(
        [&] {
          ScriptedService service("a");
          service.onPurge = [&](const ScriptedService::Request& request) {
            const std::uint64_t asked = request.info[keys::amount].uint64Value();
            simulation->volumes().give(volume, asked == 100 ? 60 : 10);
            request.reply.send(given(asked == 100 ? 100 : 10));
          };
          const Value result = purge(100, tableOf({service.record()}));
          simulation->settle();
          if (service.calls().size() == 2) {
            answeredTwice = true;
            EXPECT_EQ(result["KELVANE_URGENCY_1_OPERATION_INFO"]["KELVANE_REPORTING_SERVICES"],
                      Value(Value::Dictionary{{"a", std::uint64_t{10}}}));
            EXPECT_EQ(operation->purge_amount_reported(), 110u);
          }
        },
        seed);
  }
  EXPECT_TRUE(answeredTwice);
}

TEST_F(APurgeThatQueues, DoesNotWaitForTheNoteOfItsTimeOut) {
  std::set<bool> noted;
  for (std::uint64_t seed = 1; seed <= 100 && noted.size() < 2; ++seed) {
    run(
        [&] {
          const auto info = [](const Value& result) { return result["KELVANE_URGENCY_1_OPERATION_INFO"]; };
          const Value result = purge(100, {});
          noted.insert(info(result).contains("KELVANE_URGENCY_1_TIMEOUT_SECONDS"));
          simulation->settle();
          EXPECT_TRUE(info(result).contains("KELVANE_URGENCY_1_TIMEOUT_SECONDS"));
        },
        seed);
  }
  EXPECT_EQ(noted, (std::set<bool>{false, true}));
}

// An answer that comes just as the purge ends finds either the last pass's semaphore, while there is one, or none.
TEST_F(APurgeThatQueues, SignalsNobodyOnceItIsOver) {
  std::set<bool> signalled;
  for (std::uint64_t seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          ScriptedService late("late");
          late.onPurge = [](const ScriptedService::Request& request) {
            globalQueue::async([request] {
              clock::sleepMicroseconds(2'000'000);
              request.reply.send(given(1));
            });
          };
          purge(100, tableOf({late.record()}));
          clock::sleepMicroseconds(1'000'000);
          const std::vector<std::string> texts = log().texts(5);
          const auto find = [&](const std::string& part) {
            return std::find_if(texts.begin(), texts.end(),
                                [&](const std::string& text) { return text.find(part) != std::string::npos; });
          };
          const auto signal = find("All services accounted for");
          signalled.insert(signal != texts.end());
          if (signal != texts.end()) {
            EXPECT_LT(signal, find("startOperation:] result {"));
          }
        },
        seed);
  }
  EXPECT_EQ(signalled, (std::set<bool>{false, true}));
}

TEST_F(APurgeThatQueues, DoesNotAskForEverOnceItIsOver) {
  // One that claims what the volume does not bear out would never be let go of.
  for (const bool isLongOver : {false, true}) {
    run([&] {
      ScriptedService boaster("boaster");
      boaster.onPurge = [&](const ScriptedService::Request& request) {
        if (boaster.calls().size() == 1) {
          messageQueue().suspend();
          request.reply.send(given(request.info[keys::amount].uint64Value()));
        } else {
          request.reply.send(given(0));
        }
      };
      purge(100, tableOf({boaster.record()}));
      simulation->settle();
      EXPECT_EQ(boaster.calls().size(), 1u);
      clock::sleepMicroseconds(isLongOver ? 300'000'000 : 299'000'000);
      messageQueue().resume();
      simulation->settle();
      EXPECT_EQ(boaster.calls().size(), isLongOver ? 1u : 2u);
    });
  }
}

TEST_F(APurgeThatQueues, CancelsNobodyWhenEnoughWasPurgedAlthoughSomebodyIsInFlight) {
  run([&] {
    ScriptedService silent("silent");
    silent.onPurge = [&](const ScriptedService::Request&) { simulation->volumes().give(volume, 100); };
    const Value result = purge(100, tableOf({silent.record()}));
    simulation->settle();
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{100}));
    EXPECT_EQ(result[keys::amountReported], Value(std::uint64_t{0}));
    EXPECT_EQ(operation->inFlightCount(), 1u);
    EXPECT_FALSE(operation->cancel());
    EXPECT_FALSE(log().contains("cancelling purge"));
    EXPECT_EQ(silent.count("serviceCancelPurge"), 0u);
  });
}

// Shares of nothing leave both in flight without a request whose own failure could take them out.
TEST_F(APurgeThatQueues, KeepsAServiceInFlightWhoseConnectionFailsUnderTheCancel) {
  run([&] {
    ScriptedService a("a");
    ScriptedService b("b");
    a.onCancel = ScriptedService::dies();
    b.onCancel = ScriptedService::dies();
    purge(1, tableOf({a.record(), b.record()}));
    simulation->settle();
    EXPECT_EQ(a.count("serviceCancelPurge") + b.count("serviceCancelPurge"), 2u);
    EXPECT_EQ(log().count("-[KelvanePurgeOperation cancelOperation]_block connection invalidated", 5), 2u);
    EXPECT_THAT(operation->inFlight(), ElementsAre("a", "b"));
  });
}

TEST_F(APurgeThatQueues, WorksOutSharesOfItsPercentageInSinglePrecision) {
  run([&] {
    purge(0, {});
    const auto bucket = [&](std::int64_t requested, std::int64_t purged) {
      log().clear();
      operation->reportPercentageForAmountRequested(requested, purged, "x");
      return log().texts(5).front();
    };
    const std::string name = "-[KelvanePurgeOperation reportPercentageForAmountRequested:amountPurged:identifier:] ";
    // 0.7 is a little less as a float, 0.3 a little more.
    EXPECT_EQ(bucket(10, 7), name + "x.purged.60.percent");
    EXPECT_EQ(bucket(10, 3), name + "x.purged.30.percent");
    EXPECT_EQ(bucket(1'000'000'000, 999'999'999), name + "x.purged.100.percent");
  });
}

}  // namespace
}  // namespace kelvane::test
