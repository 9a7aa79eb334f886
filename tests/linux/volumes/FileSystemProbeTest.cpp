// SPDX-License-Identifier: Apache-2.0
// Questions to file systems that never answer, or late; stood in for by functions that wait.
#include "platform/linux/volumes/FileSystemProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Limits.h"
#include "platform/linux/runtime/Thread.h"

namespace kelvane {
namespace {

using namespace std::chrono_literals;
using Time = FileSystemProbe::Time;
using Visit = FileSystemProbe::Visit;

constexpr dev_t one = 1;
constexpr dev_t other = 2;

Time now() {
  return FileSystemProbe::Clock::now();
}

/// A question in a file system that does not answer before it is let.
class HeldQuestion {
 public:
  explicit HeldQuestion(dev_t device = one) : device_(device) {}
  ~HeldQuestion() { answer(); }

  FileSystemProbe::Question question() const {
    return [state = state_, device = device_](Visit& visit) {
      if (!visit.enter(device, "/held")) {
        return;
      }
      state->hasEntered = true;
      state->hasEntered.notify_all();
      state->mayAnswer.wait(false);
      state->wasLate = visit.isLate();
      state->mayEnterAnother = visit.enter(other, "/other");
      state->hasAnswered = true;
      state->hasAnswered.notify_all();
    };
  }
  void awaitEntered() const { state_->hasEntered.wait(false); }
  void answer() const {
    state_->mayAnswer = true;
    state_->mayAnswer.notify_all();
  }
  void awaitAnswered() const { state_->hasAnswered.wait(false); }
  bool wasLate() const { return state_->wasLate; }
  bool mayEnterAnother() const { return state_->mayEnterAnother; }

 private:
  struct State {
    std::atomic<bool> hasEntered = false;
    std::atomic<bool> mayAnswer = false;
    std::atomic<bool> hasAnswered = false;
    std::atomic<bool> wasLate = false;
    std::atomic<bool> mayEnterAnother = false;
  };
  const dev_t device_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

Result<int> ask(FileSystemProbe& probe, dev_t device) {
  return probe.ask<int>("asking", [device](Visit& visit) -> Result<int> {
    return visit.enter(device, "/volume") ? Result<int>(7) : Failure{.number = EBUSY, .tried = "entering"};
  });
}

/// The probe ends when all questions have been answered.
class AProbe : public testing::Test {
 protected:
  void awaitOpen(dev_t device) {
    while (const auto until = probe.closedUntil(device)) {
      std::this_thread::sleep_until(std::min(*until, now() + 10ms));
    }
  }

  /// Has one tell its space slowly, though in time.
  void tellSpaceSlowly() {
    const HeldQuestion held;
    std::thread asker([&] { EXPECT_TRUE(probe.run(held.question())); });
    held.awaitEntered();
    std::this_thread::sleep_for(FileSystemProbe::slowness);
    held.answer();
    asker.join();
    EXPECT_FALSE(held.wasLate());
  }

