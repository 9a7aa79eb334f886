// SPDX-License-Identifier: Apache-2.0
// Log lines, in the journal and on standard error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "platform/linux/system/LogText.h"
#include "platform/linux/system/Paths.h"
#include "tests/linux/testing/DatagramSocket.h"

namespace kelvane {
namespace {

using reporting::singleLine;
using testing::HasSubstr;
using testing::Not;

std::string standardErrorOf(const std::function<void()>& action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

TEST(ALogMessage, StaysOnOneLine) {
  EXPECT_EQ(singleLine("plain text, \u00e4"), "plain text, \u00e4");
  EXPECT_EQ(singleLine("a\nb\tc\rd\x1b[0m\x7f"), "a\\nb\\tc\\x0dd\\x1b[0m\\x7f");
  EXPECT_EQ(singleLine(std::string_view("a\0b", 3)), "a\\x00b");
  EXPECT_EQ(singleLine("\u202eevil\xff"), "\\u{202e}evil\\xff");
}

TEST(ALogMessage, IsCutAtTheLimitBetweenCharacters) {
  const std::string longest(limits::logMessageBytes, 'x');
  EXPECT_EQ(singleLine(longest), longest);
  const std::string cut = singleLine(longest + "y");
  EXPECT_EQ(cut.size(), limits::logMessageBytes);
  EXPECT_TRUE(cut.ends_with("x..."));

  std::string wide = "x";
  while (wide.size() <= limits::logMessageBytes) {
    wide += "\u20ac";
  }
  const std::string cutWide = singleLine(wide);
  EXPECT_LE(cutWide.size(), limits::logMessageBytes);
  EXPECT_EQ((cutWide.size() - 3 - 1) % 3, 0u);
  EXPECT_TRUE(cutWide.ends_with("\u20ac..."));
}

TEST(TheLog, IsALineOfStandardErrorWithoutAJournal) {
  const std::string line = standardErrorOf([] { reporting::writeLog(3, "Kelvane", "function", "It\nfailed"); });
  EXPECT_EQ(line, std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "]: It\\nfailed\n");
}

TEST(TheLog, HasFailuresOfThePlatformOnlyIfItIsToHaveThem) {
  const auto fail = [] { reporting::reportFailure("function", "It failed"); };
  EXPECT_THAT(standardErrorOf(fail), HasSubstr("It failed"));
  reporting::failuresAreLogged = false;
  EXPECT_EQ(standardErrorOf(fail), "");
  reporting::failuresAreLogged = true;
}

TEST(TheLog, KeepsLinesOfSeveralThreadsApart) {
  const std::string text(300, 'x');
  const std::string log = standardErrorOf([&text] {
    std::vector<std::thread> threads;
    for (int count = 0; count < 4; ++count) {
      threads.emplace_back([&text] {
        for (int line = 0; line < 100; ++line) {
          reporting::writeLog(3, "Kelvane", "function", text);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  });
  const std::string line =
      std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "]: " + text + "\n";
  ASSERT_EQ(log.size(), 400 * line.size());
  for (std::size_t start = 0; start < log.size(); start += line.size()) {
    ASSERT_EQ(log.substr(start, line.size()), line);
  }
}

/// Here standard error may be a terminal, whose user would be shown the messages instead.
class TheJournal : public testing::Test {
 protected:
  TheJournal() { setenv("JOURNAL_STREAM", "1:1", 1); }
  ~TheJournal() override { unsetenv("JOURNAL_STREAM"); }
};

TEST_F(TheJournal, GetsMessagesWithFields) {
  const test::DatagramSocket journal(paths::journalSocket);
  const std::string log =
      standardErrorOf([] { reporting::writeLog(3, "Category", "-[Kelvane purge:callback:]", "What\nhappened"); });
  EXPECT_EQ(log, "");
  const std::string entry = journal.receive();
  for (const std::string& field : {std::string("MESSAGE=What\\nhappened\n"), std::string("PRIORITY=4\n"),
                                   std::string("KELVANE_CATEGORY=Category\n"), std::string("KELVANE_LEVEL=3\n"),
                                   std::string("CODE_FUNC=-[Kelvane purge:callback:]\n"),
                                   std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name + "\n"}) {
    EXPECT_THAT(entry, HasSubstr(field));
  }
  EXPECT_THAT(entry, Not(HasSubstr("CODE_FILE")));
}

TEST_F(TheJournal, IsToldTracesFromFailures) {
  const test::DatagramSocket journal(paths::journalSocket);
  reporting::writeLog(5, "Kelvane", "function", "trace");
  EXPECT_THAT(journal.receive(), HasSubstr("PRIORITY=7\n"));
  reporting::writeLog(4, "Kelvane", "function", "information");
  EXPECT_THAT(journal.receive(), HasSubstr("PRIORITY=6\n"));
}

TEST_F(TheJournal, ThatGoesAwayLosesNoMessage) {
  {
    const test::DatagramSocket journal(paths::journalSocket);
    reporting::writeLog(3, "Kelvane", "function", "first");
    EXPECT_THAT(journal.receive(), HasSubstr("first"));
  }
  EXPECT_THAT(standardErrorOf([] { reporting::writeLog(3, "Kelvane", "function", "socket gone"); }),
              HasSubstr("socket gone"));
  std::string link = paths::journalSocket;
  {
    const test::DatagramSocket journal(link + ".dead");
    ASSERT_EQ(rename((link + ".dead").c_str(), link.c_str()), 0);
  }
  EXPECT_THAT(standardErrorOf([] { reporting::writeLog(3, "Kelvane", "function", "nobody listens"); }),
              HasSubstr("nobody listens"));
  unlink(link.c_str());
}

}  // namespace
}  // namespace kelvane
