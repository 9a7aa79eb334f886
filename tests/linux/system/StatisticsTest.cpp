// SPDX-License-Identifier: Apache-2.0
// Counters and distributions, and the file they are published in.
#include "platform/linux/system/Statistics.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>

#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "platform/linux/system/Paths.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using reporting::Statistics;
using testing::HasSubstr;
using testing::Not;

TEST(ACounter, IsPublishedUnderItsName) {
  Statistics statistics;
  statistics.addToCounter("com.tessaly.kelvane", "KL_LOWDISK_EVENT", 2);
  statistics.addToCounter("com.tessaly.kelvane", "KL_LOWDISK_EVENT", 3);
  EXPECT_THAT(statistics.prometheusText(),
              HasSubstr("kelvane_events_total{domain=\"com.tessaly.kelvane\",name=\"KL_LOWDISK_EVENT\"} 5\n"));
}

TEST(ACounter, MayHaveNoName) {
  Statistics statistics;
  statistics.addToCounter("domain", "", 1);
  EXPECT_THAT(statistics.prometheusText(), HasSubstr("{domain=\"domain\",name=\"\"} 1\n"));
}

TEST(ACounter, WrapsInTwosComplement) {
  Statistics statistics;
  statistics.addToCounter("d", "n", std::numeric_limits<std::int64_t>::max());
  statistics.addToCounter("d", "n", 1);
  EXPECT_THAT(statistics.prometheusText(), HasSubstr("name=\"n\"} -9.22337203685477"));
}

TEST(ACounter, NameCannotBreakOutOfItsLabel) {
  Statistics statistics;
  statistics.addToCounter("d", "a\"} 1\nb\\", 1);
  EXPECT_THAT(statistics.prometheusText(), HasSubstr("name=\"a\\\"} 1\\nb\\\\\"} 1\n"));
}

TEST(ADistribution, GivesCountSumAndRange) {
  Statistics statistics;
  for (const double sample : {2.5, -1.0, 10.0}) {
    statistics.addSample("d", "n", sample);
  }
  statistics.addSample("d", "n", std::nan(""));
  const std::string text = statistics.prometheusText();
  EXPECT_THAT(text, HasSubstr("# TYPE kelvane_distribution summary\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_distribution_count{domain=\"d\",name=\"n\"} 3\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_distribution_sum{domain=\"d\",name=\"n\"} 11.5\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_distribution{domain=\"d\",name=\"n\",quantile=\"0\"} -1\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_distribution{domain=\"d\",name=\"n\",quantile=\"1\"} 10\n"));
}

TEST(Statistics, BeyondTheLimitAreKeptTogether) {
  Statistics statistics;
  for (std::size_t index = 0; index < limits::statisticNames; ++index) {
    statistics.addToCounter("d", std::to_string(index), 1);
  }
  EXPECT_THAT(statistics.prometheusText(), Not(HasSubstr("overflow")));
  statistics.addToCounter("d", "one more", 3);
  statistics.addToCounter("e", "and another", 4);
  statistics.addToCounter("d", "0", 1);
  const std::string text = statistics.prometheusText();
  EXPECT_THAT(text, HasSubstr("{domain=\"overflow\",name=\"overflow\"} 7\n"));
  EXPECT_THAT(text, HasSubstr("{domain=\"d\",name=\"0\"} 2\n")) << "known names go on";
  EXPECT_THAT(text, Not(HasSubstr("one more")));
}