  FileSystemProbe probe;
};

TEST_F(AProbe, GivesTheAnswer) {
  EXPECT_EQ(*ask(probe, one), 7);
  EXPECT_EQ(probe.closedUntil(one), std::nullopt);
  EXPECT_EQ(probe.lostWorkers(), 0u);
}

TEST_F(AProbe, LetsGoOfWhatAQuestionHoldsBeforeItIsAnswered) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> left = held;
  EXPECT_TRUE(probe.run([held = std::move(held)](Visit&) {}));
  EXPECT_TRUE(left.expired());
}

TEST_F(AProbe, WaitsTwoSecondsForAFileSystemAndThenNotAtAllUntilItAnswers) {
  const HeldQuestion held;
  const Time before = now();
  EXPECT_FALSE(probe.run(held.question()));
  EXPECT_GE(now() - before, FileSystemProbe::patience);
  EXPECT_EQ(probe.closedUntil(one), Time::max());
  EXPECT_EQ(probe.lostWorkers(), 1u);
  for (int count = 0; count < 100; ++count) {
    EXPECT_EQ(ask(probe, one).failure().number, EBUSY);
  }
  EXPECT_EQ(*ask(probe, other), 7) << "others are asked as ever";
  held.answer();
  held.awaitAnswered();
  EXPECT_TRUE(held.wasLate());
  EXPECT_FALSE(held.mayEnterAnother()) << "nobody would wait for that";
}

TEST_F(AProbe, HasAnotherWorkerForAQuestionThatWaitsForOneWhoHasJustBegun) {
  const HeldQuestion held;
  const auto first = probe.put(held.question());
  held.awaitEntered();
  EXPECT_EQ(*ask(probe, other), 7);
  held.answer();
  EXPECT_TRUE(probe.await(first));
}

TEST_F(AProbe, LosesOneWorkerToAFileSystemHoweverManyAsk) {
  const HeldQuestion held;
  std::thread first([&] { EXPECT_FALSE(probe.run(held.question())); });
  held.awaitEntered();
  const Time before = now();
  std::vector<std::thread> askers;
  for (int count = 0; count < 20; ++count) {
    askers.emplace_back([&] { EXPECT_FALSE(ask(probe, one)); });
  }
  for (std::thread& asker : askers) {
    asker.join();
  }
  EXPECT_LT(now() - before, 2 * FileSystemProbe::patience) << "one hang, waited for once";
  first.join();
  EXPECT_EQ(probe.lostWorkers(), 1u);
}

TEST_F(AProbe, LetsAFileSystemRestThatAnsweredLate) {
  const HeldQuestion held;
  const Time before = now();
  EXPECT_FALSE(probe.run(held.question()));
  held.answer();
  held.awaitAnswered();
  while (probe.lostWorkers() > 0) {
    std::this_thread::yield();
  }
  const auto until = probe.closedUntil(one);
  ASSERT_TRUE(until);
  EXPECT_GE(*until - before, 2 * FileSystemProbe::patience) << "for as long as the answer took";
  EXPECT_LT(*until, Time::max());
  EXPECT_EQ(ask(probe, one).failure().number, EBUSY);
  awaitOpen(one);
  EXPECT_EQ(*ask(probe, one), 7);
}

TEST(AFileSystemThatAnswersLate, RestsAsLongAsItTookAndTwiceAsLongEachTimeUpToAMinute) {
  FileSystemProbe::Duration last{};
  for (const auto rest : {3s, 6s, 12s, 24s, 48s, 60s, 60s}) {
    EXPECT_EQ(last = FileSystemProbe::restAfter(3s, last), rest);
  }
  EXPECT_EQ(FileSystemProbe::restAfter(20s, 0s), 20s);
  EXPECT_EQ(FileSystemProbe::restAfter(10min, 0s), 1min);
}

TEST_F(AProbe, LetsAFileSystemRestThatIsSlowSoThatItTakesNobodyMoreThanHalfOfTheTime) {
  tellSpaceSlowly();
  const auto until = probe.closedUntil(one);
  ASSERT_TRUE(until);
  EXPECT_LE(*until - now(), FileSystemProbe::patience);
  EXPECT_EQ(probe.lostWorkers(), 0u);
}

TEST_F(AProbe, BlamesTheFileSystemThatAQuestionWasInWhenItHung) {
  const HeldQuestion held;
  EXPECT_FALSE(probe.run([question = held.question()](Visit& visit) {
    EXPECT_TRUE(visit.enter(other, "/other"));
    question(visit);
  }));
  EXPECT_EQ(probe.closedUntil(other), std::nullopt);
  EXPECT_EQ(probe.closedUntil(one), Time::max());
}

TEST_F(AProbe, LetsNobodyWaitForSomebodyWhoReadsFiles) {
  const HeldQuestion held;
  std::thread reader(
      [&] { EXPECT_FALSE(probe.run(held.question(), FileSystemProbe::About::Files, FileSystemProbe::patience)); });
  held.awaitEntered();
  EXPECT_EQ(*ask(probe, one), 7);
  reader.join();
  EXPECT_EQ(ask(probe, one).failure().number, EBUSY) << "but it has hung now";
}

TEST_F(AProbe, ReadsFilesWhereOnlyTheSpaceWasSlowToTell) {
  tellSpaceSlowly();
  EXPECT_TRUE(probe.run([](Visit& visit) { EXPECT_TRUE(visit.enter(one, "/one")); }, FileSystemProbe::About::Files));
}

TEST_F(AProbe, LetsNoFileSystemRestForItsFilesWhereTheQuestionBeganWithItsSpace) {
  EXPECT_TRUE(probe.run([](Visit& visit) {
    EXPECT_TRUE(visit.enter(one, "/one"));
    visit.askAbout(FileSystemProbe::About::Files);
    EXPECT_TRUE(visit.enter(one, "/one"));
    std::this_thread::sleep_for(FileSystemProbe::slowness);
  }));
  EXPECT_EQ(probe.closedUntil(one), std::nullopt);
  EXPECT_EQ(*ask(probe, one), 7);
}

TEST_F(AProbe, KnowsNothingWithoutWaitingOnceAllWorkersAreLost) {
  std::vector<HeldQuestion> held;
  held.reserve(limits::probeThreads);
  for (dev_t device = 100; device < 100 + limits::probeThreads; ++device) {
    held.emplace_back(device);
  }
  std::vector<std::thread> askers;
  for (const HeldQuestion& question : held) {
    askers.emplace_back([&] { EXPECT_FALSE(probe.run(question.question())); });
  }
  for (std::thread& asker : askers) {
    asker.join();
  }
  EXPECT_EQ(probe.lostWorkers(), limits::probeThreads);
  EXPECT_EQ(ask(probe, one).failure().number, ETIMEDOUT);
  held.clear();
  while (probe.lostWorkers() > 0) {
    std::this_thread::yield();
  }
  EXPECT_EQ(*ask(probe, one), 7);
}

TEST_F(AProbe, HasNoAnswerWhereTheSystemRefusesItsFirstThread) {
  runtime::threadCreator = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; };
  EXPECT_EQ(ask(probe, one).failure().number, ETIMEDOUT);
  runtime::threadCreator = &pthread_create;
  EXPECT_EQ(*ask(probe, one), 7);
}

TEST_F(AProbe, GoesOnWithTheWorkersItHasWhereTheSystemRefusesMore) {
  const HeldQuestion held;
  std::thread asker([&] { EXPECT_TRUE(probe.run(held.question())); });
  held.awaitEntered();
  runtime::threadCreator = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; };
  std::thread next([&] { EXPECT_EQ(*ask(probe, other), 7); });
  held.answer();
  asker.join();
  next.join();
  runtime::threadCreator = &pthread_create;
}

}  // namespace
}  // namespace kelvane
