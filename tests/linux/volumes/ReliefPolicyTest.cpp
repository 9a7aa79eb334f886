// SPDX-License-Identifier: Apache-2.0
// Which events are posted when volumes run low, and how long a volume pauses after one.
#include "platform/linux/volumes/ReliefPolicy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/linux/volumes/ReliefPolicyTesting.h"

namespace kelvane {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class AVolumeThatRunsLow : public WatchedVolumes {};
class AVolumeThatGainsNothing : public WatchedVolumes {};
class AVolumeThatGains : public WatchedVolumes {};
class SeveralLowVolumes : public WatchedVolumes {};
class AnEventFromOutside : public WatchedVolumes {};
class AVolumeThatDoesNotAnswer : public WatchedVolumes {};

TEST_F(AVolumeThatRunsLow, IsAnnouncedWhenItEntersALevel) {
  set("/data", lowMark);
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/data"));
}

TEST_F(AVolumeThatRunsLow, IsAnnouncedAsVeryLowAloneWhenItFallsThatFarAtOnce) {
  set("/data", lowMark);
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", veryLowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(1s);
  EXPECT_EQ(announced(), std::nullopt);
}

TEST_F(AVolumeThatRunsLow, IsAnnouncedWhenItIsLowAtFirstSight) {
  set("/data", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
}

TEST_F(AVolumeThatRunsLow, IsAnnouncedAfterSomeTimeWhenItIsLowFromTheStart) {
  policy_ = ReliefPolicy();
  set("/low", lowMark - 1);
  set("/very-low", veryLowMark - 1);
  set("/data", lowMark);
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low) << "as ever";
  EXPECT_THAT(taken(), ElementsAre("/data"));
  endAfter(0s);
  pass(10s - 1ns);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/data"));
  endAfter(1ns);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  EXPECT_THAT(taken(), ElementsAre("/very-low", "/low"));
}

TEST_F(AVolumeThatRunsLow, IsNotAnnouncedAgainBeforeTheHandlerHasReturned) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/data"));
  for (int count = 0; count < 10; ++count) {
    pass(10min);
    set("/data", veryLowMark - 1);
    EXPECT_EQ(announced(), std::nullopt);
  }
  endAfter(1s);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow) << "entered meanwhile";
}

TEST_F(AVolumeThatRunsLow, IsAnnouncedOnceMoreInItsPauseWhenItBecomesVeryLow) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  handleInVain(100s);
  EXPECT_EQ(announced(), std::nullopt);
  pass(10s);
  set("/data", veryLowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  EXPECT_THAT(taken(), ElementsAre("/data"));
  endAfter(1s);
  // To and fro about the lower mark.
  for (int count = 0; count < 4; ++count) {
    set("/data", veryLowMark + 1);
    EXPECT_EQ(announced(), std::nullopt);
    set("/data", veryLowMark - 1);
    EXPECT_EQ(announced(), std::nullopt);
    pass(1s);
  }
}

TEST_F(AVolumeThatRunsLow, IsNoBusinessOfTheHandlerOnceItIsAmple) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  set("/data", lowMark);
  EXPECT_THAT(taken(), IsEmpty());
  endAfter(0s);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), std::nullopt) << "it may be to and fro about the mark";
  pass(5s);
  EXPECT_EQ(announced(), SpaceLevel::Low);
}

TEST_F(AVolumeThatRunsLow, IsForgottenWhenItIsUnmounted) {
  set("/data", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(100s);
  unmount("/data");
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow) << "another file system in its place";
  unmount("/data");
  endAfter(1s);
  EXPECT_EQ(announced(), std::nullopt);
}

TEST_F(AVolumeThatGainsNothing, PausesTwiceAsLongEachTimeUpToAnHour) {
  set("/data", veryLowMark - 1);
  EXPECT_THAT(eventsWithin(10240s + 3600s),
              ElementsAre(0s, 5s, 15s, 35s, 75s, 155s, 315s, 635s, 1275s, 2555s, 5115s, 8715s, 12315s));
}

