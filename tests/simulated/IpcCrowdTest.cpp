// SPDX-License-Identifier: Apache-2.0
// More calls between simulated connections than may be outstanding, and calls that nobody wants any more.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/simulated/IpcTesting.h"

namespace kelvane {
namespace {

using ipcTesting::Caller;
using ipcTesting::serve;
using ipcTesting::underManySchedules;
using testing::ElementsAre;
using testing::IsEmpty;

/// A service that keeps its requests until it is told to answer them, and a caller with limits.
class Crowd {
 public:
  explicit Crowd(Simulation& simulation) : simulation_(simulation) { caller_.connection().resume(); }

  const Caller& caller() const { return caller_; }
  void tell(const Value& value, const std::string& name = "name") {
    caller_.call(ipcTesting::tell, {Value(Value::Dictionary{{name, value}})});
  }
  /// What has reached the service and is unanswered.
  std::vector<std::string> arrived() {
    simulation_.settle();
    std::vector<std::string> texts;
    for (const ipc::Request& request : requests_) {
      texts.push_back(request.value(0).description());
    }
    return texts;
  }
  void answerAll() {
    for (const ipc::Request& request : std::exchange(requests_, {})) {
      request.reply.send(Value("done"));
    }
  }

 private:
  Simulation& simulation_;
  std::vector<ipc::Request> requests_;
  const ipc::Listener listener_ = serve([this](ipc::Request request) { requests_.push_back(std::move(request)); });
  const Caller caller_{ipc::Connection::toEndpoint(*listener_.endpoint()), ipcTesting::limitedInterface};
};

TEST(ACallBeyondTheLimit, FailsAndTheConnectionStays) {
  underManySchedules([](Simulation& simulation) {
    Crowd crowd(simulation);
    crowd.caller().echo(Value(1));
    crowd.caller().echo(Value(2));
    EXPECT_THAT(crowd.arrived(), ElementsAre("1", "2"));
    crowd.caller().echo(Value(3));
    EXPECT_THAT(crowd.arrived(), ElementsAre("1", "2"));
    EXPECT_THAT(crowd.caller().events(), ElementsAre("error"));
    EXPECT_EQ(crowd.caller().error()->cause, ipc::CallError::Cause::NotSent);
    crowd.answerAll();
    EXPECT_THAT(crowd.arrived(), IsEmpty());
    crowd.caller().echo(Value(4));
    EXPECT_THAT(crowd.arrived(), ElementsAre("4"));
  });
}

TEST(CallsThatWaitBeyondTheLimit, AreSentInOrderAsOthersAreAnswered) {
  underManySchedules([](Simulation& simulation) {
    Crowd crowd(simulation);
    for (int number = 1; number <= 5; ++number) {
      crowd.tell(number);
    }
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ name = 1; }", "{ name = 2; }"));
    crowd.answerAll();
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ name = 3; }", "{ name = 4; }"));
    crowd.answerAll();
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ name = 5; }"));
    EXPECT_THAT(crowd.caller().events(), testing::Each("reply done"));
  });
}

TEST(CallsThatWaitBeyondTheLimit, GiveWayToALaterOneOfTheirNamesWhenTooManyWait) {
  underManySchedules([](Simulation& simulation) {
    Crowd crowd(simulation);
    crowd.tell(1, "sent");
    crowd.tell(2, "sent");
    crowd.tell(3, "a");
    crowd.tell(4, "b");
    crowd.tell(5, "a");
    EXPECT_THAT(crowd.caller().events(), IsEmpty());
    crowd.tell(6, "a");
    crowd.tell(7, "c");
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ sent = 1; }", "{ sent = 2; }"));
    EXPECT_THAT(crowd.caller().events(), ElementsAre("error"));
    crowd.answerAll();
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ b = 4; }", "{ a = 5; }"));
    crowd.answerAll();
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ a = 6; }", "{ c = 7; }"));
  });
}

TEST(CallsThatWaitBeyondTheLimit, GiveWayToALaterOneOfTheirNamesWhenTheirBytesAreTooMany) {
  underManySchedules([](Simulation& simulation) {
    Crowd crowd(simulation);
    crowd.tell(1, "sent");
    crowd.tell(2, "sent");
    crowd.tell(std::string(1500, 'p'), "a");
    crowd.tell(std::string(1500, 'q'), "b");
    EXPECT_THAT(crowd.caller().events(), IsEmpty());
    crowd.tell(std::string(1500, 'r'), "a");
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ sent = 1; }", "{ sent = 2; }"));
    EXPECT_THAT(crowd.caller().events(), ElementsAre("error"));
    crowd.tell(std::string(1500, 's'), "c");
    EXPECT_THAT(crowd.arrived(), ElementsAre("{ sent = 1; }", "{ sent = 2; }"));
    EXPECT_THAT(crowd.caller().events(), ElementsAre("error")) << "nothing of its name is there to give way";
    crowd.answerAll();
    EXPECT_THAT(crowd.arrived(), ElementsAre(testing::HasSubstr("qqq"), testing::HasSubstr("rrr")));
    crowd.answerAll();
    EXPECT_THAT(crowd.arrived(), ElementsAre(testing::HasSubstr("sss")));
  });
}

TEST(ACallThatIsNotWantedAnyMore, IsNotSentWhenTheConnectionOpens) {
  underManySchedules([](Simulation& simulation) {
    std::vector<std::string> arrived;
    const ipc::Listener listener =
        serve([&](const ipc::Request& request) { arrived.push_back(request.value(0).description()); });
    const Caller caller(ipc::Connection::toEndpoint(*listener.endpoint()), ipcTesting::limitedInterface);
    bool isWanted = true;
    std::optional<ipc::CallError> error;
    const ipc::Proxy proxy = caller.connection().remoteProxy([&](const auto& failure) { error = failure; },
                                                             [&isWanted] { return isWanted; });
    proxy.call(ipcTesting::echo, {Value(1)}, {});
    caller.echo(Value(2));
    isWanted = false;
    // The first gives its place to one more.
    caller.echo(Value(3));
    caller.connection().resume();
    simulation.settle();
    EXPECT_THAT(arrived, ElementsAre("2", "3"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->cause, ipc::CallError::Cause::NotSent);
  });
}

}  // namespace
}  // namespace kelvane
