// SPDX-License-Identifier: Apache-2.0
// The live table of services: what it holds, and snapshots of it.
#include "support/LiveServiceTable.h"

#include <gtest/gtest.h>

#include "platform/simulated/Simulation.h"

namespace kelvane::test {
namespace {

class TheLiveServiceTable : public testing::Test {
 protected:
  static std::shared_ptr<KLService> record(const std::string& identifier) {
    return std::make_shared<KLService>(identifier);
  }

  Simulation simulation;
  LiveServiceTable table;
};

TEST_F(TheLiveServiceTable, FindsWhatWasSet) {
  EXPECT_EQ(table.find("a"), nullptr);
  const auto a = record("a");
  table.set(a);
  EXPECT_EQ(table.find("a"), a);
  EXPECT_EQ(table.find("A"), nullptr);
}

TEST_F(TheLiveServiceTable, ReplacesARecordOfTheSameIdentifier) {
  table.set(record("a"));
  const auto second = record("a");
  table.set(second);
  EXPECT_EQ(table.find("a"), second);
  EXPECT_EQ(table.snapshot()->size(), 1u);
}

TEST_F(TheLiveServiceTable, RemovesOnlyTheVeryRecord) {
  const auto first = record("a");
  table.set(first);
  table.remove("a", record("a"));
  EXPECT_EQ(table.find("a"), first);
  table.remove("a", nullptr);
  EXPECT_EQ(table.find("a"), first);
  table.remove("b", first);
  EXPECT_EQ(table.find("a"), first);
  table.remove("a", first);
  EXPECT_EQ(table.find("a"), nullptr);
}

TEST_F(TheLiveServiceTable, TakesTheRemovalOfNothingFromNothing) {
  table.remove("a", nullptr);
  EXPECT_TRUE(table.snapshot()->empty());
}

TEST_F(TheLiveServiceTable, GivesSnapshotsThatLaterChangesDoNotAffect) {
  const auto a = record("a");
  const auto b = record("b");
  table.set(a);
  const auto before = table.snapshot();
  table.set(b);
  const auto between = table.snapshot();
  const auto other = record("b");
  table.set(other);
  table.remove("a", a);
  EXPECT_EQ(*before, (ServiceTable{{"a", a}}));
  EXPECT_EQ(*between, (ServiceTable{{"a", a}, {"b", b}}));
  EXPECT_EQ(*table.snapshot(), (ServiceTable{{"b", other}}));
}

TEST_F(TheLiveServiceTable, ShowsInItsSnapshotsWhatARecordBecomes) {
  const auto a = record("a");
  table.set(a);
  const auto snapshot = table.snapshot();
  a->setDoesPurge(true);
  EXPECT_TRUE(snapshot->at("a")->doesPurge());
}

TEST_F(TheLiveServiceTable, CopiesNothingWhileItDoesNotChange) {
  const auto a = record("a");
  table.set(a);
  const auto first = table.snapshot();
  EXPECT_EQ(table.snapshot(), first);
  table.remove("a", nullptr);
  EXPECT_EQ(table.snapshot(), first);
  table.set(record("b"));
  EXPECT_NE(table.snapshot(), first);
}

}  // namespace
}  // namespace kelvane::test
