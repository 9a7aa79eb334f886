// SPDX-License-Identifier: Apache-2.0
// The rounds of a pass by themselves: who waits for whom, and when nobody is left.
#include "operations/PurgeRound.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kelvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class APurgeRound : public testing::Test {
 protected:
  static PurgeServiceRequest requestOf(const std::string& identifier) {
    return {.service = std::make_shared<KLService>(identifier),
            .info = MutableDictionary(),
            .urgency = 1,
            .operationInfo = MutableDictionary(),
            .completion = nullptr};
  }

  /// Sends a request whose block has run, as the message queue does.
  void ask(const std::string& identifier) {
    queueBlock();
    inFlight.insert(identifier);
    round.asked(identifier, 1);
    round.blockRan();
  }
  void queueBlock() { round.beginPass(1, false); }
  /// An answer: of one who gave the whole share and waits for the next turn, or of one who did not.
  void answer(const std::string& identifier, bool gaveAll) {
    if (gaveAll) {
      round.hold(requestOf(identifier), {});
    }
    inFlight.erase(identifier);
    round.settled(identifier);
    round.lookAtFlight();
  }
  void fail(const std::string& identifier) {
    inFlight.erase(identifier);
    round.settled(identifier);
  }

  std::vector<std::string> turns() { return identifiersOf(round.takeTurns(inFlight)); }
  std::vector<std::string> turnsAtOnce() { return identifiersOf(round.takeTurnsAtOnce(inFlight)); }

  PurgeRound round;
  PurgeRound::InFlight inFlight;

 private:
  static std::vector<std::string> identifiersOf(const PurgeRound::Requests& requests) {
    std::vector<std::string> identifiers;
    for (const PurgeServiceRequest& request : requests) {
      identifiers.push_back(request.identifier());
    }
    return identifiers;
  }
};

TEST_F(APurgeRound, GivesTheNextTurnsWhenAllHaveAnsweredInTheOrderOfTheAnswers) {
  ask("a");
  ask("b");
  ask("c");
  answer("c", true);
  EXPECT_THAT(turns(), IsEmpty());
  answer("b", false);
  EXPECT_THAT(turns(), IsEmpty());
  answer("a", true);
  EXPECT_THAT(turns(), ElementsAre("c", "a"));
  EXPECT_FALSE(round.isAnyoneHeld());
}

TEST_F(APurgeRound, IsNotHeldUpByOneWhoseConnectionFailed) {
  ask("a");
  ask("gone");
  answer("a", true);
  fail("gone");
  EXPECT_THAT(turns(), ElementsAre("a"));
}

TEST_F(APurgeRound, GivesNoTurnWhileRequestsOfThePassAreStillQueued) {
  queueBlock();
  ask("a");
  answer("a", true);
  EXPECT_THAT(turns(), IsEmpty());
  EXPECT_FALSE(round.isOver(inFlight));
  round.blockRan();
  EXPECT_THAT(turns(), ElementsAre("a"));
}

TEST_F(APurgeRound, IsOverWhenTheLastAnswerLeavesNobodyInFlight) {
  ask("a");
  ask("b");
  answer("a", false);
  EXPECT_FALSE(round.isOver(inFlight));
  answer("b", false);
  EXPECT_TRUE(round.isOver(inFlight));
  EXPECT_FALSE(round.isOver(inFlight)) << "one look finds it once";
}

TEST_F(APurgeRound, IsNotOverWhileSomebodysTurnIsStillToCome) {
  ask("a");
  ask("b");
  answer("a", true);
  answer("b", false);
  EXPECT_FALSE(round.isOver(inFlight));
  EXPECT_THAT(turns(), ElementsAre("a"));
  EXPECT_FALSE(round.isOver(inFlight));
}

TEST_F(APurgeRound, IsOverWhenNoneOfThoseWhoHadATurnWasAsked) {
  ask("a");
  answer("a", true);
  EXPECT_THAT(turns(), ElementsAre("a"));
  // Enough was gained meanwhile.
  round.blockRan();
  EXPECT_TRUE(round.isOver(inFlight));
}

// Who only fails ends no pass, so that a pass without any answer takes its whole time.
TEST_F(APurgeRound, IsNotOverWhenNobodyHasAnswered) {
  ask("gone");
  fail("gone");
  EXPECT_FALSE(round.isOver(inFlight));
}

TEST_F(APurgeRound, IsNotOverWhenTheLastInFlightFailsAfterOthersHaveAnswered) {
  ask("a");
  ask("gone");
  answer("a", false);
  EXPECT_FALSE(round.isOver(inFlight));
  fail("gone");
  EXPECT_FALSE(round.isOver(inFlight));
}

TEST_F(APurgeRound, GivesATurnAtOnceWhenPatienceIsOverAndWaitsForNobodyTwice) {
  ask("silent");
  ask("a");
  ask("b");
  answer("a", true);
  EXPECT_THAT(turnsAtOnce(), ElementsAre("a"));
  round.asked("a", 1);
  inFlight.insert("a");
  round.blockRan();
  answer("b", true);
  EXPECT_THAT(turns(), IsEmpty()) << "a has been asked in this round";
  answer("a", true);
  EXPECT_THAT(turns(), ElementsAre("b", "a")) << "although the silent one has not answered yet";
  EXPECT_FALSE(round.isOver(inFlight));
}

