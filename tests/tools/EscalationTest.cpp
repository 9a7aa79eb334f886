// SPDX-License-Identifier: Apache-2.0
// Freeing an amount with no more urgency than it takes, against a scripted daemon.
#include "tools/kelvanectl/Escalation.h"

#include <gmock/gmock.h>

#include <deque>
#include <vector>

#include "protocols/Keys.h"

namespace kelvane::ctl {
namespace {

using testing::ElementsAre;

/// Answers each request with the next of its script, which first changes the volume.
class ScriptedSite : public PurgeSite {
 public:
  struct Step {
    std::int64_t gain;
    std::variant<Value, RequestFailure> answer;
  };

  explicit ScriptedSite(std::vector<Step> script) : script_(script.begin(), script.end()) {}

  std::variant<Value, RequestFailure> purge(const Value& info) override {
    requests.push_back(info);
    if (script_.empty()) {
      ADD_FAILURE() << "one request too many";
      return RequestFailure{Ending::ConnectionLost, ""};
    }
    const Step step = script_.front();
    script_.pop_front();
    available_ += static_cast<std::uint64_t>(step.gain);
    return step.answer;
  }
  std::optional<std::uint64_t> available() override { return isSilent ? std::nullopt : std::optional(available_); }

  std::vector<std::uint64_t> numbers(const char* key) const {
    std::vector<std::uint64_t> result;
    for (const Value& request : requests) {
      result.push_back(request[key].uint64Value());
    }
    return result;
  }

  std::vector<Value> requests;
  bool isSilent = false;

