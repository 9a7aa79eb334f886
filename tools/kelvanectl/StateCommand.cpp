// SPDX-License-Identifier: Apache-2.0
// "kelvanectl state": what clients keep in the daemon.
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tools/kelvanectl/CommandOutput.h"
#include "tools/kelvanectl/Commands.h"
#include "tools/kelvanectl/Interruption.h"
#include "tools/kelvanectl/Requests.h"
#include "tools/kelvanectl/StateText.h"
#include "tools/kelvanectl/StateValue.h"

namespace kelvane::ctl {
namespace {

using Action = StateCommand::Action;

struct InputError {
  ExitStatus status;
  std::string text;
};

/// All of standard input; no more than a request may have.
std::variant<std::string, InputError> readInput(const Interruption& interruption) {
  std::string text;
  std::array<char, 16384> buffer{};
  while (text.size() <= limits::requestBytes) {
    std::array<pollfd, 2> events = {pollfd{STDIN_FILENO, POLLIN, 0}, pollfd{interruption.descriptor(), POLLIN, 0}};
    poll(events.data(), events.size(), -1);
    if (events[1].revents != 0) {
      return InputError{ExitStatus::Interrupted, "interrupted"};
    }
    const ssize_t count = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (count < 0) {
      return InputError{ExitStatus::Usage, fmt::format("cannot read the value: {}", std::strerror(errno))};
    }
    if (count == 0) {
      return text;
    }
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return InputError{ExitStatus::Usage, fmt::format("the value has more than {} bytes", limits::requestBytes)};
}

std::variant<Value, InputError> valueOf(const StateCommand& command, const Interruption& interruption) {
  std::variant<std::string, InputError> text = command.value;
  if (command.value == "-") {
    text = readInput(interruption);
  }
  if (auto* error = std::get_if<InputError>(&text)) {
    return std::move(*error);
  }
  if (command.isString) {
    return Value(std::get<std::string>(std::move(text)));
  }
  auto value = parseStateValue(std::get<std::string>(text));
  if (auto* error = std::get_if<ValueError>(&value)) {
    return InputError{ExitStatus::Usage, std::move(error->text)};
  }
  return std::get<Value>(std::move(value));
}

Outcome setState(const Value& value, const std::string& key, const Interruption& interruption) {
  const KelvaneClient client;
  return await([&](KelvaneClient::Handler handler) { client.setState(value, key, std::move(handler)); }, interruption);
}

Outcome getState(const std::string& key, const Interruption& interruption) {
  const KelvaneClient client;
  return await([&](KelvaneClient::Handler handler) { client.getState(key, std::move(handler)); }, interruption);
}

ExitStatus statusOf(const Outcome& outcome) {
  const auto* failure = std::get_if<RequestFailure>(&outcome);
  return failure != nullptr ? reportFailure(*failure) : ExitStatus::Done;
}

ExitStatus set(const StateCommand& command, const Interruption& interruption) {
  const auto value = valueOf(command, interruption);
  if (const auto* error = std::get_if<InputError>(&value)) {
    printError(error->text);
    return error->status;
  }
  return statusOf(setState(std::get<Value>(value), command.key, interruption));
}

ExitStatus get(const StateCommand& command, const Interruption& interruption) {
  const Outcome outcome = getState(command.key, interruption);
  if (const ExitStatus status = statusOf(outcome); status != ExitStatus::Done) {
    return status;
  }
  const Value& value = std::get<Value>(outcome);
  if (value.isAbsent()) {
    printError(fmt::format("there is no value under {}", command.key));
    return ExitStatus::Short;
  }
  print(command.json ? stateJson(value) + "\n" : stateText(value));
  return ExitStatus::Done;
}

ExitStatus list(const StateCommand& command, const Interruption& interruption) {
  const Outcome outcome = getState(keys::userDefaults, interruption);
  if (const ExitStatus status = statusOf(outcome); status != ExitStatus::Done) {
    return status;
  }
  const auto stored = std::get<Value>(outcome).dictionary();
  const Value::Dictionary state = stored ? *stored : Value::Dictionary();
  print(command.json ? stateJson(state) + "\n" : stateListText(state));
  return ExitStatus::Done;
}

}  // namespace

ExitStatus run(const StateCommand& command, const Interruption& interruption) {
  switch (command.action) {
    case Action::Get:
      return get(command, interruption);
    case Action::Set:
      return set(command, interruption);
    case Action::Unset:
      return statusOf(setState({}, command.key, interruption));
    case Action::List:
      break;
  }
  return list(command, interruption);
}

}  // namespace kelvane::ctl