TEST_F(APurgeRound, LeavesOutWhoIsStillBeingTakenOutOfFlight) {
  ask("a");
  ask("silent");
  round.hold(requestOf("a"), {});
  EXPECT_THAT(turnsAtOnce(), IsEmpty());
  EXPECT_TRUE(round.isAnyoneHeld());
  answer("a", false);
  EXPECT_THAT(turnsAtOnce(), ElementsAre("a"));
}

// One that an earlier pass asked may come in late, and first.
TEST_F(APurgeRound, KeepsTheOrderOfTheAnswersWhenItLeavesSomebodyOut) {
  for (const char* identifier : {"a", "b", "c", "silent"}) {
    ask(identifier);
  }
  answer("b", true);
  answer("a", true);
  round.hold(requestOf("c"), {});
  EXPECT_THAT(turnsAtOnce(), ElementsAre("b", "a"));
}

TEST_F(APurgeRound, IsAsPatientAsTheLeastPatient) {
  ask("a");
  ask("b");
  ask("c");
  round.hold(requestOf("a"), std::chrono::seconds(3));
  EXPECT_EQ(round.patience(), std::chrono::seconds(3));
  round.hold(requestOf("b"), std::chrono::seconds(5));
  EXPECT_EQ(round.patience(), std::chrono::seconds(3));
  round.hold(requestOf("c"), std::chrono::seconds(2));
  EXPECT_EQ(round.patience(), std::chrono::seconds(2));
}

TEST_F(APurgeRound, IsNeverLessPatientThanAQuarterOfASecond) {
  ask("a");
  round.hold(requestOf("a"), std::chrono::milliseconds(1));
  EXPECT_EQ(round.patience(), std::chrono::milliseconds(250));
}

TEST_F(APurgeRound, BeginsAWaitWithTheFirstWhoGaveAndWithOneWhoIsLessPatient) {
  const std::uint64_t before = round.waitNumber();
  ask("a");
  ask("b");
  ask("c");
  EXPECT_EQ(round.waitNumber(), before);
  round.hold(requestOf("a"), std::chrono::seconds(3));
  const std::uint64_t first = round.waitNumber();
  EXPECT_NE(first, before);
  round.hold(requestOf("b"), std::chrono::seconds(3));
  EXPECT_EQ(round.waitNumber(), first);
  round.hold(requestOf("c"), std::chrono::seconds(2));
  const std::uint64_t second = round.waitNumber();
  EXPECT_NE(second, first);
  EXPECT_THAT(turnsAtOnce(), IsEmpty());
  round.endPass();
  EXPECT_EQ(round.waitNumber(), second);
  round.hold(requestOf("a"), std::chrono::seconds(3));
  EXPECT_NE(round.waitNumber(), second);
  EXPECT_EQ(round.patience(), std::chrono::seconds(3));
}

// Its late answer to an earlier pass came before this pass asked it.
TEST_F(APurgeRound, DropsTheTurnOfAServiceThatIsAskedInstead) {
  ask("a");
  ask("b");
  answer("a", true);
  answer("b", true);
  ask("a");
  EXPECT_THAT(turns(), IsEmpty());
  answer("a", false);
  EXPECT_THAT(turns(), ElementsAre("b"));
}

TEST_F(APurgeRound, WaitsForNobodyWhoIsSentNothing) {
  ask("a");
  inFlight.insert("poor");
  round.asked("poor", 0);
  answer("a", true);
  EXPECT_THAT(turns(), ElementsAre("a"));
}

TEST_F(APurgeRound, OfAPassThatEndsEarlyIsOverWithoutAnybodysAnswer) {
  round.beginPass(1, true);
  EXPECT_FALSE(round.isOver(inFlight)) << "its block has not run";
  inFlight.insert("gone");
  round.asked("gone", 1);
  round.blockRan();
  EXPECT_FALSE(round.isOver(inFlight)) << "somebody is in flight";
  fail("gone");
  EXPECT_TRUE(round.isOver(inFlight));
  EXPECT_FALSE(round.isOver(inFlight)) << "once";
}

TEST_F(APurgeRound, OfAPassThatEndsEarlyAndHasNobodyToAskIsOverAtOnce) {
  round.beginPass(0, true);
  EXPECT_TRUE(round.isOver(inFlight));
}

TEST_F(APurgeRound, DoesNotEndTheNextPassEarly) {
  round.beginPass(0, true);
  round.endPass();
  EXPECT_FALSE(round.isOver(inFlight));
}

TEST_F(APurgeRound, EndsWithItsPass) {
  ask("silent");
  ask("a");
  answer("a", true);
  round.endPass();
  EXPECT_FALSE(round.isAnyoneHeld());
  ask("b");
  answer("b", true);
  EXPECT_THAT(turns(), ElementsAre("b")) << "nobody waits for who was silent in the pass before";
}

TEST_F(APurgeRound, EndsWithItsPassTogetherWithTheLookThatWasDue) {
  queueBlock();
  ask("a");
  answer("a", false);
  EXPECT_FALSE(round.isOver(inFlight));
  round.endPass();
  round.blockRan();
  EXPECT_FALSE(round.isOver(inFlight));
}

}  // namespace
}  // namespace kelvane::test
