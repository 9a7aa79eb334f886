// SPDX-License-Identifier: Apache-2.0
// Who is asked again within a pass: whoever gives, until enough is gained, and nobody for words alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "operations/KelvanePurgeOperation.h"
#include "protocols/Keys.h"
#include "support/Settings.h"
#include "tests/harness/OperationTest.h"
#include "tests/harness/Seeds.h"

namespace kelvane::test {
namespace {

using testing::Each;
using testing::ElementsAre;

constexpr std::uint64_t block = 4096;
constexpr std::uint64_t longPass = 60;

/// A cache of whole blocks, which gives at least what it is asked for while it has it.
struct Cache {
  explicit Cache(const std::string& identifier) : service(identifier) {}
  ScriptedService service;
  std::uint64_t left = 0;
  std::uint64_t given = 0;
};

class APurgeByTurns : public OperationTest {
 protected:
  Value purge(std::uint64_t amount, const ServiceTable& services, std::uint64_t timeout = longPass,
              std::int32_t urgencyLimit = 1) {
    operation = KelvanePurgeOperation::initWithInfo(Value::Dictionary{{keys::volume, volume},
                                                                      {keys::amount, amount},
                                                                      {keys::urgency, urgencyLimit},
                                                                      {keys::purgeTimeout, timeout}},
                                                    services);
    // Answers may still be delivered when this has returned.
    const auto last = std::make_shared<Value>();
    operation->startOperation([last](const Value& value) { *last = value; });
    return *last;
  }

  Cache& add(const std::string& identifier, std::uint64_t bytes, std::uint32_t microseconds = 0) {
    Cache& cache = *caches.emplace_back(std::make_unique<Cache>(identifier));
    cache.left = bytes;
    cache.service.onPurge = [this, &cache, microseconds](const ScriptedService::Request& request) {
      if (microseconds != 0) {
        clock::sleepMicroseconds(microseconds);
      }
      const std::uint64_t asked = request.info[keys::amount].uint64Value();
      const std::uint64_t gives = std::min(cache.left, (asked + block - 1) / block * block);
      cache.left -= gives;
      cache.given += gives;
      simulation->volumes().give(volume, gives);
      request.reply.send(Value::Dictionary{{keys::amount, gives}});
    };
    records.push_back(cache.service.record());
    return cache;
  }
  /// Described, but not there.
  void addAbsent(const std::string& identifier) {
    const auto record = std::make_shared<KLService>(identifier);
    record->setDoesPurge(true);
    records.push_back(record);
  }
  /// Claims whatever it is asked for and gives nothing.
  ScriptedService& addBoaster(const std::string& identifier) {
    Cache& cache = *caches.emplace_back(std::make_unique<Cache>(identifier));
    records.push_back(cache.service.record());
    return cache.service;
  }
  void addSilent(const std::string& identifier) { addBoaster(identifier).onPurge = ScriptedService::silence(); }
  void forget() {
    caches.clear();
    records.clear();
  }

  static std::vector<std::uint64_t> shares(const ScriptedService& service) {
    std::vector<std::uint64_t> amounts;
    for (const Value& info : service.infos()) {
      amounts.push_back(info[keys::amount].uint64Value());
    }
    return amounts;
  }

  std::shared_ptr<KelvanePurgeOperation> operation;
  std::vector<std::unique_ptr<Cache>> caches;
  std::vector<std::shared_ptr<KLService>> records;
};

/// Of ten thousand schedules, a tenth.
class APurgeOfMixedServices : public APurgeByTurns, public testing::WithParamInterface<std::uint64_t> {
 protected:
  static constexpr std::uint64_t needed = 64 * block;