TEST_F(AVolumeThatGainsNothing, PausesAtLeastAsLongAsTheHandlerTook) {
  set("/data", veryLowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  for (const Duration pause : {900s, 1800s, 3600s, 3600s}) {
    handleInVain(900s);
    EXPECT_EQ(announced(), std::nullopt);
    EXPECT_LE(untilNextLook(), 900s);
    pass(pause - 1ns);
    EXPECT_EQ(announced(), std::nullopt) << "it doubles from there on";
    pass(1ns);
    EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  }
  handleInVain(2h);
  pass(2h - 1ns);
  EXPECT_EQ(announced(), std::nullopt) << "even beyond an hour";
  pass(1ns);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
}

TEST_F(AVolumeThatGainsNothing, KeepsItsPauseWhenItIsMountedAgainWhereverThatIs) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  handleInVain(100s);
  look();
  unmount("/data");
  look();
  pass(10s);
  mountAgain("/data");
  EXPECT_EQ(announced(), std::nullopt);
  unmount("/data");
  look();
  pass(20s);
  mountAgain("/elsewhere");
  EXPECT_EQ(announced(), std::nullopt);
  unmount("/elsewhere");
  mountAgain("/data");
  EXPECT_EQ(announced(), std::nullopt) << "no look was without it";
  pass(70s - 1ns);
  EXPECT_EQ(announced(), std::nullopt);
  pass(1ns);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  handleInVain(0s);
  pass(200s - 1ns);
  EXPECT_EQ(announced(), std::nullopt) << "twice as long as the last one";
  pass(1ns);
  EXPECT_EQ(announced(), SpaceLevel::Low);
}

TEST_F(AVolumeThatGainsNothing, KeepsNoPauseWhileItIsUnmountedThatAnEventEnds) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  handleInVain(100s);
  look();
  unmount("/data");
  look();
  policy_.end(policy_.beginOutside(now_), now_);
  mountAgain("/data");
  EXPECT_EQ(announced(), SpaceLevel::Low);
}

TEST_F(AVolumeThatGainsNothing, KeepsNoPauseWhenItIsGoneForGood) {
  set("/memory", lowMark);
  setDevice("/memory", makedev(0, 40));
  EXPECT_EQ(announced(), std::nullopt);
  set("/memory", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  handleInVain(100s);
  look();
  unmount("/memory");
  look();
  mountAgain("/memory");
  EXPECT_EQ(announced(), SpaceLevel::Low) << "one without a device is another one";
}

TEST_F(AVolumeThatGainsNothing, LeavesNoPauseToAnotherWithItsNumber) {
  for (const bool isSizeChanged : {true, false}) {
    set("/data", lowMark - 2 * mebibyte);
    EXPECT_EQ(announced(), SpaceLevel::Low);
    handleInVain(100s);
    look();
    unmount("/data");
    look();
    mountAgain("/other");
    if (isSizeChanged) {
      setSize("/other", 999 * gibibyte);
    } else {
      set("/other", lowMark - 1 * mebibyte);
    }
    EXPECT_EQ(announced(), SpaceLevel::Low);
    handleInVain(0s);
    look();
    unmount("/other");
    look();
  }
}

TEST_F(AVolumeThatGainsNothing, IsLookedAtWhenItsPauseIsOver) {
  set("/data", veryLowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(1s);
  look();
  for (int looks = 0; policy_.nextLook() - now_ > 0s && looks < 10; ++looks) {
    pass(untilNextLook());
    if (announced()) {
      break;
    }
  }
  EXPECT_EQ(now_, Time(1000h) + 1s + 5s);
}

TEST_F(AVolumeThatGainsNothing, IsNotKeptBusyByFilesThatComeAndGo) {
  set("/data", lowMark - 1);
  int events = 0;
  // For an hour, every second, well above the mark and below it.
  for (int second = 0; second < 3600; ++second, pass(500ms)) {
    set("/data", 2 * lowMark);
    EXPECT_EQ(announced(), std::nullopt);
    pass(500ms);
    set("/data", veryLowMark - 1);
    if (announced()) {
      handleInVain(0s);
      look();
      ++events;
    }
  }
  EXPECT_GE(events, 50);
  EXPECT_LE(events, 65) << "hardly more than one a minute";
}

TEST_F(AVolumeThatGainsNothing, IsNotKeptBusyByTriflesAboutItsMark) {
  set("/data", lowMark - 1);
  std::vector<int> events;
  for (int second = 0; second < 3600; ++second, pass(500ms)) {
    set("/data", lowMark + 10 * mebibyte);
    EXPECT_EQ(announced(), std::nullopt);
    pass(500ms);
    set("/data", lowMark - 10 * mebibyte);
    if (announced()) {
      handleInVain(0s);
      look();
      events.push_back(second);
    }
  }
  EXPECT_THAT(events, SizeIs(10)) << "its pauses double as they do without";
}

TEST_F(AVolumeThatGainsNothing, StartsAfreshOnceItHasBeenAmpleForAMinuteAndAsLongAsItsPause) {
  set("/data", lowMark - 1);
  EXPECT_THAT(eventsWithin(3min), SizeIs(6));
  set("/data", lowMark);
  for (int second = 0; second < 160; ++second) {
    look();
    pass(1s);
  }
  set("/data", lowMark - 1);
  EXPECT_THAT(eventsWithin(15s), ElementsAre(0s, 5s, 15s));
}

TEST_F(AVolumeThatGainsNothing, KeepsNoMoreThanAMinuteOfItsPauseWhenItRecovers) {
  set("/data", veryLowMark - 1);
  EXPECT_THAT(eventsWithin(1h), SizeIs(10));
  // It is in a pause that lasts until 5115 s.
  set("/data", 2 * lowMark);
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low) << "the last event was more than a minute ago";
}

TEST_F(AVolumeThatGains, IsAnnouncedAtOnceWhenItRunsLowAgain) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  taken();
  set("/data", lowMark + 250 * mebibyte);
  endAfter(600s);
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
}

