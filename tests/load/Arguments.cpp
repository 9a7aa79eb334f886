// SPDX-License-Identifier: Apache-2.0
// The arguments of requests for state, and endpoints.
#include "tests/load/Arguments.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "platform/linux/ipc/ValueEncoder.h"

namespace kelvane::test {

Append stateOf(const Append& variant, const std::string& key) {
  return [=](sd_bus_message* message) {
    const int result = variant(message);
    return result < 0 ? result : sd_bus_message_append(message, "s", key.c_str());
  };
}

Append stateOf(const Value& value, const std::string& key) {
  return stateOf(
      [value](sd_bus_message* message) { return ipc::ValueEncoder(message).appendVariant(value) ? 0 : -EINVAL; }, key);
}

Append keyOf(const std::string& key) {
  return [=](sd_bus_message* message) { return sd_bus_message_append(message, "s", key.c_str()); };
}

std::pair<FileDescriptor, FileDescriptor> socketPair() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

}  // namespace kelvane::test
