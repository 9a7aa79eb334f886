// SPDX-License-Identifier: Apache-2.0
// A client that expects exactly one answer to each of its requests.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "tests/hostile/Service.h"
#include "tests/load/CachingService.h"

namespace kelvane::test {

/// One connection, and the service that its owner has besides. Belongs to one thread at a time. What is not as it
/// should be fails the test and is noted, so that all of them can stop.
class Requester {
 public:
  /// Looks at an answer and says what is wrong with it; nothing when it is as it should be.
  using Check = std::function<std::string(const Message&)>;

  /// The service may be null.
  Requester(std::string name, CachingService* service, std::atomic<bool>& hasFailed)
      : name_(std::move(name)), service_(service), hasFailed_(hasFailed) {}

  void send(const std::string& member, const Append& arguments, Check check);
  /// Waits until no more than so many requests are unanswered. Meanwhile the service answers its calls.
  void await(std::size_t unanswered);
  /// Looks whether there is an answer that nobody has asked for.
  void expectNothingMore();
  void fail(const std::string& what);

  const std::string& name() const { return name_; }
  bool hasFailed() const { return hasFailed_; }
  std::size_t answered() const { return answered_; }

  // Checks
  /// The answer is one value; what is wrong with that.
  static Check value(std::function<std::string(const Value&)> check);
  static Check equal(const Value& expected);
  /// The answer has no arguments.
  static Check nothingIn();
  static Check error(const std::string& errorName);

 private:
  struct Request {
    std::string member;
    Check check;
  };

  void takeAnswers();
  void take(const Message& answer);

  const std::string name_;
  CachingService* const service_;
  std::atomic<bool>& hasFailed_;
  Client client_;
  /// By their cookies.
  std::map<std::uint64_t, Request> unanswered_;
  std::size_t answered_ = 0;
};

}  // namespace kelvane::test
