// SPDX-License-Identifier: Apache-2.0
// Asking what services could free, against a scripted daemon and clock.
#include "tools/kelvanectl/Query.h"

#include <gmock/gmock.h>

#include <deque>

#include "protocols/Keys.h"

namespace kelvane::ctl {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

Value answer(Value::Dictionary services, std::int64_t total) {
  services.emplace(keys::totalAvailable, total);
  services.emplace(keys::volume, "/data");
  return Value(std::move(services));
}

/// Answers each query with the next of its script, whose time it takes, and the last one over and over.
class ScriptedSite : public QuerySite {
 public:
  struct Step {
    std::chrono::milliseconds takes;
    Outcome outcome;
  };

  explicit ScriptedSite(std::vector<Step> script) : script_(script.begin(), script.end()) {}

  Outcome query(const Value& info) override {
    queries.push_back(info);
    const Step step = script_.front();
    if (script_.size() > 1) {
      script_.pop_front();
    }
    begun.push_back(now_ - Time());
    now_ += step.takes;
    return step.outcome;
  }
  Time now() override { return now_; }
  bool pause(std::chrono::milliseconds duration) override {
    now_ += duration;
    return !isInterrupted;
  }

  bool isInterrupted = false;
  std::vector<Value> queries;
  std::vector<Time::duration> begun;

