// SPDX-License-Identifier: Apache-2.0
// How callers tell an absent reply, a refusal and the several ways to lose a connection apart.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <variant>

#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/IpcTesting.h"

namespace kelvane {
namespace {

using Cause = ipc::CallError::Cause;
using test::SampleListener;
using testing::HasSubstr;
namespace sample = test::sample;

/// Calls over a new connection and waits for what comes of it.
std::variant<Value, ipc::CallError> outcomeOf(const ipc::Connection& connection,
                                              const ipc::Operation& operation = sample::ping,
                                              ipc::Arguments arguments = {}) {
  using Outcome = std::variant<Value, ipc::CallError>;
  const auto outcomes = std::make_shared<test::Mailbox<Outcome>>();
  connection.setRemoteInterface(sample::interface);
  connection
      .remoteProxy([outcomes](const std::optional<ipc::CallError>& error) {
        outcomes->put(error.value_or(ipc::CallError{"none", Cause::Lost}));
      })
      .callForOutcome(operation, std::move(arguments), [outcomes](const Outcome& outcome) { outcomes->put(outcome); });
  connection.resume();
  return outcomes->take().value_or(ipc::CallError{"in no time", Cause::Lost});
}

Cause causeOf(const std::variant<Value, ipc::CallError>& outcome) {
  const auto* error = std::get_if<ipc::CallError>(&outcome);
  EXPECT_NE(error, nullptr);
  return error == nullptr ? Cause::Lost : error->cause;
}

TEST(AnOutcome, IsTheReplysValue) {
  SampleListener listener([](const ipc::Request& request) { request.reply.send(request.value(0)); });
  listener.resume();
  const auto outcome = outcomeOf(ipc::connectAt(listener.path()), sample::echo, {Value(7)});
  EXPECT_EQ(std::get<Value>(outcome), Value(7));
}

TEST(AnOutcome, IsAbsentForAReplyOfNothing) {
  SampleListener listener([](const ipc::Request& request) { request.reply.send(); });
  listener.resume();
  EXPECT_TRUE(std::get<Value>(outcomeOf(ipc::connectAt(listener.path()))).isAbsent());
  const auto none = outcomeOf(ipc::connectAt(listener.path()), sample::echo, {Value(7)});
  EXPECT_TRUE(std::get<Value>(none).isAbsent());
}

TEST(AnOutcome, IsTheErrorThatThePeerSent) {
  SampleListener listener([](const ipc::Request& request) {
    request.reply.sendError("org.freedesktop.DBus.Error.LimitsExceeded", "enough is enough");
  });
  listener.resume();
  const auto outcome = outcomeOf(ipc::connectAt(listener.path()));
  ASSERT_EQ(causeOf(outcome), Cause::Answered);
  EXPECT_EQ(std::get<ipc::CallError>(outcome).text, "org.freedesktop.DBus.Error.LimitsExceeded: enough is enough");
}

TEST(AnOutcome, SaysThatNobodyListens) {
  const test::TemporaryDirectory directory;
  const auto outcome = outcomeOf(ipc::connectAt(directory.path("socket")));
  ASSERT_EQ(causeOf(outcome), Cause::NotReached);
  EXPECT_THAT(std::get<ipc::CallError>(outcome).text, HasSubstr("No such file"));
}

TEST(AnOutcome, SaysThatTheListenerDoesNotAdmitTheCaller) {
  SampleListener listener;
  listener.listener().setAdmission([](const ipc::Peer&) { return false; });
  listener.resume();
  EXPECT_EQ(causeOf(outcomeOf(ipc::connectAt(listener.path()))), Cause::NotAdmitted);
}

TEST(AnOutcome, SaysThatTheConnectionWasLost) {
  SampleListener listener([](const ipc::Request& request) { request.connection.invalidate(); });
  listener.resume();
  EXPECT_EQ(causeOf(outcomeOf(ipc::connectAt(listener.path()))), Cause::Lost);
}

TEST(AnOutcome, TellsALateCallerWhyThereIsNoConnection) {
  const test::TemporaryDirectory directory;
  const ipc::Connection connection = ipc::connectAt(directory.path("socket"));
  EXPECT_EQ(causeOf(outcomeOf(connection)), Cause::NotReached);
  EXPECT_EQ(causeOf(outcomeOf(connection)), Cause::NotReached);
}

}  // namespace
}  // namespace kelvane
