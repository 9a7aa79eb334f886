// SPDX-License-Identifier: Apache-2.0
// A client of the sample interface that speaks D-Bus without this system's own code.
#pragma once

#include <string>

#include "tests/linux/ipc/SampleInterface.h"
#include "tests/linux/testing/BusClient.h"

namespace kelvane::test {

class RawClient : public BusClient {
 public:
  explicit RawClient(const std::string& path) : BusClient(path, sample::interface) {}
  /// On a socket that is connected, which it owns from now on.
  explicit RawClient(int socket) : BusClient(socket, sample::interface) {}
};

}  // namespace kelvane::test
