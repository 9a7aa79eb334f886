// SPDX-License-Identifier: Apache-2.0
// Clients that change state as fast as they may, and report what was acknowledged.
//
//   machine_state_writer FIRST KEY...
//
// Each key has a client, which sets it to FIRST, then to the number after that, and so on until it is answered with an
// error or the daemon is gone. Out come lines: "+ KEY NUMBER" once a change was acknowledged, "- KEY NUMBER" once it
// was answered with an error.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/KelvaneClient.h"

namespace {

using Status = kelvane::KelvaneClientResult::Status;

/// Now and then many blocks long, so that parts of it may be lost.
std::string text(std::uint64_t number) {
  const std::string unit = std::to_string(number) + ";";
  const std::size_t length = number % 5 == 0 ? 1 + number * 7919 % 40'000 : 1;
  std::string value = unit;
  while (value.size() < length) {
    value += unit;
  }
  return value;
}

void change(const std::string& key, std::uint64_t number) {
  const kelvane::KelvaneClient client;
  for (;; ++number) {
    const Status status = client.setState(text(number), key).status;
    if (status != Status::Answered && status != Status::Failed) {
      return;
    }
    const bool isAcknowledged = status == Status::Answered;
    const std::string line = (isAcknowledged ? "+ " : "- ") + key + " " + std::to_string(number) + "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) < 0 || !isAcknowledged) {
      return;
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  const std::uint64_t first = count > 1 ? std::strtoull(arguments[1], nullptr, 10) : 0;
  std::vector<std::jthread> clients;
  for (int index = 2; index < count; ++index) {
    clients.emplace_back(change, std::string(arguments[index]), first);
  }
}
