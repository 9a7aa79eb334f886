// SPDX-License-Identifier: Apache-2.0
// A client that expects exactly one answer to each of its requests.
#include "tests/load/Requester.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <array>

namespace kelvane::test {

namespace {

/// Longer than all purges take that may wait for each other, also where processors have other things to do.
constexpr int patienceMilliseconds = 240'000;

}  // namespace

void Requester::send(const std::string& member, const Append& arguments, Check check) {
  if (!client_.send(member, arguments)) {
    return fail(member + " could not be sent");
  }
  unanswered_[client_.lastCookie()] = {member, std::move(check)};
}

void Requester::await(std::size_t unanswered) {
  for (;;) {
    takeAnswers();
    if (service_ != nullptr && !service_->serve()) {
      return fail("the daemon has hung up on its service");
    }
    if (unanswered_.size() <= unanswered || hasFailed_) {
      return;
    }
    std::array<pollfd, 2> states = {
        {{client_.socket(), POLLIN, 0}, {service_ == nullptr ? -1 : service_->socket(), POLLIN, 0}}};
    if (poll(states.data(), states.size(), patienceMilliseconds) <= 0) {
      return fail(unanswered_.begin()->second.member + " was not answered");
    }
  }
}

void Requester::takeAnswers() {
  for (;;) {
    sd_bus_message* received = nullptr;
    const int result = sd_bus_process(client_.bus(), &received);
    const Message answer(received);
    if (result < 0 || client_.socket() < 0) {
      return fail("the daemon has hung up");
    }
    if (result == 0) {
      return;
    }
    if (answer) {
      take(answer);
    }
  }
}

void Requester::take(const Message& answer) {
  std::uint64_t cookie = 0;
  sd_bus_message_get_reply_cookie(answer.get(), &cookie);
  const auto request = unanswered_.extract(cookie);
  if (request.empty()) {
    return fail("there is an answer to what is not open, " + std::to_string(cookie));
  }
  ++answered_;
  const std::string wrong = request.mapped().check(answer);
  if (!wrong.empty()) {
    fail(request.mapped().member + ": " + wrong);
  }
}

void Requester::expectNothingMore() {
  if (hasFailed_) {
    return;
  }
  if (!unanswered_.empty()) {
    fail(unanswered_.begin()->second.member + " is still open");
  }
  takeAnswers();
}

void Requester::fail(const std::string& what) {
  hasFailed_ = true;
  ADD_FAILURE() << name_ << ": " << what;
}

Requester::Check Requester::value(std::function<std::string(const Value&)> check) {
  return [check = std::move(check)](const Message& answer) -> std::string {
    if (const sd_bus_error* error = sd_bus_message_get_error(answer.get())) {
      return std::string("an error, ") + error->name + ": " + error->message;
    }
    return sd_bus_message_has_signature(answer.get(), "v") > 0 ? check(nextValue(answer)) : "not one value";
  };
}

Requester::Check Requester::equal(const Value& expected) {
  return value([expected](const Value& value) {
    return value == expected ? "" : value.description() + " instead of " + expected.description();
  });
}

Requester::Check Requester::nothingIn() {
  return [](const Message& answer) -> std::string {
    if (const sd_bus_error* error = sd_bus_message_get_error(answer.get())) {
      return std::string("an error, ") + error->name + ": " + error->message;
    }
    return sd_bus_message_has_signature(answer.get(), "") > 0 ? "" : "arguments where there should be none";
  };
}

Requester::Check Requester::error(const std::string& errorName) {
  return [errorName](const Message& answer) -> std::string {
    const sd_bus_error* const error = sd_bus_message_get_error(answer.get());
    if (error == nullptr) {
      return "no error";
    }
    return error->name == errorName ? "" : std::string("another error, ") + error->name + ": " + error->message;
  };
}

}  // namespace kelvane::test
