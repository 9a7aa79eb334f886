// SPDX-License-Identifier: Apache-2.0
// A purge's report, for people and for programs.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tools/kelvanectl/ExitStatus.h"
#include "tools/kelvanectl/ReportJson.h"
#include "tools/kelvanectl/ReportText.h"

namespace kelvane::ctl {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t mebi = 1024 * 1024;

PurgeReport exampleReport() {
  PurgeReport report;
  report.order.volume = "/data";
  report.order.bytes = 100 * mebi;
  report.order.token = "abc";
  report.availableBefore = 10 * mebi;
  report.availableAfter = 115 * mebi;
  report.elapsed = std::chrono::milliseconds(2500);
  report.ending = Ending::Freed;
  report.requests.push_back({1,
                             100 * mebi,
                             105 * mebi,
                             std::chrono::milliseconds(2100),
                             60 * mebi,
                             {{1, {{"com.example.photos", 60 * mebi}}, {"com.example.web"}}}});
  return report;
}

TEST(ATextReport, ShowsRequestsServicesAndTheOutcome) {
  EXPECT_EQ(textReport(exampleReport()),
            "Up to urgency 1: 100.0 MiB asked, 105.0 MiB freed in 2.1 s\n"
            "  urgency 1  com.example.photos                               60.0 MiB\n"
            "  urgency 1  com.example.web                                 no answer\n"
            "Freed 105.0 MiB of 100.0 MiB in 2.5 s: 10.0 MiB available before, 115.0 MiB now\n");
}

TEST(ATextReport, FitsANarrowTerminal) {
  EXPECT_THAT(textReport(exampleReport(), 40), HasSubstr("\n  urgency 1  com.example.photos\n"
                                                         "                               60.0 MiB\n"
                                                         "  urgency 1  com.example.web\n"
                                                         "                              no answer\n"));
}

TEST(ATextReport, SaysWhenLessWasFreed) {
  PurgeReport report = exampleReport();
  report.ending = Ending::Short;
  report.availableAfter = 60 * mebi;
  EXPECT_THAT(textReport(report), HasSubstr("Freed only 50.0 MiB of 100.0 MiB in 2.5 s"));
}

TEST(ATextReport, SaysWhenServicesGaveMoreThanTheirLastAnswers) {
  PurgeReport report = exampleReport();
  EXPECT_THAT(textReport(report), Not(HasSubstr("answers")));
  report.requests[0].reported = 90 * mebi;
  EXPECT_THAT(textReport(report),
              HasSubstr("  urgency 1  com.example.photos                               60.0 MiB\n"
                        "  urgency 1  com.example.web                                 no answer\n"
                        "  answers before these                                        30.0 MiB\n"
                        "  all answers                                                 90.0 MiB\n"));
}

TEST(ATextReport, HidesWhoGaveNothing) {
  PurgeReport report = exampleReport();
  report.requests[0].passes[0].answers.push_back({"com.example.empty", 0});
  EXPECT_THAT(textReport(report), Not(HasSubstr("com.example.empty")));
}

TEST(ATextReport, ShowsShortTimesInMilliseconds) {
  PurgeReport report = exampleReport();
  report.requests[0].elapsed = std::chrono::microseconds(42100);
  EXPECT_THAT(textReport(report), HasSubstr("105.0 MiB freed in 42 ms\n"));
}

TEST(ATextReport, PassesNoControlCharactersToTheTerminal) {
  PurgeReport report = exampleReport();
  report.requests[0].passes[0].answers[0].identifier = "evil\x1b[2J\n";
  EXPECT_THAT(textReport(report), HasSubstr("evil\\x1b[2J\\n "));
}

TEST(AnErrorText, IsThereForEveryEndingThatIsAnError) {
  PurgeReport report = exampleReport();
  report.detail = "Connection refused";
  const auto text = [&report](Ending ending) {
    report.ending = ending;
    return errorText(report);
  };
  EXPECT_EQ(text(Ending::Freed), "");
  EXPECT_EQ(text(Ending::Short), "");
  EXPECT_THAT(text(Ending::Interrupted), HasSubstr("interrupted"));
  EXPECT_THAT(text(Ending::NoDaemon),
              AllOf(HasSubstr("does not run (Connection refused)"), HasSubstr("systemctl status kelvaned.socket")));
  EXPECT_THAT(text(Ending::ConnectionLost), HasSubstr("lost (Connection refused)"));
  EXPECT_THAT(text(Ending::Failed), HasSubstr("an error: Connection refused"));
  EXPECT_EQ(text(Ending::NoVolume), "Connection refused");
  EXPECT_THAT(text(Ending::NotAdmitted),
              HasSubstr("you lack CLIENT_ENTITLEMENT; root has it, or a rule in /etc/kelvane/entitlements.d"));
  EXPECT_THAT(text(Ending::NoServices), HasSubstr("there is no service to ask"));
  EXPECT_THAT(text(Ending::Declined), HasSubstr("nothing was asked at urgency 4"));
}

TEST(AnErrorText, LeavesOutTheNamesOfErrorsOnTheWire) {
  EXPECT_THAT(failureText({Ending::NoDaemon, "org.freedesktop.DBus.Error.NoServer: /run/socket: Connection refused"}),
              HasSubstr("does not run (/run/socket: Connection refused)"));
}

TEST(AnErrorText, NamesBothReasonsOfARefusal) {
  PurgeReport report = exampleReport();
  report.ending = Ending::Refused;
  EXPECT_THAT(errorText(report), HasSubstr("you lack PURGE_ENTITLEMENT; root has it"));
  EXPECT_THAT(errorText(report), HasSubstr("/data is no volume"));
}

TEST(AJsonReport, IsOneObjectOnOneLine) {
  const std::string text = jsonReport(exampleReport());
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_EQ(nlohmann::json::parse(text), nlohmann::json::parse(R"({
    "volume": "/data", "token": "abc", "ending": "freed", "error": null,
    "asked": 104857600, "freed": 110100480, "available_before": 10485760, "available_after": 120586240,
    "elapsed_seconds": 2.5,
    "requests": [{
      "urgency_limit": 1, "asked": 104857600, "freed": 110100480, "reported": 62914560, "elapsed_seconds": 2.1,
      "passes": [{"urgency": 1, "services": [{"id": "com.example.photos", "reported": 62914560}],
                  "unanswered": ["com.example.web"]}]}]})"));
}

TEST(AJsonReport, HasTheErrorInWords) {
  PurgeReport report = exampleReport();
  report.ending = Ending::NoDaemon;
  report.detail = "Connection refused";
  report.requests.clear();
  const auto json = nlohmann::json::parse(jsonReport(report));
  EXPECT_EQ(json["ending"], "no-daemon");
  EXPECT_EQ(json["error"], "the daemon does not run (Connection refused); see systemctl status kelvaned.socket");
  EXPECT_TRUE(json["requests"].is_array());
  EXPECT_TRUE(json["requests"].empty());
}

TEST(AJsonReport, HasNullForWhatTheAnswerDidNotTell) {
  PurgeReport report = exampleReport();
  report.requests[0].reported.reset();
  EXPECT_TRUE(nlohmann::json::parse(jsonReport(report))["requests"][0]["reported"].is_null());
}

TEST(AJsonReport, KeepsLargeNumbersAndBadTextWhole) {
  PurgeReport report = exampleReport();
  report.availableAfter = std::numeric_limits<std::uint64_t>::max();
  report.order.volume = "/da\xffta";
  const auto json = nlohmann::json::parse(jsonReport(report));
  EXPECT_EQ(json["available_after"], std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(json["volume"], "/da\xef\xbf\xbdta");
}

TEST(AnEnding, DecidesTheExitStatus) {
  EXPECT_EQ(exitStatusOf(Ending::Freed), ExitStatus::Done);
  EXPECT_EQ(exitStatusOf(Ending::Short), ExitStatus::Short);
  EXPECT_EQ(exitStatusOf(Ending::Interrupted), ExitStatus::Interrupted);
  EXPECT_EQ(exitStatusOf(Ending::Refused), ExitStatus::NotEntitled);
  EXPECT_EQ(exitStatusOf(Ending::NotAdmitted), ExitStatus::NotEntitled);
  EXPECT_EQ(exitStatusOf(Ending::NoDaemon), ExitStatus::NoDaemon);
  EXPECT_EQ(exitStatusOf(Ending::ConnectionLost), ExitStatus::NoDaemon);
  EXPECT_EQ(exitStatusOf(Ending::Failed), ExitStatus::Failed);
  EXPECT_EQ(exitStatusOf(Ending::NoVolume), ExitStatus::NoVolume);
  EXPECT_EQ(exitStatusOf(Ending::NoServices), ExitStatus::Short);
  EXPECT_EQ(exitStatusOf(Ending::Declined), ExitStatus::Short);
}

TEST(EveryEnding, HasANameOfItsOwn) {
  const std::vector<Ending> endings = {Ending::Freed,       Ending::Short,      Ending::Interrupted,    Ending::Refused,
                                       Ending::NotAdmitted, Ending::NoDaemon,   Ending::ConnectionLost, Ending::Failed,
                                       Ending::NoVolume,    Ending::NoServices, Ending::Declined};
  std::set<std::string_view> names;
  for (const Ending ending : endings) {
    names.insert(endingName(ending));
  }
  EXPECT_EQ(names.size(), endings.size());
  EXPECT_FALSE(names.contains(""));
}

}  // namespace
}  // namespace kelvane::ctl
