// SPDX-License-Identifier: Apache-2.0
// Keeping the oldest files in bounded memory.
#include "services/directory-cache/Candidates.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

namespace kelvane::directoryCache {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

FoundLink link(std::int64_t seconds, const std::string& path, nlink_t links = 1) {
  return {{seconds, 0, 1, static_cast<ino_t>(seconds)}, 0, path, 10, links};
}

std::vector<std::string> firstPaths(const Candidates::Round& round) {
  std::vector<std::string> paths;
  for (const Candidate& candidate : round.candidates) {
    paths.push_back(candidate.links.front().path);
  }
  return paths;
}

TEST(Candidates, ComeOldestFirst) {
  Candidates candidates({10, 1000}, std::nullopt);
  candidates.offer(link(3, "c"));
  candidates.offer(link(1, "a"));
  candidates.offer(link(2, "b"));
  const auto round = candidates.take();
  EXPECT_THAT(firstPaths(round), ElementsAre("a", "b", "c"));
  EXPECT_FALSE(round.next);
}

TEST(Candidates, AreTheOldestThatFit) {
  Candidates candidates({2, 1000}, std::nullopt);
  for (const int seconds : {5, 2, 4, 1, 3}) {
    candidates.offer(link(seconds, std::to_string(seconds)));
  }
  const auto round = candidates.take();
  EXPECT_THAT(firstPaths(round), ElementsAre("1", "2"));
  EXPECT_EQ(round.next->seconds, 2);
}

TEST(Candidates, BeginAfterThoseOfTheLastRound) {
  Candidates candidates({2, 1000}, FileKey{2, 0, 1, 2});
  for (const int seconds : {5, 2, 4, 1, 3}) {
    candidates.offer(link(seconds, std::to_string(seconds)));
  }
  EXPECT_THAT(firstPaths(candidates.take()), ElementsAre("3", "4"));
}

TEST(Candidates, AreBoundedByTheBytesOfTheirPaths) {
  Candidates candidates({100, 10}, std::nullopt);
  candidates.offer(link(1, "aaaa"));
  candidates.offer(link(2, "bbbb"));
  candidates.offer(link(3, "cccc"));
  const auto round = candidates.take();
  EXPECT_THAT(firstPaths(round), ElementsAre("aaaa", "bbbb"));
  EXPECT_EQ(round.next->seconds, 2);
}

TEST(Candidates, KeepOnePathHoweverLong) {
  Candidates candidates({100, 10}, std::nullopt);
  candidates.offer(link(1, std::string(4000, 'a')));
  EXPECT_EQ(candidates.take().candidates.size(), 1U);
}

TEST(Candidates, PassOverNoneBecauseAYoungerOneHasAShorterPath) {
  Candidates candidates({100, 10}, std::nullopt);
  candidates.offer(link(1, "aaaaaaaa"));
  candidates.offer(link(2, "bbbbbbbb"));
  candidates.offer(link(3, "c"));
  const auto round = candidates.take();
  EXPECT_THAT(firstPaths(round), ElementsAre("aaaaaaaa"));
  EXPECT_EQ(round.next->seconds, 1);
}

TEST(Candidates, HoldAllNamesOfTheirFile) {
  Candidates candidates({10, 1000}, std::nullopt);
  candidates.offer(link(1, "a", 2));
  candidates.offer(link(2, "b"));
  candidates.offer(link(1, "c", 2));
  const auto round = candidates.take();
  ASSERT_EQ(round.candidates.size(), 2U);
  EXPECT_EQ(round.candidates.front().links.size(), 2U);
}

TEST(Candidates, LeaveFilesOutThatHaveOtherNames) {
  Candidates candidates({10, 1000}, std::nullopt);
  candidates.offer(link(1, "a", 2));
  const auto round = candidates.take();
  EXPECT_THAT(round.candidates, IsEmpty());
  EXPECT_FALSE(round.next);
}

TEST(Candidates, AreConsideredAgainWhenTheirOtherNamesDidNotFit) {
  Candidates candidates({2, 1000}, std::nullopt);
  candidates.offer(link(1, "a"));
  candidates.offer(link(2, "b", 2));
  candidates.offer(link(2, "c", 2));
  const auto round = candidates.take();
  EXPECT_THAT(firstPaths(round), ElementsAre("a"));
  EXPECT_EQ(round.next->seconds, 1);
}

TEST(Candidates, AreGivenUpWhenTheirNamesAloneDoNotFit) {
  Candidates candidates({2, 1000}, std::nullopt);
  for (const char* name : {"a", "b", "c"}) {
    candidates.offer(link(1, name, 3));
  }
  const auto round = candidates.take();
  EXPECT_THAT(round.candidates, IsEmpty());
  EXPECT_EQ(round.next->seconds, 1);
}

TEST(RoundsOfCandidates, TogetherGiveEveryFileOnceAndInOrder) {
  std::mt19937 random(7);
  for (int turn = 0; turn < 200; ++turn) {
    std::vector<FoundLink> all;
    std::vector<std::int64_t> expected;
    for (std::int64_t seconds = 1; seconds <= 40; ++seconds) {
      const nlink_t links = random() % 4 == 0 ? 2 : 1;
      for (nlink_t name = 0; name < links; ++name) {
        all.push_back(link(seconds, std::string(1 + random() % 20, 'p'), links));
      }
      expected.push_back(seconds);
    }
    std::vector<std::int64_t> given;
    std::optional<FileKey> after;
    do {
      std::shuffle(all.begin(), all.end(), random);
      Candidates candidates({5, 50}, after);
      for (const FoundLink& found : all) {
        candidates.offer(found);
      }
      const auto round = candidates.take();
      for (const Candidate& candidate : round.candidates) {
        given.push_back(candidate.key.seconds);
      }
      after = round.next;
    } while (after && given.size() <= expected.size());
    ASSERT_EQ(given, expected);
  }
}

}  // namespace
}  // namespace kelvane::directoryCache