TEST_F(AVolumeThatGains, ButStaysLowPausesAsLongAsTheHandlerTookAndNoLonger) {
  std::uint64_t available = 10 * mebibyte;
  set("/data", available);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  for (int count = 0; count < 5; ++count) {
    taken();
    set("/data", available += mebibyte);
    endAfter(20s);
    EXPECT_EQ(announced(), std::nullopt);
    pass(20s - 1ns);
    EXPECT_EQ(announced(), std::nullopt);
    pass(1ns);
    EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  }
  taken();
  set("/data", available += mebibyte);
  endAfter(0s);
  pass(5s - 1ns);
  EXPECT_EQ(announced(), std::nullopt) << "nor shorter than the shortest pause";
  pass(1ns);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
}

TEST_F(AVolumeThatGains, HasDoneSoEvenIfAWriterUsesItUpBeforeTheHandlerReturns) {
  set("/data", 10 * mebibyte);
  EXPECT_THAT(eventsWithin(3min), SizeIs(6));
  pass(155s);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  taken();
  pass(1s);
  set("/data", 200 * mebibyte);
  look();
  set("/data", 0);
  endAfter(9s);
  EXPECT_EQ(announced(), std::nullopt);
  pass(10s);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
}

TEST_F(AVolumeThatGains, IsJudgedByALookAfterTheHandlersReturn) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  taken();
  // The look began before, and saw nothing of the gain.
  const Time before = now_;
  endAfter(1s);
  policy_.look(before, {});
  set("/data", 2 * lowMark);
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
}

TEST_F(SeveralLowVolumes, AreAnnouncedByOneEventWithTheWorstLevel) {
  set("/a", lowMark - 1);
  set("/b", veryLowMark - 1);
  set("/c", lowMark - 2);
  set("/d", lowMark);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  EXPECT_THAT(taken(), ElementsAre("/b", "/c", "/a"));
}

