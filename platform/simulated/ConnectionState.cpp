// SPDX-License-Identifier: Apache-2.0
// One end of a simulated connection: sending, reading and the end of it.
#include <algorithm>

#include "platform/Limits.h"
#include "platform/simulated/IpcState.h"
#include "platform/simulated/SimulatedCalls.h"

namespace kelvane::ipc {

using simulated::CallFailure;
using simulated::Message;

namespace {

bool isOfKind(const std::variant<Value, Endpoint>& argument, ArgumentKind kind) {
  const Value* value = std::get_if<Value>(&argument);
  if (value == nullptr) {
    return kind == ArgumentKind::Endpoint;
  }
  switch (kind) {
    case ArgumentKind::Integer:
      return value->isNumber();
    case ArgumentKind::String:
      return value->isString();
    case ArgumentKind::Dictionary:
      return value->isDictionary();
    case ArgumentKind::Any:
      return true;
    case ArgumentKind::Endpoint:
      break;
  }
  return false;
}

bool decodes(const Operation& operation, const Arguments& arguments) {
  return std::equal(arguments.begin(), arguments.end(), operation.arguments.begin(), operation.arguments.end(),
                    [](const auto& argument, const Argument& declared) { return isOfKind(argument, declared.kind); });
}

}  // namespace

Connection::State::State() : network(simulated::world().ipc.network()), self(network.identity()) {
  network.ends.insert(this);
}

Connection::State::~State() {
  network.ends.erase(this);
  if (phase != Phase::Ended) {
    hangUp();
  }
}

void Connection::State::send(Message message) {
  const std::shared_ptr<State> to = other.lock();
  if (to != nullptr && !otherGone && phase == Phase::Open) {
    to->inbox.push_back(std::move(message));
    network.readable(to);
  }
}

bool Connection::State::canRead() const {
  if (inbox.empty() || phase != Phase::Open) {
    return false;
  }
  if (!served) {
    return true;
  }
  const std::shared_ptr<Listener::State> by = listener.lock();
  return by != nullptr && by->serving && unanswered < limits::unansweredRequestsPerConnection;
}

void Connection::State::readMessage() {
  Message message = std::move(inbox.front());
  inbox.pop_front();
  if (message.operation == nullptr) {
    readAnswer(std::move(message));
  } else {
    readRequest(std::move(message));
  }
}

void Connection::State::readRequest(Message message) {
  const std::shared_ptr<Listener::State> by = listener.lock();
  const Operation* operation = by == nullptr ? nullptr : by->interface.operationForMember(message.operation->member);
  if (operation == nullptr || !decodes(*operation, message.arguments)) {
    const std::string name = operation == nullptr ? "UnknownMethod" : "InvalidArgs";
    send({message.serial,
          nullptr,
          {},
          CallError{"org.freedesktop.DBus.Error." + name + ": " + std::string(message.operation->member),
                    CallError::Cause::Answered}});
    return;
  }
  for (std::size_t index = 0; index < message.arguments.size(); ++index) {
    if (operation->arguments[index].kind == ArgumentKind::Integer) {
      message.arguments[index] = Value(std::get<Value>(message.arguments[index]).int32Value());
    }
  }
  const std::optional<CallFailure> failure = network.failureOf(by.get(), *operation);
  if (failure == CallFailure::Before) {
    breakLink();
    return;
  }
  ++unanswered;
  auto reply = std::make_shared<Reply::State>(shared_from_this(), message.serial, failure);
  requests.emplace_back(Request{*operation, std::move(message.arguments), Connection(shared_from_this()), Reply(reply)},
                        failure);
  if (!delivering) {
    delivering = true;
    simulated::scheduler().start("delivery of " + std::string(operation->member),
                                 [connection = shared_from_this()] { connection->deliver(); });
  }
}

void Connection::State::deliver() {
  for (;;) {
    simulated::scheduler().yield();
    if (requests.empty()) {
      delivering = false;
      return;
    }
    auto [request, failure] = std::move(requests.front());
    requests.pop_front();
    (*handler)(std::move(request));
    if (failure == CallFailure::During) {
      breakLink();
    }
  }
}

void Connection::State::readAnswer(Message message) {
  const auto found = calls.find(message.serial);
  if (found == calls.end()) {
    return;
  }
  Call call = std::move(found->second);
  calls.erase(found);
  simulated::scheduler().wakeAll(waitForAnswers);
  sendUnsent();
  simulated::scheduler().start("reply to " + std::string(call.operation->member),
                               [call = std::move(call), answer = std::move(message.answer)] {
                                 if (call.outcome) {
                                   call.outcome(answer);
                                 }
                               });
}

void Connection::State::findOtherDead() {
  if (phase == Phase::SettingUp) {
    return;
  }
  // What the other end sent before it died is still there to be read.
  while (canRead()) {
    readMessage();
  }
  interrupt({"org.freedesktop.DBus.Error.NoReply: Connection terminated"});
}

void Connection::State::interrupt(const CallError& error) {
  if (phase == Phase::Ended) {
    return;
  }
  const std::shared_ptr<State> self = shared_from_this();
  phase = Phase::Ended;
  endedBy = error;
  hangUp();
  inbox.clear();
  unsent.clear();
  const std::function<void()> handler = std::exchange(interruptionHandler, nullptr);
  invalidationHandler = nullptr;
  runEndHandlers(handler, std::exchange(calls, {}));
}

void Connection::State::invalidate() {
  endFor({"org.freedesktop.DBus.Error.Disconnected: Connection invalidated"});
}

void Connection::State::awaitAnswer(std::uint64_t call, std::chrono::seconds limit) {
  simulated::Scheduler& scheduler = simulated::scheduler();
  const std::uint64_t deadline = scheduler.deadlineIn(std::chrono::nanoseconds(limit).count());
  while (calls.contains(call)) {
    if (deadline <= scheduler.now()) {
      endFor({"org.freedesktop.DBus.Error.Timeout: A call was not answered in time", CallError::Cause::Unanswered});
    } else {
      scheduler.wait(waitForAnswers, "an answer", {}, deadline);
    }
  }
}

/// Ends as by invalidate().
void Connection::State::endFor(const CallError& error) {
  if (phase == Phase::Ended) {
    return;
  }
  phase = Phase::Ended;
  endedBy = error;
  hangUp();
  inbox.clear();
  unsent.clear();
  interruptionHandler = nullptr;
  network.post([connection = shared_from_this(), handler = std::exchange(invalidationHandler, nullptr),
                failed = std::exchange(calls, {})] { connection->runEndHandlers(handler, failed); });
}

void Connection::State::hangUp() {
  if (const std::shared_ptr<State> to = other.lock(); to != nullptr && !to->otherGone) {
    network.hangUp(to);
  }
}

void Connection::State::breakLink() {
  hangUp();
  if (!otherGone) {
    network.hangUp(shared_from_this());
  }
}

void Connection::State::failCall(Call call, const CallError& error) {
  simulated::scheduler().start("error of " + std::string(call.operation->member), [call = std::move(call), error] {
    if (call.proxy->errorHandler) {
      call.proxy->errorHandler(error);
    }
    if (call.limit != call.limit.zero() && call.outcome) {
      call.outcome(error);
    }
  });
}

void Connection::State::runEndHandlers(const std::function<void()>& handler, std::map<std::uint64_t, Call> failed) {
  simulated::scheduler().wakeAll(waitForAnswers);
  {
    const simulated::MustNotBlock scope("a handler of a connection's end");
    if (handler) {
      handler();
    }
    if (const std::shared_ptr<Listener::State> by = listener.lock()) {
      std::erase(by->accepted, shared_from_this());
      if (by->disconnectHandler) {
        by->disconnectHandler(Connection(shared_from_this()));
      }
    }
  }
  for (auto& [serial, call] : failed) {
    failCall(std::move(call), endedBy);
  }
}

}  // namespace kelvane::ipc