  /// One, half or all of the services have enough; some described ones are not there; who answers last differs.
  std::size_t addServices() {
    simulated::Random& load = simulation->load();
    const std::size_t services = std::vector<std::size_t>{2, 3, 10}[load.below(3)];
    const std::size_t rich = std::vector<std::size_t>{1, services / 2, services}[load.below(3)];
    const std::size_t absent = load.below(2) * 8;
    const std::size_t firstRich = load.below(services);
    for (std::size_t i = 0; i < services; ++i) {
      const bool isRich = (i + services - firstRich) % services < rich;
      const std::uint32_t delay = load.below(2) == 0 ? 0 : static_cast<std::uint32_t>(load.below(200'000));
      add("s" + std::to_string(i), isRich ? needed : load.below(4) * block, delay);
    }
    for (std::size_t i = 0; i < absent; ++i) {
      addAbsent("com.example.absent" + std::to_string(i));
    }
    return services;
  }
};

TEST_P(APurgeOfMixedServices, GainsWhatThereIsAtTheFirstUrgencyAndHardlyMore) {
  constexpr std::uint64_t seeds = seedCount(1000);
  for (std::uint64_t seed = 1 + GetParam() * seeds; seed <= (GetParam() + 1) * seeds && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          forget();
          const std::size_t services = addServices();
          const std::uint64_t gained = purge(needed, tableOf(records))[keys::amount].uint64Value();
          EXPECT_GE(gained, needed);
          EXPECT_LT(gained, needed + services * block);
        },
        seed);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, APurgeOfMixedServices, testing::Range<std::uint64_t>(0, 10));

TEST_F(APurgeByTurns, OfAThousandServicesIsSatisfiedByTheOneThatHasAnything) {
  run([&] {
    constexpr std::uint64_t needed = 4096 * block;
    for (int i = 0; i < 1000; ++i) {
      add("s" + std::to_string(i), i == 500 ? needed : 0);
    }
    const std::uint64_t start = clock::ticks();
    EXPECT_EQ(purge(needed, tableOf(records))[keys::amount], Value(needed));
    EXPECT_LT(secondsSince(start), 1.0);
  });
}

// A, B and C are asked for 333 each; B gives 100 and is out. 766 are gained, so A and C are asked for 117.
TEST_F(APurgeByTurns, SharesWhatIsStillMissingAmongThoseWhoGaveWhenAllHaveAnswered) {
  for (std::uint64_t seed = 0; seed <= seedCount(200); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          std::map<std::string, std::unique_ptr<ScriptedService>> services;
          std::vector<std::shared_ptr<KLService>> table;
          for (const char* identifier : {"a", "b", "c"}) {
            auto service = std::make_unique<ScriptedService>(identifier);
            const std::uint64_t most = *identifier == 'b' ? 100 : 333;
            service->onPurge = [this, most, &load = simulation->load()](const ScriptedService::Request& request) {
              clock::sleepMicroseconds(static_cast<std::uint32_t>(load.below(100'000)));
              const std::uint64_t asked = request.info[keys::amount].uint64Value();
              frees(asked == 333 ? most : 0)(request);
            };
            table.push_back(service->record());
            services.emplace(identifier, std::move(service));
          }
          purge(1000, tableOf(table));
          EXPECT_THAT(shares(*services.at("a")), ElementsAre(333, 117));
          EXPECT_THAT(shares(*services.at("b")), ElementsAre(333));
          EXPECT_THAT(shares(*services.at("c")), ElementsAre(333, 117));
        },
        seed);
  }
}

// Twice as much as needed would go if the quick one were asked for half of the rest before the slow one is done.
TEST_F(APurgeByTurns, TakesNothingThatTheOthersAreAboutToGive) {
  run([&] {
    Cache& quick = add("quick", 100 * block);
    Cache& slow = add("slow", 100 * block, 200'000);
    purge(20 * block, tableOf(records));
    EXPECT_EQ(quick.given, 10 * block);
    EXPECT_EQ(slow.given, 10 * block);
  });
}

TEST_F(APurgeByTurns, WaitsForOneThatIsSilentOnlyOnceAndNotLong) {
  run([&] {
    Cache& cache = add("cache", 1000 * block);
    addSilent("silent");
    std::vector<double> asked;
    const auto serve = cache.service.onPurge;
    const std::uint64_t start = clock::ticks();
    cache.service.onPurge = [&](const ScriptedService::Request& request) {
      asked.push_back(secondsSince(start));
      serve(request);
    };
    EXPECT_EQ(purge(16 * block, tableOf(records), 10)[keys::amount], Value(16 * block));
    ASSERT_GE(asked.size(), 3u);
    EXPECT_EQ(asked[0], 0.0);
    asked.erase(asked.begin());
    EXPECT_THAT(asked, Each(0.25));
  });
}

TEST_F(APurgeByTurns, WaitsForOthersAsLongAsItTookTheFirstWhoGave) {
  run([&] {
    add("cache", 1000 * block, 3'000'000);
    Cache& slow = add("slow", 1000 * block, 5'900'000);
    purge(16 * block, tableOf(records));
    EXPECT_THAT(shares(slow.service), ElementsAre(8 * block));
    EXPECT_EQ(caches[0]->given, 8 * block);
  });
}

TEST_F(APurgeByTurns, IsNotHeldUpByWhoWasSilentInAnEarlierPass) {
  run([&] {
    Cache& cache = add("cache", 1000 * block);
    Cache& other = add("other", 1000 * block);
    add("poor", 0);
    addSilent("silent");
    std::vector<double> asked;
    const std::uint64_t start = clock::ticks();
    // All that they free in the first pass is used up at once.
    simulation->volumes().setAvailable(volume, 0);
    const auto takes = [&](Cache& from) {
      return [&, serve = from.service.onPurge](const ScriptedService::Request& request) {
        serve(request);
        if (request.urgency == 1) {
          simulation->volumes().take(volume, UINT64_MAX);
        } else {
          asked.push_back(secondsSince(start));
        }
      };
    };
    cache.service.onPurge = takes(cache);
    other.service.onPurge = takes(other);
    purge(16 * block, tableOf(records), 10, 2);
    // The second pass waits for nothing but its end, which the silent one keeps from coming early.
    EXPECT_EQ(secondsSince(start), 20.0);
    EXPECT_EQ(cache.service.count("servicePurge 2"), 2u);
    EXPECT_EQ(other.service.count("servicePurge 2"), 2u);
    EXPECT_THAT(asked, Each(10.0));
  });
}

TEST_F(APurgeByTurns, IsNotHeldUpByWhoWasSilentInAPassInWhichNobodyGave) {
  run([&] {
    Cache& cache = add("cache", 1000 * block);
    add("poor", 0);
    addSilent("silent");
    std::vector<double> asked;
    const std::uint64_t start = clock::ticks();
    cache.service.onPurge = [&, serve = cache.service.onPurge](const ScriptedService::Request& request) {
      if (request.urgency == 1) {
        request.reply.send(Value::Dictionary{{keys::amount, 0}});
        return;
      }
      asked.push_back(secondsSince(start));
      serve(request);
    };
    EXPECT_EQ(purge(16 * block, tableOf(records), 10, 2)[keys::amount], Value(16 * block));
    EXPECT_GE(asked.size(), 2u);
    EXPECT_THAT(asked, Each(10.0));
  });
}

TEST_F(APurgeByTurns, EndsWhenThoseWhoGaveAreNotNeededAnyMore) {
  for (std::uint64_t seed = 0; seed <= seedCount(200); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          forget();
          add("a", block);
          addAbsent("com.example.absent");
          const std::uint64_t start = clock::ticks();
          purge(block, tableOf(records));
          EXPECT_EQ(secondsSince(start), 0.0);
        },
        seed);
  }
}

// The first answers come while most of the services have not even been marked in flight.
TEST_F(APurgeByTurns, OfManyServicesDoesNotEndBeforeTheLastIsAsked) {
  for (std::uint64_t seed = 1; seed <= seedCount(50); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          forget();
          for (int i = 0; i < 200; ++i) {
            add("s" + std::to_string(i), 0);
          }
          Cache& last = add("t", 1000 * block);
          EXPECT_EQ(purge(201 * block, tableOf(records))[keys::amount], Value(201 * block));
          EXPECT_EQ(last.given, 201 * block);
        },
        seed);
  }
}

TEST_F(APurgeByTurns, GoesOnWhileWhatIsFreedFillsUpTheReserveOfTheSuperuser) {
  run([&] {
    simulation->volumes().setReserveUsed(volume, 40 * block);
    Cache& cache = add("cache", 1000 * block);
    EXPECT_EQ(purge(16 * block, tableOf(records))[keys::amount], Value(16 * block));
    EXPECT_EQ(cache.given, 56 * block);
  });
}

// After its turns a boaster's next request may still run, between its leaving the in-flight set and the end of the
// pass.
TEST_F(APurgeByTurns, AsksABoasterEightMoreTimesAndAtMostOnceByChance) {
  for (const int boasters : {1, 10}) {
    for (std::uint64_t seed = 0; seed <= seedCount(100); ++seed) {
      SCOPED_TRACE(seed);
      run(
          [&] {
            forget();
            for (int i = 0; i < boasters; ++i) {
              addBoaster("boaster" + std::to_string(i));
            }
            const std::uint64_t start = clock::ticks();
            purge(100, tableOf(records), 300);
            EXPECT_EQ(secondsSince(start), 0.0);
            simulation->settle();
            for (const auto& cache : caches) {
              EXPECT_GE(cache->service.count("servicePurge 1"), 9u);
              EXPECT_LE(cache->service.count("servicePurge 1"), 10u);
            }
          },
          seed);
    }
  }
}

TEST_F(APurgeByTurns, GetsFromTheHonestOneWhatABoasterOnlyClaims) {
  run([&] {
    ScriptedService& boaster = addBoaster("boaster");
    Cache& honest = add("honest", 1000 * block);
    EXPECT_EQ(purge(100 * block, tableOf(records))[keys::amount], Value(100 * block));
    EXPECT_EQ(honest.given, 100 * block);
    // The honest one gives half of what is missing each time, in whole blocks.
    EXPECT_LE(boaster.count("servicePurge 1"), 9u);
  });
}

// Every second time the volume bears it out.
TEST_F(APurgeByTurns, KeepsAPaceWithOneThatTakesBackWhatItGave) {
  run([&] {
    ScriptedService& churning = addBoaster("churning");
    std::uint64_t answers = 0;
    churning.onPurge = [&](const ScriptedService::Request& request) {
      ++answers;
      answers % 2 == 0 ? simulation->volumes().take(volume, 1) : simulation->volumes().give(volume, 1);
      request.reply.send(Value::Dictionary{{keys::amount, answers < 1000 ? request.info[keys::amount] : Value(0)}});
    };
    const std::uint64_t start = clock::ticks();
    purge(100, tableOf(records), 1);
    EXPECT_EQ(secondsSince(start), 1.0);
    simulation->settle();
    EXPECT_GE(answers, 64u + 199);
    EXPECT_LE(answers, 64u + 201);
  });
}

// Somebody else uses at once what it frees, again and again.
TEST_F(APurgeByTurns, CountsTheTurnsOfAServiceAnewOnceTheVolumeBearsItOut) {
  run([&] {
    ScriptedService unlucky("unlucky");
    int answers = 0;
    unlucky.onPurge = [&](const ScriptedService::Request& request) {
      ++answers;
      if (answers % 9 == 0) {
        simulation->volumes().give(volume, 1);
      }
      request.reply.send(Value::Dictionary{{keys::amount, request.info[keys::amount]}});
    };
    purge(3, tableOf({unlucky.record()}));
    EXPECT_EQ(answers, 27);
  });
}

TEST_F(APurgeByTurns, CountsTheTurnsOfAServiceAnewInEachPass) {
  run([&] {
    ScriptedService boaster("boaster");
    std::map<std::int32_t, int> answers;
    boaster.onPurge = [&](const ScriptedService::Request& request) {
      const bool claims = ++answers[request.urgency] <= 8;
      request.reply.send(Value::Dictionary{{keys::amount, claims ? request.info[keys::amount] : Value(0)}});
    };
    purge(100, tableOf({boaster.record()}), longPass, 2);
    EXPECT_EQ(answers, (std::map<std::int32_t, int>{{1, 9}, {2, 9}}));
  });
}

TEST_F(APurgeByTurns, LeavesThoseWhoWaitToTheNextPassWhenItsTimeIsOver) {
  run([&] {
    add("cache", 1000 * block);
    addSilent("silent");
    const auto serve = caches[0]->service.onPurge;
    caches[0]->service.onPurge = [&, serve](const ScriptedService::Request& request) {
      if (request.urgency == 1) {
        clock::sleepMicroseconds(1'900'000);
      }
      serve(request);
    };
    // It gives its half when 0.1 s of the first pass are left, and waits for the silent one.
    EXPECT_EQ(purge(16 * block, tableOf(records), 2, 2)[keys::amount], Value(16 * block));
    EXPECT_EQ(shares(caches[0]->service), (std::vector<std::uint64_t>{8 * block, 8 * block}));
    EXPECT_EQ(caches[0]->service.count("servicePurge 1"), 1u);
    EXPECT_EQ(caches[0]->service.count("servicePurge 2"), 1u);
  });
}

// It answers just when the first pass's time is over: while the next pass's requests are queued, or are yet to be.
TEST_F(APurgeByTurns, AsksALateOneAtTheUrgencyOfThePassOnceThatHasAskedIt) {
  std::set<bool> askedAgainForTheFirstPass;
  for (std::uint64_t seed = 1; seed <= seedCount(2000); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          forget();
          for (int i = 0; i < 3; ++i) {
            add("s" + std::to_string(i), 0);
          }
          Cache& late = add("late", 1000 * block);
          std::vector<std::int32_t> urgencies;
          const auto serve = late.service.onPurge;
          late.service.onPurge = [&](const ScriptedService::Request& request) {
            urgencies.push_back(request.urgency);
            clock::sleepMicroseconds(urgencies.size() == 1 ? 2'000'000 : 1000);
            serve(request);
          };
          // Those that are described and not there keep the shares small: there are many rounds.
          for (int i = 0; i < 4; ++i) {
            addAbsent("com.example.absent" + std::to_string(i));
          }
          purge(64 * block, tableOf(records), 2, 2);
          simulation->settle();
          EXPECT_TRUE(std::is_sorted(urgencies.begin(), urgencies.end())) << testing::PrintToString(urgencies);
          askedAgainForTheFirstPass.insert(urgencies.size() > 1 && urgencies[1] == 1);
        },
        seed);
  }
  EXPECT_EQ(askedAgainForTheFirstPass, (std::set<bool>{false, true}));
}