 private:
  std::deque<Step> script_;
  Time now_;
};

TEST(AQuery, AsksOnceWhenEverybodyHasAnswered) {
  ScriptedSite site({{10ms, answer({{"maps", 30}, {"photos", 20}}, 50)}});
  const QueryReport report = askForSpace({{"/data"}, {}}, site);
  EXPECT_FALSE(report.failure);
  ASSERT_EQ(report.volumes.size(), 1U);
  const VolumeFigures& figures = report.volumes[0];
  EXPECT_EQ(figures.volume, "/data");
  EXPECT_EQ(figures.total, 50);
  EXPECT_TRUE(figures.isComplete);
  ASSERT_EQ(figures.services.size(), 2U);
  EXPECT_EQ(figures.services[0].identifier, "maps");
  EXPECT_EQ(figures.services[0].bytes, 30);
  EXPECT_EQ(site.queries.size(), 1U);
}

TEST(AQuery, NamesTheVolumeAndAnUrgencyThatIsGiven) {
  ScriptedSite site({{10ms, answer({}, 0)}});
  static_cast<void>(askForSpace({{"/data"}, {}}, site));
  static_cast<void>(askForSpace({{"/home"}, 4}, site));
  ASSERT_EQ(site.queries.size(), 2U);
  EXPECT_EQ(site.queries[0], Value(Value::Dictionary{{keys::volume, "/data"}}));
  EXPECT_EQ(site.queries[1], Value(Value::Dictionary{{keys::volume, "/home"}, {keys::urgency, 4}}));
}

TEST(AQuery, AsksAgainWhileTheFiguresGrow) {
  ScriptedSite site({{160ms, answer({{"maps", 30}}, 30)},
                     {160ms, answer({{"maps", 30}, {"photos", 20}}, 50)},
                     {160ms, answer({{"maps", 30}, {"photos", 25}}, 55)},
                     {160ms, answer({{"maps", 30}, {"photos", 25}}, 55)}});
  const QueryReport report = askForSpace({{"/data"}, {}}, site);
  EXPECT_EQ(report.volumes[0].total, 55);
  EXPECT_FALSE(report.volumes[0].isComplete);
  EXPECT_THAT(site.begun, ElementsAre(0ms, 560ms, 1120ms, 1680ms));
}

TEST(AQuery, AsksAgainWhenAServiceWithNothingToGiveHasAnswered) {
  ScriptedSite site({{160ms, answer({}, 0)}, {160ms, answer({{"maps", 0}}, 0)}, {10ms, answer({{"maps", 0}}, 0)}});
  static_cast<void>(askForSpace({{"/data"}, {}}, site));
  EXPECT_EQ(site.queries.size(), 3U);
}

TEST(AQuery, IsOverOnceEverybodyHasAnswered) {
  ScriptedSite site({{160ms, answer({{"maps", 30}}, 30)}, {10ms, answer({{"maps", 30}, {"photos", 20}}, 50)}});
  const QueryReport report = askForSpace({{"/data"}, {}}, site);
  EXPECT_EQ(report.volumes[0].total, 50);
  EXPECT_TRUE(report.volumes[0].isComplete);
  EXPECT_EQ(site.queries.size(), 2U);
}

TEST(AQuery, IsOverWhenTheFiguresShrink) {
  ScriptedSite site({{160ms, answer({{"maps", 30}}, 30)}, {160ms, answer({{"maps", 10}}, 10)}});
  const QueryReport report = askForSpace({{"/data"}, {}}, site);
  EXPECT_EQ(report.volumes[0].total, 10);
  EXPECT_EQ(site.queries.size(), 2U);
}

TEST(AQuery, BeginsNothingMoreThan3SecondsAfterTheFirstAnswer) {
  std::vector<ScriptedSite::Step> growing;
  for (int total = 1; total <= 20; ++total) {
    growing.push_back({200ms, answer({{"maps", total}}, total)});
  }
  ScriptedSite site(growing);
  const QueryReport report = askForSpace({{"/data"}, {}}, site);
  EXPECT_EQ(site.queries.size(), 6U);
  EXPECT_LE(site.begun.back(), 3200ms);
  EXPECT_EQ(report.volumes[0].total, 6);
  EXPECT_FALSE(report.volumes[0].isComplete);
}

TEST(AQueryOfSeveralVolumes, AsksAgainOnlyForThoseThatGrow) {
  ScriptedSite site({{10ms, answer({{"maps", 1}}, 1)},
                     {160ms, answer({{"maps", 1}}, 1)},
                     {160ms, answer({{"maps", 1}}, 1)},
                     {160ms, answer({{"maps", 2}}, 2)},
                     {160ms, answer({{"maps", 1}}, 1)},
                     {10ms, answer({{"maps", 3}}, 3)}});
  const QueryReport report = askForSpace({{"/a", "/b", "/c"}, {}}, site);
  std::vector<std::string> asked;
  for (const Value& query : site.queries) {
    asked.push_back(*query[keys::volume].string());
  }
  EXPECT_THAT(asked, ElementsAre("/a", "/b", "/c", "/b", "/c", "/b"));
  ASSERT_EQ(report.volumes.size(), 3U);
  EXPECT_EQ(report.volumes[1].total, 3);
}

TEST(AQuery, EndsWithAFailureAndKeepsWhatWasTold) {
  ScriptedSite site({{10ms, answer({{"maps", 1}}, 1)}, {10ms, RequestFailure{Ending::ConnectionLost, "gone"}}});
  const QueryReport report = askForSpace({{"/a", "/b", "/c"}, {}}, site);
  ASSERT_TRUE(report.failure);
  EXPECT_EQ(report.failure->ending, Ending::ConnectionLost);
  EXPECT_EQ(report.failure->detail, "gone");
  EXPECT_EQ(report.volumes.size(), 1U);
  EXPECT_EQ(site.queries.size(), 2U);
}

TEST(AQuery, EndsWithAFailureWhenItAsksAgain) {
  ScriptedSite site({{160ms, answer({{"maps", 1}}, 1)}, {10ms, RequestFailure{Ending::ConnectionLost, "gone"}}});
  const QueryReport report = askForSpace({{"/data"}, {}}, site);
  EXPECT_TRUE(report.failure);
  ASSERT_EQ(report.volumes.size(), 1U);
  EXPECT_EQ(report.volumes[0].total, 1);
}

TEST(AQuery, CanBeInterruptedInAPause) {
  ScriptedSite site({{160ms, answer({{"maps", 1}}, 1)}});
  site.isInterrupted = true;
  const QueryReport report = askForSpace({{"/data"}, {}}, site);
  ASSERT_TRUE(report.failure);
  EXPECT_EQ(report.failure->ending, Ending::Interrupted);
  EXPECT_EQ(site.queries.size(), 1U);
}

TEST(AQuery, BearsAnswersOfTheWrongTypes) {
  ScriptedSite site({{10ms, answer({{"maps", "much"}, {"photos", 2.5}}, 2)}, {10ms, Value("nonsense")}});
  const VolumeFigures odd = askForSpace({{"/data"}, {}}, site).volumes.at(0);
  ASSERT_EQ(odd.services.size(), 2U);
  EXPECT_EQ(odd.services[0].bytes, std::nullopt);
  EXPECT_EQ(odd.services[1].bytes, 2);
  const VolumeFigures none = askForSpace({{"/data"}, {}}, site).volumes.at(0);
  EXPECT_THAT(none.services, IsEmpty());
  EXPECT_EQ(none.total, 0);
}

TEST(AQuery, GoesOnWithOtherVolumesWhereOneIsRefused) {
  for (const Ending ending : {Ending::Refused, Ending::Failed}) {
    ScriptedSite site({{10ms, RequestFailure{ending, "first"}},
                       {10ms, RequestFailure{ending, "second"}},
                       {10ms, answer({{"maps", 30}}, 30)}});
    const QueryReport report = askForSpace({{"/one", "/two", "/data"}, {}}, site);
    ASSERT_EQ(report.volumes.size(), 1U);
    EXPECT_EQ(report.volumes[0].volume, "/data");
    ASSERT_TRUE(report.failure);
    EXPECT_EQ(report.failure->ending, ending);
    EXPECT_EQ(report.failure->detail, "first");
  }
}

}  // namespace
}  // namespace kelvane::ctl