TEST_F(SeveralLowVolumes, LeaveOutWhatPauses) {
  set("/hopeless", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(1s);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/data"));
  EXPECT_THAT(taken(ReliefPolicy::noRun), ElementsAre("/data")) << "and so outside of a handler";
}

TEST_F(SeveralLowVolumes, LetThoseThatMayHaveSomethingToGiveGoFirst) {
  set("/hopeless", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(1s);
  EXPECT_EQ(announced(), std::nullopt);
  pass(5s);
  // Both are due now.
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/data"));
  endAfter(1s);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow) << "its turn, while the other one pauses";
  EXPECT_THAT(taken(), ElementsAre("/hopeless"));
}

TEST_F(SeveralLowVolumes, ThatGainedNothingAreAnnouncedOneByOne) {
  set("/a", 1);
  set("/b", 2);
  set("/c", 3);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  EXPECT_THAT(taken(), ElementsAre("/a", "/b", "/c"));
  endAfter(300s);
  EXPECT_EQ(announced(), std::nullopt);
  pass(300s);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  EXPECT_THAT(taken(), SizeIs(1));
  // One that fills up in between waits for this one only.
  set("/data", 0);
  endAfter(300s);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  EXPECT_THAT(taken(), ElementsAre("/data"));
}

TEST_F(SeveralLowVolumes, GiveOneWithoutGainItsTurnAfterAnHourAtTheLatest) {
  set("/hopeless", 1);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(0s);
  look();
  // Two that always gain and never get out of it keep each other's pauses busy.
  std::uint64_t gained = 10 * mebibyte;
  std::optional<Duration> turn;
  const Time begin = now_;
  for (int count = 0; count < 100 && !turn; ++count) {
    set(count % 2 == 0 ? "/one" : "/other", gained += 2 * mebibyte);
    ASSERT_NE(announced(), std::nullopt);
    const Names names = taken();
    if (testing::Matches(testing::Contains("/hopeless"))(names)) {
      turn = now_ - begin;
    }
    for (const std::string& name : names) {
      set(name, gained += 2 * mebibyte);
    }
    endAfter(100s);
  }
  ASSERT_TRUE(turn);
  EXPECT_LE(*turn, 1h + 200s);
}

TEST_F(SeveralLowVolumes, IncludeOneThatNobodyHadSeenLowYet) {
  set("/a", 0);
  set("/b", lowMark);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  set("/b", lowMark - 1);
  set("/new", lowMark - 2);
  EXPECT_THAT(taken(), ElementsAre("/a", "/new", "/b"));
  endAfter(0s);
  EXPECT_EQ(announced(), std::nullopt);
}

TEST_F(AnEventFromOutside, EndsPauses) {
  set("/data", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(100s);
  EXPECT_EQ(announced(), std::nullopt);
  const auto run = policy_.beginOutside(now_);
  EXPECT_THAT(taken(run), ElementsAre("/data"));
}

TEST_F(AnEventFromOutside, KeepsWhatItIsForFromBeingAnnouncedBesides) {
  set("/data", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(1s);
  look();
  const auto run = policy_.beginOutside(now_);
  EXPECT_EQ(announced(), std::nullopt) << "though its pause is over and its handler has not taken it yet";
  EXPECT_THAT(taken(run), ElementsAre("/data"));
  pass(100s);
  EXPECT_EQ(announced(), std::nullopt);
  policy_.end(run, now_);
  EXPECT_EQ(announced(), std::nullopt) << "it pauses as after any other";
  pass(100s - 1ns);
  EXPECT_EQ(announced(), std::nullopt);
  pass(1ns);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
}

TEST_F(AnEventFromOutside, DoesNotHoldUpAnnouncementsOfOthers) {
  set("/hopeless", 0);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(1s);
  look();
  const auto run = policy_.beginOutside(now_);
  EXPECT_THAT(taken(run), ElementsAre("/hopeless"));
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/data")) << "the other one is in other hands";
  EXPECT_THAT(taken(policy_.beginOutside(now_)), ElementsAre("/hopeless", "/data")) << "whoever asks for all gets all";
}

TEST_F(AnEventFromOutside, WithoutAnyVolumeLeavesNothingBehind) {
  set("/data", 0);
  look();
  policy_.end(policy_.beginOutside(now_), now_);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
}

TEST_F(AVolumeThatDoesNotAnswer, IsAnnouncedWhenItDoes) {
  set("/data", lowMark - 1);
  silence("/data");
  EXPECT_EQ(announced(), std::nullopt) << "nothing is known of it";
  silence("/data", false);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/data"));
}

TEST_F(AVolumeThatDoesNotAnswer, KeepsItsPauseMeanwhile) {
  set("/data", veryLowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
  handleInVain(100s);
  EXPECT_EQ(announced(), std::nullopt);
  silence("/data");
  pass(100s - 1ns);
  EXPECT_EQ(announced(), std::nullopt);
  silence("/data", false);
  EXPECT_EQ(announced(), std::nullopt);
  pass(1ns);
  EXPECT_EQ(announced(), SpaceLevel::VeryLow);
}

TEST_F(AVolumeThatDoesNotAnswer, IsJudgedByAnAnswerAfterTheHandlersReturnAndHoldsUpNoOther) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  taken();
  silence("/data");
  set("/data", 2 * lowMark);
  endAfter(600s);
  set("/other", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  EXPECT_THAT(taken(), ElementsAre("/other"));
  endAfter(0s);
  EXPECT_EQ(announced(), std::nullopt);
  silence("/data", false);
  EXPECT_EQ(announced(), std::nullopt);
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low) << "it had gained, so that it is in no pause";
  EXPECT_THAT(taken(), ElementsAre("/data"));
}

TEST_F(AVolumeThatDoesNotAnswer, IsNotAnnouncedAgainHoweverLowItWas) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  handleInVain(0s);
  EXPECT_EQ(announced(), std::nullopt);
  silence("/data");
  for (int second = 0; second < 3600; ++second, pass(1s)) {
    ASSERT_EQ(announced(), std::nullopt) << second;
  }
  EXPECT_GT(untilNextLook(), 30s) << "nor is it looked for";
  silence("/data", false);
  EXPECT_EQ(announced(), SpaceLevel::Low);
}

TEST_F(AVolumeThatDoesNotAnswer, HasGainedNothingThatIsKnownIfItDidNotAnswerWhenItsReliefBegan) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  policy_.takeUnseen(run_, "/data");
  set("/data", lowMark - 1 + 100 * mebibyte);
  endAfter(0s);
  set("/data", lowMark - 1);
  for (const auto pause : {5s, 10s}) {
    EXPECT_EQ(announced(), std::nullopt);
    pass(pause - 1ns);
    EXPECT_EQ(announced(), std::nullopt);
    pass(1ns);
    EXPECT_EQ(announced(), SpaceLevel::Low);
    handleInVain(0s);
  }
}

TEST_F(AVolumeThatDoesNotAnswer, IsForgottenWhenItIsUnmounted) {
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low);
  handleInVain(0s);
  silence("/data");
  look();
  unmount("/data");
  look();
  set("/data", lowMark - 1);
  EXPECT_EQ(announced(), SpaceLevel::Low) << "it is another one";
}

}  // namespace
}  // namespace kelvane