TEST_F(APurgeByTurns, WaitsForASilentOneNoLongerForHowLongEarlierRoundsTook) {
  run([&] {
    Cache& cache = add("cache", 1000 * block);
    Cache& other = add("other", 1000 * block);
    add("poor", 0);
    std::vector<double> asked;
    const std::uint64_t start = clock::ticks();
    const auto serve = cache.service.onPurge;
    cache.service.onPurge = [&, serve](const ScriptedService::Request& request) {
      asked.push_back(secondsSince(start));
      clock::sleepMicroseconds(asked.size() == 1 ? 10'000'000 : 1'000'000);
      serve(request);
    };
    const auto serveOther = other.service.onPurge;
    other.service.onPurge = [&, serveOther](const ScriptedService::Request& request) {
      if (other.service.calls().size() == 1) {
        clock::sleepMicroseconds(11'000'000);
        serveOther(request);
      }
    };
    purge(16 * block, tableOf(records));
    ASSERT_GE(asked.size(), 3u);
    asked.resize(3);
    EXPECT_THAT(asked, ElementsAre(0.0, 11.0, 13.0));
  });
}

/// With the setting by which passes do not wait for nobody.
class APurgeWhosePassesEndEarly : public APurgeByTurns {
 protected:
  void SetUp() override { settings.endPassesEarly = true; }
  void TearDown() override { settings.endPassesEarly = false; }

