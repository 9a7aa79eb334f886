// SPDX-License-Identifier: Apache-2.0
// The registry: what it is made of and the snapshots of its table.
#include <gtest/gtest.h>

#include "tests/harness/BeforeEachMessage.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

class TheRegistry : public DaemonTest {
 protected:
  void prepare() override { simulation->preferences().setOpenable(preferencesOpen); }
  bool preferencesOpen = true;
};

TEST_F(TheRegistry, TellsHowItIsMade) {
  runDaemon([&] {
    const std::string name = "-[Kelvane init] ";
    EXPECT_EQ(log().textsOf("-[Kelvane init]"),
              (std::vector<std::string>{
                  name + "plistDir: //System/Library/Kelvane/", name + "scanning //System/Library/Kelvane/",
                  name + "scanning /TessalyInternal/Library/Kelvane/", name + "resuming listener"}));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(TheRegistry, LabelsItsQueues) {
  runDaemon([&] {
    EXPECT_EQ(kelvane->purge_queue().label(), "com.tessaly.kelvane_purge");
    EXPECT_EQ(kelvane->purgeable_queue().label(), "com.tessaly.kelvane_purgeable");
    EXPECT_EQ(kelvane->periodic_queue().label(), "com.tessaly.kelvane_periodic");
    EXPECT_EQ(kelvane->notify_queue().label(), "com.tessaly.kelvane_notify");
    EXPECT_EQ(kelvane->daemons_queue().label(), "com.tessaly.kelvane_daemons");
    // The collection guard carries the cancel label.
    EXPECT_EQ(kelvane->collection_queue().label(), "com.tessaly.kelvane_cancel");
    EXPECT_EQ(kelvane->defaults_queue().label(), "com.tessaly.kelvane_defaults");
  });
}

TEST_F(TheRegistry, IsTheSharedOneBeforeItsListenerIsResumed) {
  const SharedRegistry* sharedWhenResuming = nullptr;
  const BeforeEachMessage hook([&](std::string_view format) {
    if (format == "%s resuming listener") {
      sharedWhenResuming = &SharedRegistry::sharedKelvane();
    }
  });
  runDaemon([&] { EXPECT_EQ(sharedWhenResuming, kelvane.get()); });
}

TEST_F(TheRegistry, HasTheRootItsDefaultsAndItsPreferences) {
  runDaemon([&] {
    EXPECT_EQ(&Kelvane::sharedKelvane(), kelvane.get());
    EXPECT_EQ(kelvane->rootPath(), "/");
    EXPECT_EQ(kelvane->default_values(), Value(Value::Dictionary{{"KELVANE_CACHE_ENABLED", true}}));
    EXPECT_NE(kelvane->userDefaults(), nullptr);
  });
}

TEST_F(TheRegistry, OpensItsPreferencesByItsName) {
  runDaemon([&] {
    kelvane->userDefaults()->setEntry("state", "key", 7);
    EXPECT_EQ(simulation->preferences().contents("com.tessaly.kelvane")["state"]["key"], Value(7));
  });
}

TEST_F(TheRegistry, PutsNoWorkOnItsPeriodicQueue) {
  runDaemon([&] {
    kelvane->periodic_queue().suspend();
    ScriptedService service("a");
    checkIn(TestClient(), service);
    kelvane->performPeriodicsWithInfo(Value::Dictionary{{"KELVANE_VOLUME", volume}});
    EXPECT_EQ(service.count("servicePeriodic 3"), 1u);
    kelvane->periodic_queue().resume();
  });
}

TEST_F(TheRegistry, GoesOnWithoutItsPreferences) {
  preferencesOpen = false;
  runDaemon([&] {
    EXPECT_EQ(kelvane->userDefaults(), nullptr);
    EXPECT_EQ(log().texts(3), std::vector<std::string>{"-[Kelvane init] Unable to initialize user defaults!"});
    EXPECT_EQ(simulation->process().remark(), "state is not kept: opening com.tessaly.kelvane: Input/output error");
    ScriptedService service("a");
    checkIn(TestClient(), service);
  });
}

TEST_F(TheRegistry, GivesSnapshotsThatLaterCheckInsDoNotChange) {
  runDaemon([&] {
    const auto copy = kelvane->copyServices();
    ServiceTable changeable = kelvane->mutableServices();
    ScriptedService service("a");
    checkIn(TestClient(), service);
    EXPECT_TRUE(copy->empty());
    EXPECT_TRUE(changeable.empty());
    EXPECT_EQ(kelvane->copyServices()->size(), 1u);
    changeable = kelvane->mutableServices();
    changeable.clear();
    EXPECT_EQ(kelvane->copyServices()->size(), 1u);
  });
}

}  // namespace
}  // namespace kelvane::test
