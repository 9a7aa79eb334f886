// SPDX-License-Identifier: Apache-2.0
// Clock, log, statistics, volumes, files and preferences of the simulation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Files.h"
#include "platform/MutableDictionary.h"
#include "platform/Preferences.h"
#include "platform/Reporting.h"
#include "platform/Volumes.h"
#include "platform/simulated/Simulation.h"
#include "tests/harness/ResultText.h"

namespace kelvane {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

TEST(Ticks, FollowTheTimebaseExactly) {
  Simulation simulation;
  simulation.clock().setTimebase(clock::Timebase{125, 3});
  simulation.run([&] {
    const auto base = clock::timebase();
    ASSERT_TRUE(base);
    EXPECT_EQ(base->numerator, 125U);
    EXPECT_EQ(base->denominator, 3U);
    const std::uint64_t before = clock::ticks();
    clock::sleepMicroseconds(1'000'000);
    EXPECT_EQ(clock::ticks() - before, 24'000'000U);
    EXPECT_EQ(clock::ticks() - before, 24'000'000U);
  });
}

TEST(ATimebase, MayBeUnreadable) {
  Simulation simulation;
  simulation.clock().setTimebase(std::nullopt);
  simulation.run([&] {
    EXPECT_FALSE(clock::timebase());
    const std::uint64_t before = clock::ticks();
    simulation.advance(seconds(1));
    EXPECT_GT(clock::ticks(), before);
  });
}

TEST(TheDate, GoesOnFromWhereItWasSet) {
  Simulation simulation;
  simulation.run([&] {
    simulation.setDate(Date{1000});
    simulation.advance(seconds(5));
    EXPECT_NEAR(clock::now().secondsSince1970, 1005, 1e-6);
    const std::uint64_t before = clock::ticks();
    simulation.setDate(Date{10});
    EXPECT_NEAR(clock::now().secondsSince1970, 10, 1e-6);
    EXPECT_EQ(clock::ticks(), before);
  });
}

TEST(TheLog, KeepsWhatWasWritten) {
  Simulation simulation;
  reporting::writeLog(5, "Kelvane", "main", "main Kelvane, open for business!");
  reporting::writeLog(3, "Kelvane", "scan", "scan failed");
  reporting::writeLog(5, "Kelvane", "main", "main again");
  EXPECT_TRUE(simulation.log().contains("open for"));
  EXPECT_FALSE(simulation.log().contains("closed"));
  EXPECT_EQ(simulation.log().count("main"), 2U);
  EXPECT_EQ(simulation.log().messages()[1].level, 3);
  EXPECT_EQ(simulation.log().messages()[1].category, "Kelvane");
  EXPECT_THAT(simulation.log().texts(), ElementsAre("main Kelvane, open for business!", "scan failed", "main again"));
  EXPECT_THAT(simulation.log().texts(3), ElementsAre("scan failed"));
  EXPECT_THAT(simulation.log().textsOf("main"), ElementsAre("main Kelvane, open for business!", "main again"));
  simulation.log().clear();
  EXPECT_THAT(simulation.log().texts(), IsEmpty());
}

TEST(TheLog, IsOpenWithoutASimulation) {
  reporting::writeLog(3, "Kelvane", "none", "reaches nobody");
}

TEST(Counters, AddUpByDomainAndName) {
  Simulation simulation;
  reporting::addToCounter("com.tessaly.kelvane", "total.purged", 5);
  reporting::addToCounter("com.tessaly.kelvane", "total.purged", 7);
  reporting::addToCounter("com.tessaly.kelvane", "", 1);
  reporting::addToCounter("other", "total.purged", 100);
  reporting::addToCounter("other", "sum", std::numeric_limits<std::int64_t>::max());
  reporting::addToCounter("other", "sum", 1);
  EXPECT_EQ(simulation.statistics().counter("total.purged"), 12);
  EXPECT_EQ(simulation.statistics().counter("total.purged", "other"), 100);
  EXPECT_EQ(simulation.statistics().counter("sum", "other"), std::numeric_limits<std::int64_t>::min());
  EXPECT_TRUE(simulation.statistics().hasCounter(""));
  EXPECT_FALSE(simulation.statistics().hasCounter("", "other"));
  EXPECT_EQ(simulation.statistics().counter("none"), 0);
  EXPECT_THAT(simulation.statistics().counterNames(), ElementsAre("", "total.purged"));
}

TEST(Samples, AreKeptInOrder) {
  Simulation simulation;
  reporting::addSample("com.tessaly.kelvane", "elapsed", 2.5);
  reporting::addSample("com.tessaly.kelvane", "elapsed", 1.5);
  EXPECT_THAT(simulation.statistics().samples("elapsed"), ElementsAre(2.5, 1.5));
  EXPECT_THAT(simulation.statistics().samples("elapsed", "other"), IsEmpty());
}

TEST(Volumes, AreWhatTheScriptSays) {
  Simulation simulation;
  simulation.volumes().add("/", 500);
  simulation.volumes().add("/data", 300);
  simulation.volumes().add("/media", 100);
  simulation.volumes().setLocal("/media", false);
  simulation.volumes().setUsable("/media", false);
  EXPECT_EQ(volumes::local(), (Texts{"/", "/data"}));
  EXPECT_TRUE(volumes::isUsable("/data"));
  EXPECT_FALSE(volumes::isUsable("/media"));
  EXPECT_FALSE(volumes::isUsable("/data/sub"));
  simulation.volumes().give("/data", 50);
  EXPECT_EQ(volumes::space("/data")->available, 350U);
  simulation.volumes().take("/data", 1000);
  EXPECT_EQ(volumes::space("/data")->available, 0U);
  simulation.volumes().setAvailable("/data", 7);
  EXPECT_EQ(volumes::space("/data")->available, 7U);
  simulation.volumes().remove("/data");
  EXPECT_FALSE(volumes::space("/data"));
}

TEST(Volumes, HaveSpaceThatIsKnownWhileTheyAreThereAndAnswer) {
  Simulation simulation;
  simulation.volumes().add("/data", 300);
  simulation.volumes().setReserve("/data", 20);
  EXPECT_EQ(*volumes::space("/data"), (volumes::Space{.size = 320, .available = 300, .free = 320, .fileSystem = 1}));
  simulation.volumes().setLow("/data", true);
  simulation.volumes().setSilent("/data", true);
  EXPECT_EQ(volumes::space("/data").failure().number, ETIMEDOUT);
  EXPECT_FALSE(volumes::isUsable("/data"));
  EXPECT_THAT(volumes::local(), IsEmpty());
  EXPECT_THAT(volumes::lowOnSpace(), IsEmpty());
  EXPECT_EQ(volumes::space("/nowhere").failure().number, ENOENT);
}

TEST(LowVolumes, AreListedEmptiestFirst) {
  Simulation simulation;
  EXPECT_THAT(volumes::lowOnSpace(), IsEmpty());
  simulation.volumes().add("/a", 500);
  simulation.volumes().add("/b", 300);
  simulation.volumes().add("/c", 400);
  for (const char* volume : {"/a", "/b", "/c"}) {
    simulation.volumes().setLow(volume, true);
  }
  EXPECT_EQ(volumes::lowOnSpace(), (Texts{"/b", "/c", "/a"}));
  simulation.volumes().setLow("/b", false);
  EXPECT_EQ(volumes::lowOnSpace(), (Texts{"/c", "/a"}));
}

TEST(Files, AreListedInNameOrderADirectoryBeforeWhatIsInIt) {
  Simulation simulation;
  simulation.files().write("/library/b.plist", "b");
  simulation.files().write("/library/a/z.plist", "z");
  simulation.files().write("/library/a/sub/y.plist", "y");
  simulation.files().write("/library/a.plist", "a");
  simulation.files().makeDirectory("/library/empty");
  simulation.files().makeFifo("/library/fifo");
  simulation.files().makeLink("/library/link", "/library/a");
  EXPECT_EQ(files::entriesBeneath("/library").entries,
            (Texts{"a", "a/sub", "a/sub/y.plist", "a/z.plist", "a.plist", "b.plist", "empty", "fifo", "link"}));
  for (const char* directory : {"/library/empty", "/missing"}) {
    EXPECT_THAT(files::entriesBeneath(directory).entries, IsEmpty());
    EXPECT_THAT(files::entriesBeneath(directory).failures, IsEmpty());
  }
}

TEST(WhatCannotBeListed, IsEmptyAndSaysWhy) {
  Simulation simulation;
  simulation.files().write("/library/a.plist", "a");
  simulation.files().makeLink("/dangling", "/nowhere");
  const auto reasonFor = [](const char* directory) {
    const files::Listing listing = files::entriesBeneath(directory);
    EXPECT_THAT(listing.entries, IsEmpty());
    return listing.failures;
  };
  EXPECT_EQ(reasonFor("/library/a.plist"), (Texts{"/library/a.plist: Not a directory"}));
  EXPECT_EQ(reasonFor("/dangling/rules"), (Texts{"/dangling/rules: A symbolic link leads nowhere"}));
  simulation.files().makeUnreadable("/library", "Input/output error");
  EXPECT_EQ(reasonFor("/library"), (Texts{"/library: Input/output error"}));
}

TEST(ALinkToADirectory, IsFollowedAtTheTop) {
  Simulation simulation;
  simulation.files().write("/elsewhere/a.plist", "a");
  simulation.files().makeLink("/library", "/elsewhere");
  simulation.files().makeLink("/endless", "/endless");
  EXPECT_EQ(files::entriesBeneath("/library").entries, (Texts{"a.plist"}));
  EXPECT_EQ(files::entriesBeneath("/endless").failures, (Texts{"/endless: Too many levels of symbolic links"}));
  EXPECT_EQ(std::get<Data>(files::read("/library/a.plist", 10)), Data{'a'});
  EXPECT_EQ(*files::realPath("/library//a.plist"), "/elsewhere/a.plist");
  EXPECT_EQ(*files::realPath("/"), "/");
  EXPECT_FALSE(files::realPath("/endless"));
}

TEST(Reading, GivesTheContentsOfARegularFileOrAnError) {
  Simulation simulation;
  simulation.files().write("/library/a.plist", "abc");
  simulation.files().makeFifo("/library/fifo");
  simulation.files().write("/library/secret", "abc");
  simulation.files().makeUnreadable("/library/secret");
  EXPECT_EQ(std::get<Data>(files::read("/library/a.plist", 3)), (Data{'a', 'b', 'c'}));
  EXPECT_FALSE(std::get<files::Error>(files::read("/library/a.plist", 2)).text.empty());
  EXPECT_EQ(std::get<files::Error>(files::read("/library/secret", 10)).text, "Permission denied");
  EXPECT_EQ(std::get<files::Error>(files::read("/library", 10)).text, "Is a directory");
  EXPECT_EQ(std::get<files::Error>(files::read("/library/fifo", 10)).text, "Not a regular file");
  simulation.files().remove("/library/a.plist");
  EXPECT_EQ(std::get<files::Error>(files::read("/library/a.plist", 10)).text, "No such file or directory");
}

TEST(Reading, FindsAFileMissingOnlyWhereNothingIsToBe) {
  Simulation simulation;
  simulation.files().write("/library/file", "abc");
  simulation.files().makeLink("/link", "/library");
  simulation.files().makeLink("/dangling", "/library/nothing");
  const auto isMissing = [](const char* path) { return std::get<files::Error>(files::read(path, 10)).isMissing; };
  for (const char* path : {"/missing", "/missing/file", "/library/missing", "/link/missing"}) {
    EXPECT_TRUE(isMissing(path)) << path;
  }
  for (const char* path : {"/library/file/more", "/dangling", "/dangling/file"}) {
    EXPECT_FALSE(isMissing(path)) << path;
  }
}

TEST(AnUnreadableDirectory, IsListedWithoutWhatIsInIt) {
  Simulation simulation;
  simulation.files().write("/library/closed/a.plist", "a");
  simulation.files().makeUnreadable("/library/closed");
  EXPECT_EQ(files::entriesBeneath("/library").entries, (Texts{"closed"}));
  EXPECT_EQ(files::entriesBeneath("/library").failures, (Texts{"/library/closed/: Permission denied"}));
}

/// A suite of this name; null when it cannot be opened.
std::unique_ptr<PreferencesSuite> opened(const std::string& name) {
  auto suite = PreferencesSuite::open(name);
  return suite ? *std::move(suite) : nullptr;
}

/// Has the suite written, and waits for it: empty when it went well.
std::string written(PreferencesSuite& suite) {
  const Semaphore done(0);
  std::string result;
  suite.whenDurable([&](const PreferencesSuite::Outcome& outcome) {
    result = test::textOf(outcome);
    done.signal();
  });
  done.wait();
  return result;
}

TEST(ASuite, ShowsWhatWasSetAtOnceAndOnDiskOnceSynchronized) {
  Simulation simulation;
  simulation.run([&] {
    const auto suite = opened("com.tessaly.kelvane");
    ASSERT_NE(suite, nullptr);
    suite->setEntry("dictionary", "state", Value(1));
    EXPECT_EQ(suite->entry("dictionary", "state"), Value(1));
    EXPECT_TRUE(simulation.preferences().onDisk("com.tessaly.kelvane")["dictionary"]["state"].isAbsent());
    EXPECT_EQ(written(*suite), "");
    EXPECT_EQ(simulation.preferences().onDisk("com.tessaly.kelvane")["dictionary"]["state"], Value(1));
    suite->setEntry("dictionary", "state", Value());
    EXPECT_TRUE(suite->entry("dictionary", "state")->isAbsent());
    EXPECT_EQ(simulation.preferences().writes(), 1);
  });
}

TEST(ASuite, KeepsOnDiskWhatASharedDictionaryHeldWhenItWasWritten) {
  Simulation simulation;
  simulation.run([&] {
    const auto suite = opened("suite");
    MutableDictionary dictionary;
    suite->setEntry("dictionary", "live", Value::Array{dictionary});
    EXPECT_EQ(written(*suite), "");
    dictionary.set("later", Value(1));
    EXPECT_TRUE((*simulation.preferences().onDisk("suite")["dictionary"]["live"].array())[0]["later"].isAbsent());
  });
}

TEST(ASuite, ThatCannotBeWrittenStaysInMemory) {
  Simulation simulation;
  simulation.run([&] {
    const auto suite = opened("suite");
    suite->setEntry("dictionary", "key", Value("value"));
    simulation.preferences().setFailing(true);
    EXPECT_EQ(written(*suite), "flushing: Input/output error");
    EXPECT_EQ(suite->entry("dictionary", "key"), Value("value"));
    simulation.preferences().setFailing(false);
    EXPECT_EQ(written(*suite), "");
    EXPECT_EQ(simulation.preferences().onDisk("suite")["dictionary"]["key"], Value("value"));
  });
}

TEST(ASuite, HasTheRoomThatATestSays) {
  Simulation simulation;
  simulation.run([&] {
    const auto suite = opened("suite");
    EXPECT_EQ(test::textOf(suite->makeRoom(1'000'000'000)), "");
    simulation.preferences().setRoom(100);
    EXPECT_EQ(test::textOf(suite->makeRoom(100)), "");
    EXPECT_EQ(test::textOf(suite->makeRoom(101)), "writing: No space left on device");
  });
}

TEST(ASuite, HasEntriesThatChangeByThemselves) {
  Simulation simulation;
  simulation.preferences().set("suite", "text", "text");
  simulation.run([&] {
    const auto suite = opened("suite");
    EXPECT_EQ(suite->entry("state", "a"), std::nullopt);
    suite->setEntry("state", "a", 1);
    suite->setEntry("state", "b", 2);
    suite->setEntry("state", "a", Value());
    EXPECT_EQ(suite->entry("state", "a"), Value());
    EXPECT_EQ(suite->entry("state", "b"), Value(2));
    EXPECT_EQ((*suite)["state"], Value(Value::Dictionary{{"b", 2}}));
    EXPECT_EQ(suite->entry("text", "b"), std::nullopt) << "no dictionary";
    suite->setEntry("text", "c", 3);
    EXPECT_EQ((*suite)["text"], Value(Value::Dictionary{{"c", 3}}));
  });
}

TEST(ASuite, TellsWhatWasHandedOver) {
  Simulation simulation;
  simulation.run([&] {
    const auto suite = opened("suite");
    suite->setEntry("dictionary", "key", 1);
    EXPECT_TRUE(simulation.preferences().handedOver("suite")["dictionary"]["key"].isAbsent());
    suite->handOver();
    suite->setEntry("dictionary", "key", 2);
    EXPECT_EQ(simulation.preferences().handedOver("suite")["dictionary"]["key"], Value(1));
    EXPECT_EQ(simulation.preferences().handOvers(), 1);
  });
}

TEST(ASuite, MayBeRefused) {
  Simulation simulation;
  simulation.preferences().setOpenable(false);
  EXPECT_EQ(opened("suite"), nullptr);
  simulation.preferences().setOpenable(true);
  EXPECT_NE(opened("suite"), nullptr);
  EXPECT_EQ(simulation.preferences().openings(), 1);
}

TEST(ASuite, BeginsAfterARestartWithWhatWasOnDisk) {
  Simulation simulation;
  simulation.preferences().set("suite", "earlier", Value(0));
  simulation.run([&] {
    const auto suite = opened("suite");
    EXPECT_EQ((*suite)["earlier"], Value(0));
    suite->setEntry("dictionary", "kept", Value(1));
    EXPECT_EQ(written(*suite), "");
    suite->setEntry("dictionary", "lost", Value(2));
    EXPECT_EQ(simulation.preferences().contents("suite")["dictionary"]["lost"], Value(2));
  });
  simulation.run([&] {
    const auto suite = opened("suite");
    EXPECT_EQ(suite->entry("dictionary", "kept"), Value(1));
    EXPECT_EQ(suite->entry("dictionary", "lost"), Value());
  });
}

}  // namespace
}  // namespace kelvane
