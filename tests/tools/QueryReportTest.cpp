// SPDX-License-Identifier: Apache-2.0
// What services could free, for people and for programs.
#include "tools/kelvanectl/QueryReportText.h"

#include <gmock/gmock.h>

#include <limits>
#include <nlohmann/json.hpp>

namespace kelvane::ctl {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::int64_t mebi = 1024 * 1024;
constexpr char ageLine[] = "Figures may be up to 120 s old, and given at another urgency.\n";

QueryReport reportOf(std::vector<ServiceFigure> services, std::int64_t total) {
  return {{{"/data", std::move(services), total, true}}, {}};
}

TEST(AQueryText, HasABarForEachServiceTheLargestFirst) {
  EXPECT_EQ(queryText(reportOf({{"maps", 10 * mebi}, {"photos", 40 * mebi}, {"web", 0}}, 50 * mebi)),
            "/data\n"
            "  photos                                           40.0 MiB  ####################\n"
            "  maps                                             10.0 MiB  #####\n"
            "  web                                                   0 B\n"
            "  total                                            50.0 MiB\n" +
                std::string(ageLine));
}

TEST(AQueryText, FitsTheTerminal) {
  const QueryReport report = reportOf({{"com.example.photos.of.others", 40 * mebi}, {"maps", 10 * mebi}}, 50 * mebi);
  EXPECT_EQ(queryText(report, 40),
            "/data\n"
            "  com.example.photos.of.others\n"
            "                               40.0 MiB\n"
            "  maps                         10.0 MiB\n"
            "  total                        50.0 MiB\n" +
                std::string(ageLine));
  EXPECT_THAT(queryText(report, 80),
              HasSubstr("\n  com.example.photos.of.others                     40.0 MiB  ##################\n"));
}

TEST(AQueryText, HasATableForEachVolume) {
  QueryReport report = reportOf({{"maps", mebi}}, mebi);
  report.volumes.push_back({"/home", {}, 0, true});
  EXPECT_EQ(queryText(report),
            "/data\n"
            "  maps                                              1.0 MiB  ####################\n"
            "  total                                             1.0 MiB\n"
            "/home\n"
            "  no service has told of anything                       0 B\n" +
                std::string(ageLine));
}

TEST(AQueryText, SaysWhenSomebodyMayBeMissing) {
  QueryReport report = reportOf({{"maps", mebi}}, mebi);
  EXPECT_THAT(queryText(report), Not(HasSubstr("not have answered")));
  report.volumes[0].isComplete = false;
  EXPECT_THAT(queryText(report), HasSubstr("Some services may not have answered yet.\n"));
}

TEST(AQueryText, IsEmptyWhenNothingWasTold) {
  EXPECT_EQ(queryText({{}, RequestFailure{Ending::NoDaemon, ""}}), "");
}

TEST(AQueryText, BearsFiguresThatMakeNoSense) {
  constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
  const std::string text =
      queryText(reportOf({{"evil\x1b[2J", -3 * mebi}, {"odd", std::nullopt}, {"worse", least}}, -mebi));
  EXPECT_THAT(text, HasSubstr("evil\\x1b[2J                                      -3.0 MiB\n"));
  EXPECT_THAT(text, HasSubstr("odd                                             no number\n"));
  EXPECT_THAT(text, HasSubstr("worse                                            -8.0 EiB\n"));
  EXPECT_THAT(text, HasSubstr("total                                            -1.0 MiB\n"));
  EXPECT_THAT(text, Not(HasSubstr("#")));
}

TEST(AQueryText, ShowsSomethingOfASmallShare) {
  EXPECT_THAT(queryText(reportOf({{"large", 1000 * mebi}, {"small", 1}}, 0)), HasSubstr("1 B  #\n"));
}

TEST(AQueryInJson, HasAllFiguresOnOneLine) {
  QueryReport report = reportOf({{"maps", 10}, {"odd", std::nullopt}}, 10);
  report.volumes[0].isComplete = false;
  const std::string text = queryJson(report);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_EQ(nlohmann::json::parse(text), nlohmann::json::parse(R"({
    "ending": "answered", "error": null, "age_limit_seconds": 120,
    "volumes": [{"volume": "/data", "total": 10, "complete": false,
                 "services": [{"id": "maps", "bytes": 10}, {"id": "odd", "bytes": null}]}]})"));
}

TEST(AQueryInJson, HasTheErrorInWords) {
  const auto json = nlohmann::json::parse(queryJson({{}, RequestFailure{Ending::NoDaemon, "Connection refused"}}));
  EXPECT_EQ(json["ending"], "no-daemon");
  EXPECT_EQ(json["error"], "the daemon does not run (Connection refused); see systemctl status kelvaned.socket");
  EXPECT_TRUE(json["volumes"].is_array());
}

TEST(AQueryInJson, BearsTextThatIsNotUtf8) {
  EXPECT_EQ(nlohmann::json::parse(queryJson(reportOf({{"\xff", 1}}, 1)))["volumes"][0]["services"][0]["id"],
            "\xef\xbf\xbd");
}

}  // namespace
}  // namespace kelvane::ctl