  /// How long a purge of 16 blocks in two passes of a minute takes.
  double secondsOfPurge() {
    const std::uint64_t start = clock::ticks();
    purge(16 * block, tableOf(records), longPass, 2);
    return secondsSince(start);
  }
};

TEST_F(APurgeWhosePassesEndEarly, IsOverAtOnceWhenItIsSatisfied) {
  for (std::uint64_t seed = 0; seed <= seedCount(100); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          forget();
          Cache& cache = add("cache", 1000 * block);
          EXPECT_EQ(secondsOfPurge(), 0.0);
          EXPECT_EQ(cache.given, 16 * block);
          EXPECT_FALSE(log().contains("timed out waiting for"));
        },
        seed);
  }
}

TEST_F(APurgeWhosePassesEndEarly, IsOverAtOnceWhenNobodyPurges) {
  run([&] { EXPECT_EQ(secondsOfPurge(), 0.0); });
}

TEST_F(APurgeWhosePassesEndEarly, IsOverWhenEveryConnectionHasFailed) {
  for (std::uint64_t seed = 0; seed <= seedCount(100); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          forget();
          addAbsent("com.example.absent0");
          addAbsent("com.example.absent1");
          EXPECT_EQ(secondsOfPurge(), 0.0);
        },
        seed);
  }
}

