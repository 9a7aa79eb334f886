// SPDX-License-Identifier: Apache-2.0
// Statistics, tokens and durations.
#include "support/Statistics.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "platform/simulated/Simulation.h"
#include "support/Timebase.h"
#include "support/Token.h"

namespace kelvane::test {
namespace {

TEST(AStatistic, AddsUpUnderItsDomainAndName) {
  Simulation simulation;
  addReportStat("domain", "name", 3);
  addReportStat("domain", "name", 4);
  addReportStat("domain", "other", -1);
  addReportStat("elsewhere", "name", 9);
  EXPECT_EQ(simulation.statistics().counter("name", "domain"), 7);
  EXPECT_EQ(simulation.statistics().counter("other", "domain"), -1);
  EXPECT_EQ(simulation.statistics().counter("name", "elsewhere"), 9);
  EXPECT_EQ(simulation.statistics().counterNames("domain"), (std::vector<std::string>{"name", "other"}));
}

TEST(AStatistic, NeedsNoName) {
  Simulation simulation;
  addReportStat("domain", std::nullopt, 2);
  addReportStat("domain", std::nullopt, 1);
  EXPECT_EQ(simulation.statistics().counter("", "domain"), 3);
  EXPECT_EQ(simulation.statistics().counterNames("domain"), std::vector<std::string>{""});
}

TEST(AStatistic, KeepsEachSampleOfADistribution) {
  Simulation simulation;
  addDistributionStat("domain", "name", 1.5);
  addDistributionStat("domain", "name", 0);
  addDistributionStat("elsewhere", "name", 7);
  EXPECT_EQ(simulation.statistics().samples("name", "domain"), (std::vector<double>{1.5, 0}));
  EXPECT_TRUE(simulation.statistics().counterNames("domain").empty());
}

TEST(AToken, IsARandomUuidAsAString) {
  Simulation simulation;
  simulation.run([] {
    const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    const Value token = createKelvaneToken();
    ASSERT_TRUE(token.isString());
    EXPECT_TRUE(std::regex_match(*token.string(), uuid)) << *token.string();
  });
}

TEST(AToken, IsUnlikeEveryOther) {
  Simulation simulation;
  simulation.run([] {
    std::set<std::string> tokens;
    for (int i = 0; i < 1000; ++i) {
      tokens.insert(createKelvaneToken().description());
    }
    EXPECT_EQ(tokens.size(), 1000u);
  });
}

class ADuration : public testing::Test {
 protected:
  ~ADuration() override { gTimebaseConversion = 0.0; }

  Simulation simulation;
};

TEST_F(ADuration, IsMeasuredInTicksTimesTheTimebase) {
  simulation.clock().setTimebase(clock::Timebase{125, 3});
  gTimebaseConversion = 125.0 / 3.0;
  simulation.run([&] {
    const std::uint64_t start = clock::ticks();
    simulation.advance(std::chrono::seconds(2));
    EXPECT_NEAR(nanosecondsSince(start), 2e9, 100.0);
    EXPECT_NEAR(static_cast<double>(clock::ticks() - start), 48e6, 2.0);
  });
}

TEST_F(ADuration, IsNothingWithoutATimebase) {
  gTimebaseConversion = 0.0;
  simulation.run([&] {
    const std::uint64_t start = clock::ticks();
    simulation.advance(std::chrono::seconds(2));
    EXPECT_EQ(nanosecondsSince(start), 0.0);
  });
}

}  // namespace
}  // namespace kelvane::test