TEST(Statistics, ThatAreReservedHavePlacesOfTheirOwn) {
  Statistics statistics;
  constexpr std::array reserved = {"first", "second"};
  statistics.reserveNames("d", reserved);
  for (std::size_t index = 0; index < limits::statisticNames; ++index) {
    statistics.addToCounter("d", std::to_string(index), 1);
    statistics.addSample("d", std::to_string(index), 1);
  }
  statistics.addToCounter("e", "first", 7);
  statistics.addToCounter("d", "first", 5);
  statistics.addSample("d", "second", 1);
  statistics.addSample("d", "second", 2);
  const std::string text = statistics.prometheusText();
  EXPECT_THAT(text, HasSubstr("kelvane_events_total{domain=\"d\",name=\"first\"} 5\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_distribution_count{domain=\"d\",name=\"second\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("{domain=\"overflow\",name=\"overflow\"} 7\n")) << "of another domain";
}

TEST(AGauge, ShowsWhatItWasSetToLast) {
  Statistics statistics;
  EXPECT_THAT(statistics.prometheusText(), Not(HasSubstr("kelvane_things")));
  statistics.setGauge("kelvane_things", "How many things there are.", 5);
  statistics.setGauge("kelvane_things", "How many things there are.", -3);
  EXPECT_THAT(statistics.prometheusText(), HasSubstr("# HELP kelvane_things How many things there are.\n"
                                                     "# TYPE kelvane_things gauge\n"
                                                     "kelvane_things -3\n"));
}

TEST(Statistics, WithOverlongNamesAreKeptTogether) {
  Statistics statistics;
  statistics.addSample("d", std::string(limits::statisticNameBytes, 'x'), 1);
  EXPECT_THAT(statistics.prometheusText(), Not(HasSubstr("overflow")));
  statistics.addSample("d", std::string(limits::statisticNameBytes + 1, 'y'), 1);
  statistics.addSample(std::string(limits::statisticNameBytes + 1, 'z'), "n", 1);
  EXPECT_THAT(statistics.prometheusText(),
              HasSubstr("kelvane_distribution_count{domain=\"overflow\",name=\"overflow\"} 2\n"));
}

/// Watches the directory for files that appear under their final names.
class TheMetricsFile : public testing::Test {
 protected:
  TheMetricsFile() {
    std::filesystem::create_directories(paths::runtimeDirectory);
    inotify_add_watch(watch_, paths::runtimeDirectory, IN_MOVED_TO);
  }
  ~TheMetricsFile() override { close(watch_); }

  bool isWritten(int milliseconds) const {
    pollfd written = {watch_, POLLIN, 0};
    if (poll(&written, 1, milliseconds) != 1) {
      return false;
    }
    char events[4096];
    return read(watch_, events, sizeof events) > 0;
  }

  const int watch_ = inotify_init1(IN_CLOEXEC);
};

TEST_F(TheMetricsFile, FollowsChangesOnceInAWhileAndRestsWithoutThem) {
  for (int count = 0; count < 1000; ++count) {
    reporting::addToCounter("domain", "burst", 1);
    reporting::addSample("domain", "samples", count);
  }
  ASSERT_TRUE(isWritten(30'000));
  const std::string text = test::readFile(paths::metricsFile);
  EXPECT_THAT(text, HasSubstr("kelvane_events_total{domain=\"domain\",name=\"burst\"} 1000\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_distribution_count{domain=\"domain\",name=\"samples\"} 1000\n"));
  struct stat status;
  ASSERT_EQ(stat(paths::metricsFile, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_FALSE(isWritten(1500)) << "nothing has changed";
  reporting::addToCounter("domain", "burst", 1);
  ASSERT_TRUE(isWritten(30'000));
  EXPECT_THAT(test::readFile(paths::metricsFile), HasSubstr("name=\"burst\"} 1001\n"));
}

TEST_F(TheMetricsFile, ThatCannotBeWrittenIsLoggedOnceUntilItCan) {
  int descriptors[2];
  ASSERT_EQ(pipe2(descriptors, O_CLOEXEC), 0);
  const int standardError = dup(STDERR_FILENO);
  const std::string blocker = std::string(paths::runtimeDirectory) + "/.metrics.prom.new";
  ASSERT_EQ(mkdir(blocker.c_str(), 0700), 0);
  ASSERT_GE(dup2(descriptors[1], STDERR_FILENO), 0);

  reporting::addToCounter("domain", "failing", 1);
  pollfd logged = {descriptors[0], POLLIN, 0};
  ASSERT_EQ(poll(&logged, 1, 30'000), 1);
  char line[4096];
  const ssize_t length = read(descriptors[0], line, sizeof line);
  ASSERT_GT(length, 0);
  EXPECT_THAT(std::string(line, static_cast<std::size_t>(length)),
              HasSubstr("Unable to write /run/kelvane/metrics.prom: opening /run/kelvane/.metrics.prom.new: "
                        "Is a directory"));
  reporting::addToCounter("domain", "failing", 1);
  EXPECT_EQ(poll(&logged, 1, 1500), 0) << "a second line for the same failure";

  ASSERT_EQ(rmdir(blocker.c_str()), 0);
  reporting::addToCounter("domain", "failing", 1);
  EXPECT_TRUE(isWritten(30'000));
  dup2(standardError, STDERR_FILENO);
  close(standardError);
  close(descriptors[0]);
  close(descriptors[1]);
}

}  // namespace
}  // namespace kelvane