TEST_F(APurgeWhosePassesEndEarly, IsOverWhenTheLastOfItsServicesFails) {
  run([&] {
    add("cache", 4 * block);
    addAbsent("com.example.absent");
    EXPECT_EQ(secondsOfPurge(), 0.0);
  });
}

TEST_F(APurgeWhosePassesEndEarly, WaitsForWhoeverIsInFlight) {
  run([&] {
    addSilent("silent");
    EXPECT_EQ(secondsOfPurge(), 2 * longPass);
  });
}

TEST_F(APurgeWhosePassesEndEarly, GainsWhatThereIs) {
  for (std::uint64_t seed = 1; seed <= seedCount(100); ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          forget();
          add("a", 100 * block);
          add("b", 0);
          addAbsent("com.example.absent");
          EXPECT_EQ(purge(16 * block, tableOf(records))[keys::amount], Value(16 * block));
        },
        seed);
  }
}

// The count may drop to nothing between the look at it and the division.
TEST_F(APurgeByTurns, SharesAmongOneWhenNobodyIsCountedAnyMore) {
  EXPECT_EQ(KelvanePurgeOperation::divisorOf(0), 1u);
  EXPECT_EQ(KelvanePurgeOperation::divisorOf(1), 1u);
  EXPECT_EQ(KelvanePurgeOperation::divisorOf(UINT64_MAX), UINT64_MAX);
}

}  // namespace
}  // namespace kelvane::test