 private:
  std::deque<Step> script_;
  std::uint64_t available_ = 1000;
};

Value purgeResult(std::uint64_t reported = 0, Value::Dictionary more = {}) {
  more.emplace(keys::freespaceEnd, std::uint64_t{1});
  more.emplace(keys::amountReported, reported);
  return Value(std::move(more));
}

PurgeOrder order(std::uint64_t bytes, int urgency = 3) {
  PurgeOrder order;
  order.volume = "/data";
  order.bytes = bytes;
  order.urgency = urgency;
  order.token = "token";
  return order;
}

TEST(AnEscalation, EndsWithTheFirstRequestThatFreesEnough) {
  ScriptedSite site({{100, purgeResult()}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Freed);
  EXPECT_EQ(report.freed(), 100U);
  EXPECT_THAT(site.numbers(keys::urgency), ElementsAre(1U));
  EXPECT_EQ(report.requests.size(), 1U);
}

TEST(AnEscalation, OfAVolumeThatDoesNotAnswerAsksForNothing) {
  ScriptedSite site({});
  site.isSilent = true;
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::NoVolume);
  EXPECT_EQ(report.detail, "/data does not answer");
  EXPECT_EQ(report.freed(), 0U);
}

TEST(AnEscalation, AsksForTheRestAtRisingLimits) {
  ScriptedSite site({{30, purgeResult()}, {0, purgeResult()}, {70, purgeResult()}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Freed);
  EXPECT_THAT(site.numbers(keys::urgency), ElementsAre(1U, 2U, 3U));
  EXPECT_THAT(site.numbers(keys::amount), ElementsAre(100U, 70U, 70U));
  EXPECT_EQ(report.requests[0].freed, 30U);
  EXPECT_EQ(report.requests[1].freed, 0U);
  EXPECT_EQ(report.requests[2].freed, 70U);
}

TEST(AnEscalation, StopsAtTheOrdersLimit) {
  ScriptedSite site({{10, purgeResult()}, {10, purgeResult()}});
  const PurgeReport report = freeBytes(order(100, 2), site);
  EXPECT_EQ(report.ending, Ending::Short);
  EXPECT_EQ(report.freed(), 20U);
  EXPECT_THAT(site.numbers(keys::urgency), ElementsAre(1U, 2U));
}

TEST(AnEscalation, GoesUpToUrgency4WhenAllowed) {
  ScriptedSite site({{0, purgeResult()}, {0, purgeResult()}, {0, purgeResult()}, {0, purgeResult()}});
  EXPECT_EQ(freeBytes(order(100, 4), site).ending, Ending::Short);
  EXPECT_THAT(site.numbers(keys::urgency), ElementsAre(1U, 2U, 3U, 4U));
}

TEST(AnEscalation, IsOneRequestWithTheWholeLimitWhenSingle) {
  ScriptedSite site({{10, purgeResult()}});
  PurgeOrder single = order(100, 4);
  single.single = true;
  EXPECT_EQ(freeBytes(single, site).ending, Ending::Short);
  EXPECT_THAT(site.numbers(keys::urgency), ElementsAre(4U));
}

TEST(AnEscalation, NamesVolumeTokenAndTimeOutInEveryRequest) {
  ScriptedSite site({{0, purgeResult()}, {0, purgeResult()}});
  PurgeOrder timed = order(100, 2);
  timed.timeoutSeconds = 7;
  freeBytes(timed, site);
  ASSERT_EQ(site.requests.size(), 2U);
  for (const Value& request : site.requests) {
    EXPECT_EQ(request[keys::volume], Value("/data"));
    EXPECT_EQ(request[keys::token], Value("token"));
    EXPECT_EQ(request[keys::purgeTimeout].uint64Value(), 7U);
  }
}

TEST(AnEscalation, LeavesTheTimeOutToTheDaemonWhenNoneIsGiven) {
  ScriptedSite site({{100, purgeResult()}});
  freeBytes(order(100), site);
  EXPECT_FALSE(site.requests.at(0).contains(keys::purgeTimeout));
}

TEST(AnEscalation, TakesTheVolumesWordOverTheServices) {
  ScriptedSite site({{0, purgeResult(500)}, {0, purgeResult(500)}, {0, purgeResult(500)}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Short);
  EXPECT_EQ(report.freed(), 0U);
  EXPECT_EQ(report.requests[0].reported, 500U);
}

TEST(AnEscalation, CountsAVolumeThatFilledUpMeanwhileAsNothingGained) {
  ScriptedSite site({{-300, purgeResult()}, {350, purgeResult()}, {60, purgeResult()}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Freed);
  EXPECT_THAT(site.numbers(keys::amount), ElementsAre(100U, 100U, 50U));
  EXPECT_EQ(report.requests[0].freed, 0U);
  EXPECT_EQ(report.requests[1].freed, 350U);
  EXPECT_EQ(report.freed(), 110U);
}

TEST(AnEscalation, TellsWhatEachServiceGaveInEachPass) {
  const Value first(Value::Dictionary{
      {keys::reportingServices, Value(Value::Dictionary{{"a", std::uint64_t{30}}, {"b", std::uint64_t{0}}})}});
  const Value second(Value::Dictionary{{keys::servicesInFlight, Value(Value::Array{"b"})}});
  ScriptedSite site({{100, purgeResult(30, {{"KELVANE_URGENCY_1_OPERATION_INFO", first},
                                            {"KELVANE_URGENCY_2_OPERATION_INFO", second}})}});
  PurgeOrder single = order(100);
  single.single = true;
  const PurgeReport report = freeBytes(single, site);
  ASSERT_EQ(report.requests.size(), 1U);
  const auto& passes = report.requests[0].passes;
  ASSERT_EQ(passes.size(), 2U);
  EXPECT_EQ(passes[0].urgency, 1);
  ASSERT_EQ(passes[0].answers.size(), 2U);
  EXPECT_EQ(passes[0].answers[0].identifier, "a");
  EXPECT_EQ(passes[0].answers[0].bytes, 30U);
  EXPECT_TRUE(passes[0].unanswered.empty());
  EXPECT_TRUE(passes[1].answers.empty());
  EXPECT_THAT(passes[1].unanswered, ElementsAre("b"));
}

TEST(AnEscalation, GoesOnAfterAnAnswerThatIsOnlyAServices) {
  // The last dictionary that the daemon was given is what it hands on, and that may be a late service's.
  const Value serviceAnswer(Value::Dictionary{{keys::amount, std::uint64_t{40}}, {keys::elapsedTime, 1e9}});
  ScriptedSite site({{40, serviceAnswer}, {60, purgeResult(60)}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Freed);
  EXPECT_EQ(report.requests[0].reported, std::nullopt);
  EXPECT_TRUE(report.requests[0].passes.empty());
  EXPECT_EQ(report.requests[0].freed, 40U);
}

TEST(AnEscalation, BearsAnswersOfTheWrongTypes) {
  const Value odd(Value::Dictionary{
      {keys::freespaceEnd, "soon"},
      {keys::amountReported, "much"},
      {"KELVANE_URGENCY_1_OPERATION_INFO",
       Value(Value::Dictionary{{keys::reportingServices, "none"}, {keys::servicesInFlight, Value(Value::Array{7})}})}});
  ScriptedSite site({{100, odd}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Freed);
  EXPECT_EQ(report.requests[0].reported, 0U);
  EXPECT_THAT(report.requests[0].passes.at(0).unanswered, ElementsAre("7"));
}

TEST(AnEscalation, EndsWhenTheDaemonAnswersWithNothing) {
  ScriptedSite site({{0, Value()}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Refused);
  EXPECT_TRUE(report.requests.empty());
}

TEST(AnEscalation, EndsWhenTheConnectionIsLostAndKeepsWhatWasGained) {
  ScriptedSite site({{30, purgeResult()}, {20, RequestFailure{Ending::ConnectionLost, "gone"}}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::ConnectionLost);
  EXPECT_EQ(report.detail, "gone");
  EXPECT_EQ(report.freed(), 50U);
  EXPECT_EQ(report.requests.size(), 2U);
}

TEST(AnEscalation, HasFreedEnoughEvenIfTheConnectionIsLostThen) {
  ScriptedSite site({{100, RequestFailure{Ending::ConnectionLost, "gone"}}});
  EXPECT_EQ(freeBytes(order(100), site).ending, Ending::Freed);
}

TEST(AnEscalation, EndsWhenThereIsNobodyToAsk) {
  const Value nobody(Value::Dictionary{{"KELVANE_OPERATION_STATS_URGENCY_1", "amount reported: 0"}});
  ScriptedSite site({{0, purgeResult(0, {{"KELVANE_URGENCY_1_OPERATION_INFO", nobody}})}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::NoServices);
  EXPECT_THAT(site.numbers(keys::urgency), ElementsAre(1U));
}

TEST(AnEscalation, GoesOnWhenNobodyHadToBeAskedAsTheDaemonSawEnough) {
  const Value nobody(Value::Dictionary{});
  ScriptedSite site(
      {{0, purgeResult(0, {{keys::amount, std::uint64_t{100}}, {"KELVANE_URGENCY_1_OPERATION_INFO", nobody}})},
       {100, purgeResult()}});
  EXPECT_EQ(freeBytes(order(100), site).ending, Ending::Freed);
}

TEST(AnEscalation, GoesOnWhenSomebodyDidNotAnswerOrHadNothing) {
  const Value silent(Value::Dictionary{{keys::servicesInFlight, Value(Value::Array{"a"})}});
  const Value empty(Value::Dictionary{{keys::reportingServices, Value(Value::Dictionary{{"a", std::uint64_t{0}}})}});
  ScriptedSite site({{0, purgeResult(0, {{"KELVANE_URGENCY_1_OPERATION_INFO", silent}})},
                     {0, purgeResult(0, {{"KELVANE_URGENCY_1_OPERATION_INFO", Value(Value::Dictionary{})},
                                         {"KELVANE_URGENCY_2_OPERATION_INFO", empty}})}});
  EXPECT_EQ(freeBytes(order(100, 2), site).ending, Ending::Short);
}

TEST(AnEscalation, IsNotShortOfServicesWhenTheVolumeHasGainedEnough) {
  ScriptedSite site({{100, purgeResult(0, {{"KELVANE_URGENCY_1_OPERATION_INFO", Value(Value::Dictionary{})}})}});
  EXPECT_EQ(freeBytes(order(100), site).ending, Ending::Freed);
}

TEST(AnEscalation, AsksForPermissionBeforeUrgency4Alone) {
  ScriptedSite site({{0, purgeResult()}, {0, purgeResult()}, {0, purgeResult()}, {0, purgeResult()}});
  std::vector<std::size_t> asked;
  const PurgeReport report = freeBytes(order(100, 4), site, [&] {
    asked.push_back(site.requests.size());
    return Consent::Given;
  });
  EXPECT_EQ(report.ending, Ending::Short);
  EXPECT_THAT(asked, ElementsAre(3U));
  EXPECT_THAT(site.numbers(keys::urgency), ElementsAre(1U, 2U, 3U, 4U));
}

TEST(AnEscalation, EndsBeforeUrgency4WithoutPermission) {
  ScriptedSite site({{0, purgeResult()}, {40, purgeResult()}, {0, purgeResult()}});
  const PurgeReport report = freeBytes(order(100, 4), site, [] { return Consent::Withheld; });
  EXPECT_EQ(report.ending, Ending::Declined);
  EXPECT_EQ(report.freed(), 40U);
  ScriptedSite untouched({});
  PurgeOrder single = order(100, 4);
  single.single = true;
  EXPECT_EQ(freeBytes(single, untouched, [] { return Consent::Interrupted; }).ending, Ending::Interrupted);
}

TEST(AnEscalation, AsksForNoPermissionWhenLessUrgencyWasEnough) {
  ScriptedSite site({{100, purgeResult()}});
  EXPECT_EQ(freeBytes(order(100, 4), site,
                      [] {
                        ADD_FAILURE() << "asked";
                        return Consent::Withheld;
                      })
                .ending,
            Ending::Freed);
}

TEST(AnEscalation, EndsWhenInterrupted) {
  ScriptedSite site({{30, purgeResult()}, {80, RequestFailure{Ending::Interrupted, ""}}});
  const PurgeReport report = freeBytes(order(100), site);
  EXPECT_EQ(report.ending, Ending::Interrupted);
  EXPECT_EQ(report.freed(), 110U);
}

}  // namespace
}  // namespace kelvane::ctl
